#include "FirstLine.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "common/CodePageNames.h"

namespace {

constexpr size_t kMaxTitle = 60;  // characters

/// Radio text looks like other text: only a name like "capture.RDS-2017.bin" tells the set.
EN_XCP radio_set_of(const std::string& path) {
    const size_t last = path.rfind('.');
    const size_t first = last == std::string::npos || last == 0 ? last : path.rfind('.', last - 1);
    if (first == std::string::npos) return XCP_NONE;
    const EN_XCP page = code_page_of(path.substr(first + 1, last - first - 1).c_str());
    const bool isRadio = page == XCP_RDS || page == XCP_RDS_2017 || page == XCP_RBDS_2017;
    return isRadio ? page : XCP_NONE;
}

/// Bytes of the UTF-8 character at `i`; 0 when there is none.
size_t utf8_character(const std::string& text, size_t i) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const size_t size = lead < 0x80                   ? 1
                        : lead >= 0xC2 && lead < 0xE0 ? 2
                        : (lead & 0xF0) == 0xE0       ? 3
                        : lead >= 0xF0 && lead < 0xF5 ? 4
                                                      : 0;
    if (size == 0 || i + size > text.size()) return 0;
    for (size_t k = 1; k < size; ++k) {
        if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return 0;
    }
    return size;
}

bool is_utf8(const std::string& text) {
    size_t size = 0;
    for (size_t i = 0; i < text.size(); i += size) {
        size = utf8_character(text, i);
        if (size == 0) return false;
    }
    return true;
}

bool is_utf16(EN_XCP page) {
    return page == XCP_UTF16BE || page == XCP_UTF16LE;
}

/// The line that begins at `begin`, its line feed left out.
std::string line_at(const std::string& head, size_t begin, EN_XCP page) {
    if (!is_utf16(page)) return head.substr(begin, head.find('\n', begin) - begin);
    const size_t low = page == XCP_UTF16BE ? 1 : 0;
    size_t end = begin;
    while (end + 1 < head.size() && !(head[end + low] == '\n' && head[end + 1 - low] == '\0')) {
        end += 2;
    }
    return head.substr(begin, end - begin);
}

/// False when `bytes` are no text of that page.
bool to_utf8(const std::string& bytes, EN_XCP page, std::string& utf8) {
    constexpr size_t kMaxBytesPerByte = 6;
    utf8.clear();
    if (bytes.empty()) return true;
    std::vector<char> buffer((bytes.size() + 1) * kMaxBytesPerByte, '\0');
    const int size = pz_cp_conv(buffer.data(), static_cast<unsigned int>(buffer.size()), XCP_UTF8,
                                bytes.data(), static_cast<unsigned int>(bytes.size()), page);
    if (size > 0) utf8.assign(buffer.data(), static_cast<size_t>(size));
    return size > 0;
}

/// Without control characters and a byte order mark, without blanks at both ends.
std::string clean(const std::string& utf8) {
    std::string text;
    for (const char c : utf8) {
        if (c == '\t') text += ' ';
        if (static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) text += c;
    }
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) text.erase(0, 3);
    const size_t begin = text.find_first_not_of(' ');
    if (begin == std::string::npos) return "";
    return text.substr(begin, text.find_last_not_of(' ') + 1 - begin);
}

std::string shortened(const std::string& utf8) {
    size_t end = 0;
    size_t characters = 0;
    while (end < utf8.size() && characters < kMaxTitle) {
        end += std::max<size_t>(utf8_character(utf8, end), 1);
        ++characters;
    }
    return end < utf8.size() ? utf8.substr(0, end) + "..." : utf8;
}

}  // namespace

EN_XCP detect_page(const std::string& path, const std::string& head) {
    const EN_XCP radioSet = radio_set_of(path);
    if (radioSet != XCP_NONE) return radioSet;
    const EN_XCP page =
        pz_cp_detect(head.data(), static_cast<unsigned int>(head.size()), XCP_NONE, 0);
    const bool hasZero = head.find('\0') != std::string::npos;
    if (hasZero && !is_utf16(page)) return XCP_NONE;
    if (page == XCP_NONE && is_utf8(head)) return XCP_UTF8;
    return page;
}

bool first_line(const std::string& head, EN_XCP page, std::string& title) {
    const size_t lineFeed = is_utf16(page) ? 2 : 1;
    title.clear();
    for (size_t begin = 0; begin < head.size() && title.empty();) {
        const std::string line = line_at(head, begin, page);
        std::string utf8;
        if (!to_utf8(line, page, utf8)) return false;
        title = shortened(clean(utf8));
        begin += line.size() + lineFeed;
    }
    return true;
}

std::string printable(const std::string& bytes) {
    if (is_utf8(bytes)) return bytes;
    std::string text;
    for (const char c : bytes) {
        if (c >= 0x20 && c < 0x7F) {
            text += c;
            continue;
        }
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned char>(c));
        text += escaped;
    }
    return text;
}
