#ifndef PZ_FRAMEWORK_EASY_TEXT_H
#define PZ_FRAMEWORK_EASY_TEXT_H

/// @file
/// Texts between code pages, as strings.
///
/// Threads:  any thread may call anything.
/// Limit:    texts of up to 128 MiB.
/// Failures: answered with nothing, and reported; nothing is thrown, a lack of memory included.

#include <optional>
#include <string>
#include <string_view>

#include <Framework/PZApi.h>
#include <Framework/Wrapper/pz_cp_conv.h>

namespace pz {

/// A text, or nothing when it cannot be converted. Where a std::string is wanted, nothing counts as
/// an empty one.
class Converted : public std::optional<std::string> {
public:
    using std::optional<std::string>::optional;

    /// The text, or "".
    operator std::string() const { return value_or(std::string()); }  // NOLINT
};

/// The text in UTF-8. The bytes are in the code page `from`; an empty text is converted to one.
///
///     std::string s = pz::to_utf8(bytes, XCP_SJIS);
///
/// Nothing for bytes that are not valid in `from`, and when the machine has no such conversion. A
/// zero byte is a character like others, except in the radio sets.
[[nodiscard]] PZ_API Converted to_utf8(std::string_view bytes, EN_XCP from) noexcept;

/// The bytes of a text in the code page `to`. Nothing for a text that is not UTF-8 or has
/// characters that `to` lacks, and for the radio sets, which are only read.
[[nodiscard]] PZ_API Converted from_utf8(std::string_view utf8, EN_XCP to) noexcept;

/// The likely code page of the bytes; nothing when there is none, for an empty text, and without
/// ICU (reported). See pz_cp_detect for `hint` and `threshold`.
[[nodiscard]] PZ_API std::optional<EN_XCP> detect(std::string_view bytes, EN_XCP hint = XCP_NONE,
                                                  int threshold = 0) noexcept;

}  // namespace pz

#endif  // PZ_FRAMEWORK_EASY_TEXT_H
