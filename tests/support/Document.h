#ifndef PZ_TESTS_SUPPORT_DOCUMENT_H
#define PZ_TESTS_SUPPORT_DOCUMENT_H

#include <string>
#include <vector>

// What tests read from the pages of the documentation.

namespace pztest {

/// What stands between the first line "```" + `kind` and the next line that begins with "```".
inline std::string block_of(const std::string& page, const std::string& kind) {
    const std::string open = "\n```" + kind + "\n";
    const size_t at = page.find(open);
    if (at == std::string::npos) return "";
    const size_t start = at + open.size();
    if (page.compare(start, 3, "```") == 0) return "";
    return page.substr(start, page.find("\n```", start) + 1 - start);
}

/// The lines of a text, without their line feeds.
inline std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        const size_t end =
            text.find('\n', at) != std::string::npos ? text.find('\n', at) : text.size();
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

/// The columns of a line: what two or more blanks part.
inline std::vector<std::string> columns_of(const std::string& line) {
    std::vector<std::string> columns;
    for (size_t at = line.find_first_not_of(' '); at < line.size();) {
        const size_t end = line.find("  ", at);
        columns.push_back(line.substr(at, end - at));
        at = end == std::string::npos ? end : line.find_first_not_of(' ', end);
    }
    return columns;
}

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_DOCUMENT_H
