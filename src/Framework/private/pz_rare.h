#ifndef PZ_FRAMEWORK_PRIVATE_PZ_RARE_H
#define PZ_FRAMEWORK_PRIVATE_PZ_RARE_H

/// The condition, laid out as one that mostly does not hold.
constexpr bool pz_is_rare(bool condition) {
    return __builtin_expect(condition, false);
}

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_RARE_H
