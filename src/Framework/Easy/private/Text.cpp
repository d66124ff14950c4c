#include "Framework/Easy/Text.h"

#include <new>

#include <Framework/Diagnostics/PZReport.h>

namespace pz {

namespace {

constexpr std::size_t kLongest = 128UL * 1024 * 1024;

/// The most bytes that one byte can become: between two escape sequences, or as a wide character.
constexpr std::size_t kGrowth = 8;
constexpr std::size_t kMarks = 16;  // in front and at the end

/// The converters count units: this many bytes each.
constexpr std::size_t unit_size(EN_XCP page) {
    if (page == XCP_WCHAR) return sizeof(wchar_t);
    return page >= XCP_UTF16 && page <= XCP_UTF16LE ? 2 : 1;
}

Converted convert(std::string_view text, EN_XCP from, EN_XCP to) noexcept {
    if (text.empty()) return Converted(std::string());
    if (text.size() > kLongest) {
        PZ_REPORT_ERROR("a text of %zu bytes is too long\n", text.size());
        return Converted();
    }
    try {
        std::string converted(text.size() * kGrowth + kMarks, '\0');
        const int length =
            pz_cp_conv(converted.data(), static_cast<unsigned int>(converted.size()), to,
                       text.data(), static_cast<unsigned int>(text.size()), from);
        if (length < 1) return Converted();
        return Converted(
            std::string(converted, 0, static_cast<std::size_t>(length) * unit_size(to)));
    } catch (const std::bad_alloc&) {
        PZ_REPORT_ERROR("no memory for a text of %zu bytes\n", text.size());
        return Converted();
    }
}

}  // namespace

Converted to_utf8(std::string_view bytes, EN_XCP from) noexcept {
    return convert(bytes, from, XCP_UTF8);
}

Converted from_utf8(std::string_view utf8, EN_XCP to) noexcept {
    return convert(utf8, XCP_UTF8, to);
}

std::optional<EN_XCP> detect(std::string_view bytes, EN_XCP hint, int threshold) noexcept {
    if (bytes.empty()) return std::nullopt;
    if (bytes.size() > kLongest) {
        PZ_REPORT_ERROR("a text of %zu bytes is too long\n", bytes.size());
        return std::nullopt;
    }
    const EN_XCP page =
        pz_cp_detect(bytes.data(), static_cast<unsigned int>(bytes.size()), hint, threshold);
    if (page == XCP_NONE) return std::nullopt;
    return page;
}

}  // namespace pz
