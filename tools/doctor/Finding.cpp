#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "Check.h"
#include "common/Words.h"

namespace {

/// True for a character that leaves a terminal as it is.
bool is_printable(char c) {
    return c >= ' ' && c <= '~';
}

}  // namespace

const char* status_name(Status status) {
    static constexpr Words<Status, Status::Skipped> kNames = {"green", "yellow", "red", "skipped"};
    return kNames[status];
}

Finding green(std::string found) {
    return {Status::Green, std::move(found), ""};
}

Finding yellow(std::string found, std::string repair) {
    return {Status::Yellow, std::move(found), std::move(repair)};
}

Finding red(std::string found, std::string repair) {
    return {Status::Red, std::move(found), std::move(repair)};
}

Finding skipped(std::string found) {
    return {Status::Skipped, std::move(found), ""};
}

Finding by_this_user(Finding finding) {
    finding.byThisUser = true;
    return finding;
}

Finding by_this_user_if(bool can, Finding finding) {
    finding.byThisUser = can;
    return finding;
}

bool is_own(const std::optional<struct stat>& info) {
    return info && info->st_uid == geteuid();
}

Finding unreadable(const Machine& machine, const std::string& path, std::string repair) {
    if (!machine.HasProc()) return skipped("needs /proc");
    return red(path + " cannot be read", std::move(repair));
}

std::string printable(const std::string& text) {
    std::string result = text;
    std::replace_if(
        result.begin(), result.end(), [](char c) { return !is_printable(c); }, '?');
    return result;
}

std::string shell_word(const std::string& text) {
    static constexpr char kPlain[] =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-+=./,:@%";
    if (!text.empty() && text.find_first_not_of(kPlain) == std::string::npos) return text;
    std::string word = "$'";
    for (const char c : text) {
        if (!is_printable(c)) {
            char octal[8];
            std::snprintf(octal, sizeof octal, "\\%03o", static_cast<unsigned char>(c));
            word += octal;
        } else {
            if (c == '\'' || c == '\\') word += '\\';
            word += c;
        }
    }
    return word + "'";
}

std::string move_away(const std::string& path) {
    return "mv " + path + " " + path + ".old && ";
}

std::string first_of(const std::vector<std::string>& names) {
    constexpr size_t kShown = 3;
    std::string text;
    for (size_t i = 0; i < std::min(names.size(), kShown); ++i) {
        text += (i > 0 ? ", " : "") + printable(names[i]);
    }
    if (names.size() > kShown) text += " and " + std::to_string(names.size() - kShown) + " more";
    return text;
}
