#include "Text.h"

#include <array>
#include <cinttypes>
#include <cstdio>

namespace {

bool is_continuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

/// First bytes, with the second bytes that may follow. Left out are control characters, halves of
/// pairs of UTF-16, and the marks of direction and form, which would move what follows them.
struct CharacterRange {
    unsigned char first;
    unsigned char last;
    unsigned char lowSecond;
    unsigned char highSecond;
    std::size_t length;
};

constexpr CharacterRange kCharacters[] = {
    {0x20, 0x7E, 0x00, 0xFF, 1}, {0xC2, 0xC2, 0xA0, 0xBF, 2}, {0xC3, 0xDF, 0x80, 0xBF, 2},
    {0xE0, 0xE0, 0xA0, 0xBF, 3}, {0xE1, 0xE1, 0x80, 0xBF, 3}, {0xE2, 0xE2, 0x82, 0xBF, 3},
    {0xE3, 0xEC, 0x80, 0xBF, 3}, {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3},
    {0xF0, 0xF0, 0x90, 0xBF, 4}, {0xF1, 0xF3, 0x80, 0xBF, 4},
};

/// Bytes of the character at the place; 0 when none begins there.
std::size_t character_at(const std::string& text, std::size_t place) {
    const auto first = static_cast<unsigned char>(text[place]);
    for (const CharacterRange& range : kCharacters) {
        if (first < range.first || first > range.last) continue;
        if (range.length == 1) return 1;
        if (place + range.length > text.size()) return 0;
        const auto second = static_cast<unsigned char>(text[place + 1]);
        if (second < range.lowSecond || second > range.highSecond) return 0;
        for (std::size_t i = 2; i < range.length; ++i) {
            if (!is_continuation(static_cast<unsigned char>(text[place + i]))) return 0;
        }
        return range.length;
    }
    return 0;
}

}  // namespace

std::string printable(const std::string& text) {
    std::string result;
    for (std::size_t place = 0; place < text.size();) {
        const std::size_t length = character_at(text, place);
        if (length == 0) {
            result += '?';
            ++place;
            continue;
        }
        result.append(text, place, length);
        place += length;
    }
    return result;
}

std::size_t columns_of(const std::string& text) {
    std::size_t count = 0;
    for (const char byte : text) {
        if (!is_continuation(static_cast<unsigned char>(byte))) ++count;
    }
    return count;
}

std::string padded(const std::string& text, std::size_t columns, bool toTheRight) {
    const std::size_t width = columns_of(text);
    if (width >= columns) return text;
    const std::string blanks(columns - width, ' ');
    return toTheRight ? blanks + text : text + blanks;
}

std::string fixed(double value, int digits) {
    char text[400];
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

std::string hex(std::uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%" PRIx64, value);
    return text;
}

std::string duration(std::uint32_t ms) {
    if (ms < 1000) return std::to_string(ms) + " ms";
    if (ms < 60000) return fixed(ms / 1000.0, 1) + " s";
    if (ms < 3600000) return fixed(ms / 60000.0, 1) + " min";
    return fixed(ms / 3600000.0, 1) + " h";
}

std::string bytes(std::uint64_t count) {
    constexpr std::array<const char*, 3> kUnits = {" KiB", " MiB", " GiB"};
    if (count < 1024) return std::to_string(count) + " B";
    double value = static_cast<double>(count) / 1024;
    std::size_t unit = 0;
    for (; value >= 1024 && unit + 1 < kUnits.size(); ++unit) value /= 1024;
    return fixed(value, 1) + kUnits[unit];
}

std::string json_string(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') result += '\\';
        result += c;
    }
    return result + "\"";
}
