#include "Framework/Diagnostics/PZDbgOutput.h"

#include <Framework/Foundation/pz_identity.h>
#include <Framework/Wrapper/pz_cp_conv.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <limits>
#include <string_view>

#include "PZErrnoKeeper.h"

namespace {

constexpr size_t kMessageSize = 512;
constexpr size_t kMessageLimit = 511;  // terminator included: 510 characters are kept
constexpr size_t kLineSize = 2048;     // a whole message, and room for any sane place before it

constexpr char kRed[] = "\033[31m";
constexpr char kDefaultColour[] = "\033[49m";
constexpr char kReset[] = "\033[0m";

struct ST_TAG {
    PZDbgOutput::EN_TAG tag;
    int priority;  // of the system log
    const char* word;
    const char* colour;
};

// clang-format off
constexpr ST_TAG kTags[] = {
    { PZDbgOutput::en_TAG_INFO,    LOG_INFO,    "info",    kDefaultColour },
    { PZDbgOutput::en_TAG_ERROR,   LOG_ERR,     "error",   kRed           },
    { PZDbgOutput::en_TAG_DEBUG,   LOG_DEBUG,   "debug",   kDefaultColour },
    { PZDbgOutput::en_TAG_VERBOSE, LOG_INFO,    "verbose", kDefaultColour },
    { PZDbgOutput::en_TAG_WARNING, LOG_WARNING, "warning", kDefaultColour },
    { PZDbgOutput::en_TAG_SYS,     LOG_NOTICE,  "sys",     kDefaultColour },
};
// clang-format on

constexpr bool follow_the_enumeration(const ST_TAG (&tags)[std::size(kTags)]) {
    for (size_t i = 0; i < std::size(tags); ++i) {
        if (static_cast<size_t>(tags[i].tag) != i) return false;
    }
    return true;
}
static_assert(follow_the_enumeration(kTags), "kTags follows EN_TAG");

ST_TAG describe(PZDbgOutput::EN_TAG tag) {
    const auto index = static_cast<size_t>(tag);
    if (index < std::size(kTags)) return kTags[index];
    return {tag, LOG_ERR, "illegal", kDefaultColour};
}

// A set of priorities, not a threshold: warnings stay out of the system log on purpose, although
// the less urgent notices go to it.
constexpr int kLoggedPriorities =
    LOG_MASK(LOG_EMERG) | LOG_MASK(LOG_CRIT) | LOG_MASK(LOG_ERR) | LOG_MASK(LOG_NOTICE);

constexpr bool is_logged(int priority) {
    return (LOG_MASK(priority) & kLoggedPriorities) != 0;
}

/// A report never stops the process, even one that does not know its place.
std::string_view text_of(const char* text) {
    return text != nullptr ? text : "(null)";
}

/// What follows the last '/'; the whole path when there is none.
std::string_view base_name(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

/// A line under construction. Appending costs a fraction of a formatted print of the same parts,
/// and every report of the framework passes here. What does not fit is cut.
class Line {
public:
    Line() { text_[0] = '\0'; }

    Line& Add(std::string_view text) {
        const size_t length = std::min(text.size(), kLineSize - 1 - length_);
        std::memcpy(text_ + length_, text.data(), length);
        length_ += length;
        text_[length_] = '\0';
        return *this;
    }

    Line& Add(int number) {
        char digits[std::numeric_limits<int>::digits10 + 2];  // one more digit, and the sign
        const char* end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
        return Add(std::string_view(digits, static_cast<size_t>(end - digits)));
    }

    const char* Text() const { return text_; }

private:
    size_t length_ = 0;
    char text_[kLineSize];
};

__attribute__((format(printf, 2, 0))) void format_message(char (&message)[kMessageSize],
                                                          const char* format, va_list args) {
    message[0] = '\0';
    std::vsnprintf(message, kMessageLimit, format, args);
}

void format_message(char (&message)[kMessageSize], const wchar_t* format, va_list args) {
    // Zeroed: a text that is too long is cut without a terminator.
    wchar_t text[kMessageSize] = {};
    std::vswprintf(text, kMessageLimit, format, args);

    std::memset(message, 0, sizeof message);  // the converter writes no terminator
    if (text[0] == L'\0') return;             // and takes an empty text for a failure
    // What does not fit is refused and reported there, and leaves an empty message.
    pz_wctomb(message, sizeof message, text, -1, XCP_UTF8);
}

/// One formatted write: stdout's own lock keeps the lines of different threads apart.
void print_line(const char* colour, const Line& line) {
    std::printf("%s%80s%s", colour, line.Text(), kReset);
    std::fflush(stdout);
}

/// "func()@file(line) {process} : ", where `call` is "()@" or " ()@".
void add_place(Line& text, const char* file, const char* func, const char* call, int line) {
    text.Add(text_of(func)).Add(call).Add(base_name(text_of(file)));
    text.Add("(").Add(line).Add(") {").Add(pz_GetName()).Add("} : ");
}

void put_without_line_number(const char* file, const char* func, const char* message) {
    Line text;
    text.Add(text_of(func)).Add(" ()@").Add(base_name(text_of(file)));
    text.Add("{").Add(pz_GetName()).Add("} : ").Add(message);
    print_line(kDefaultColour, text);
}

void put_untagged(const char* file, const char* func, int line, const char* message) {
    Line text;
    add_place(text, file, func, " ()@", line);
    text.Add(message);
    print_line(kDefaultColour, text);
}

void put_tagged(const char* file, const char* func, const char* call, int line,
                PZDbgOutput::EN_TAG tag, const char* message) {
    const ST_TAG row = describe(tag);
    Line text;
    text.Add("[").Add(row.word).Add("] ");
    add_place(text, file, func, call, line);
    text.Add(message);
    print_line(row.colour, text);
    if (is_logged(row.priority)) syslog(row.priority, "%s", text.Text());
}

}  // namespace

void PZDbgOutput::DbgPrint(const char* format, ...) {
    const PZErrnoKeeper keeper;
    char message[kMessageSize];
    va_list args;
    va_start(args, format);
    format_message(message, format, args);
    va_end(args);

    std::printf("%s%s%s", kDefaultColour, message, kReset);
    std::fflush(stdout);
}

void PZDbgOutput::DbgPrint(const char* file, const char* func, int line, const char* format, ...) {
    const PZErrnoKeeper keeper;
    char message[kMessageSize];
    va_list args;
    va_start(args, format);
    format_message(message, format, args);
    va_end(args);

    if (line == -1) {
        put_without_line_number(file, func, message);
    } else {
        put_untagged(file, func, line, message);
    }
}

void PZDbgOutput::DbgPrint(const char* file, const char* func, int line, const wchar_t* format,
                           ...) {
    const PZErrnoKeeper keeper;
    char message[kMessageSize];
    va_list args;
    va_start(args, format);
    format_message(message, format, args);
    va_end(args);

    put_untagged(file, func, line, message);
}

void PZDbgOutput::DbgPrint(const char* file, const char* func, int line, EN_TAG tag,
                           const char* format, ...) {
    const PZErrnoKeeper keeper;
    char message[kMessageSize];
    va_list args;
    va_start(args, format);
    format_message(message, format, args);
    va_end(args);

    put_tagged(file, func, "()@", line, tag, message);
}

void PZDbgOutput::DbgPrint(const char* file, const char* func, int line, EN_TAG tag,
                           const wchar_t* format, ...) {
    const PZErrnoKeeper keeper;
    char message[kMessageSize];
    va_list args;
    va_start(args, format);
    format_message(message, format, args);
    va_end(args);

    put_tagged(file, func, " ()@", line, tag, message);
}

void PZDbgOutput::DbgPrintStdErr(const char* file, const char* func, int line) {
    const PZErrnoKeeper keeper;
    const int error = errno;
    DbgPrint(file, func, line, en_TAG_ERROR, "std library error [%d : %s]\n", error,
             std::strerror(error));
}

void PZDbgOutput::DbgPrintStdErr(const char* file, const char* func, int line, const char* format,
                                 ...) {
    const PZErrnoKeeper keeper;
    char message[kMessageSize];
    va_list args;
    va_start(args, format);
    format_message(message, format, args);
    va_end(args);

    const int error = errno;  // formatting may have failed, too: its error is the last one
    Line text;
    text.Add("[error] ");
    add_place(text, file, func, "()@", line);
    text.Add("std library error [").Add(error).Add(" : ").Add(std::strerror(error)).Add("] ");
    text.Add(message);
    print_line(kRed, text);
    syslog(LOG_ERR, "%s", text.Text());
}

const char* PZDbgOutput::getColorTagString(EN_TAG tag) {
    return describe(tag).colour;
}
