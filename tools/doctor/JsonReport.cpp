#include <cstdio>
#include <string>

#include "Report.h"

namespace {

/// `text` as a JSON string. Bytes outside of ASCII are written as characters of that number: names
/// of files need not be valid UTF-8.
std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            result += '\\';
            result += c;
        } else if (byte >= ' ' && byte <= '~') {
            result += c;
        } else {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", byte);
            result += escape;
        }
    }
    return result + "\"";
}

std::string member(const char* name, const std::string& value) {
    return quoted(name) + ": " + quoted(value);
}

std::string member(const char* name, unsigned int value) {
    return quoted(name) + ": " + std::to_string(value);
}

std::string object(const Result& result) {
    const Finding& finding = result.finding;
    return "    {" + member("name", result.name) + ", " +
           member("status", status_name(finding.status)) + ",\n     " +
           member("found", finding.found) + ",\n     " + member("why", result.why) + ",\n     " +
           member("repair", finding.repair) + "}";
}

}  // namespace

std::string json_text(const Report& report) {
    std::string text = "{\n  " + member("version", report.version) + ",\n  " +
                       member("root", report.root) + ",\n  \"checks\": [\n";
    for (size_t i = 0; i < report.results.size(); ++i) {
        text += object(report.results[i]) + (i + 1 < report.results.size() ? ",\n" : "\n");
    }
    text += "  ],\n";
    for (const Status status : {Status::Green, Status::Yellow, Status::Red, Status::Skipped}) {
        text += "  " + member(status_name(status), count(report, status));
        text += status == Status::Skipped ? "\n" : ",\n";
    }
    return text + "}\n";
}
