#ifndef TOOLS_COMMON_WORDS_H
#define TOOLS_COMMON_WORDS_H

#include <cstddef>

/// A text for each value of an enumeration that counts up from 0 to `kLast`.
///
///     constexpr Words<Side, Side::Right> kNames = {"left", "right"};
///     std::puts(kNames[Side::Right]);
template <typename Enum, Enum kLast>
class Words {
public:
    template <typename... Texts>
    constexpr Words(Texts... texts) : texts_{texts...} {  // NOLINT(google-explicit-constructor)
        static_assert(sizeof...(texts) == kCount, "a text for each value");
    }

    constexpr const char* operator[](Enum value) const {
        return texts_[static_cast<std::size_t>(value)];
    }

private:
    static constexpr std::size_t kCount = static_cast<std::size_t>(kLast) + 1;

    const char* texts_[kCount];
};

#endif  // TOOLS_COMMON_WORDS_H
