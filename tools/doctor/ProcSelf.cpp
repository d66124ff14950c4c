#include "ProcSelf.h"

#include <cstdlib>
#include <sstream>
#include <string>

namespace {

/// What follows `start` in the line that begins with it.
std::optional<std::string> rest_of_line(const Machine& machine, const char* path,
                                        const std::string& start) {
    const auto text = machine.Read(path);
    if (!text) return std::nullopt;
    std::istringstream lines(*text);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, start.size(), start) == 0) return line.substr(start.size());
    }
    return std::nullopt;
}

std::optional<unsigned long long> limit_in_column(const Machine& machine, const char* row,
                                                  int column) {
    const auto rest = rest_of_line(machine, kLimitsPath, row + std::string(" "));
    if (!rest) return std::nullopt;
    std::istringstream columns(*rest);
    std::string text;
    for (int i = 0; i <= column; ++i) columns >> text;
    if (!columns) return std::nullopt;
    if (text == "unlimited") return kUnlimited;
    char* end = nullptr;
    const unsigned long long limit = std::strtoull(text.c_str(), &end, 10);
    if (*end != '\0') return std::nullopt;
    return limit;
}

}  // namespace

std::optional<unsigned long long> soft_limit(const Machine& machine, const char* row) {
    return limit_in_column(machine, row, 0);
}

std::optional<unsigned long long> hard_limit(const Machine& machine, const char* row) {
    return limit_in_column(machine, row, 1);
}

std::optional<int> own_nice(const Machine& machine) {
    constexpr int kColumnsBeforeNice = 16;  // of those after the name, which ends with ')'
    const auto text = machine.Read(kStatPath);
    if (!text || text->rfind(')') == std::string::npos) return std::nullopt;
    std::istringstream columns(text->substr(text->rfind(')') + 1));
    std::string skipped;
    for (int i = 0; i < kColumnsBeforeNice; ++i) columns >> skipped;
    int nice = 0;
    if (!(columns >> nice)) return std::nullopt;
    return nice;
}

bool has_capability(const Machine& machine, int number) {
    const auto mask = rest_of_line(machine, kStatusPath, "CapEff:");
    if (!mask) return false;
    return (std::strtoull(mask->c_str(), nullptr, 16) >> number & 1) != 0;
}
