#ifndef PZ_FRAMEWORK_UTILITY_PRIVATE_PZ_FIND_BYTES_H
#define PZ_FRAMEWORK_UTILITY_PRIVATE_PZ_FIND_BYTES_H

#include <string_view>

/// Position of the first `sought` in `text`, which must not be empty; npos when there is none. The
/// time grows with the size of `text`, whatever the two hold.
size_t pz_find_bytes(std::string_view text, std::string_view sought) noexcept;

#endif  // PZ_FRAMEWORK_UTILITY_PRIVATE_PZ_FIND_BYTES_H
