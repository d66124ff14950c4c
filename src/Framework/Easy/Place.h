#ifndef PZ_FRAMEWORK_EASY_PLACE_H
#define PZ_FRAMEWORK_EASY_PLACE_H

namespace pz {

/// Where in the source something was asked for. Reports of a handler name the place of its post.
///
/// As the default value of a last parameter it is the place of the call.
struct Place {
    const char* file;      ///< as the compiler was given it; a static text
    const char* function;  ///< a static text
    int line;              ///< counts from 1

    /// The place of the call.
    static constexpr Place here(const char* file = __builtin_FILE(),
                                const char* function = __builtin_FUNCTION(),
                                int line = __builtin_LINE()) noexcept {
        return {file, function, line};
    }
};

}  // namespace pz

#endif  // PZ_FRAMEWORK_EASY_PLACE_H
