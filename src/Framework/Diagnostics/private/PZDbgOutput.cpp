#include "Framework/Diagnostics/PZDbgOutput.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <limits>
#include <string_view>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/pz_identity.h>
#include <Framework/Wrapper/pz_cp_conv.h>

#include "PZErrnoKeeper.h"
#include "pz_report_way.h"

namespace {

constexpr size_t kMessageSize = 512;
constexpr size_t kMessageLimit = 511;  // terminator included: 510 characters are kept

constexpr char kRed[] = "\033[31m";
constexpr char kDefaultColour[] = "\033[49m";

struct ST_TAG {
    PZDbgOutput::EN_TAG tag;
    int priority;  // of the system log
    bool isRed;
    char word[8];

    const char* Colour() const { return isRed ? kRed : kDefaultColour; }
};

// clang-format off
constexpr ST_TAG kTags[] = {
    { PZDbgOutput::en_TAG_INFO,        LOG_INFO,    false, "info"    },
    { PZDbgOutput::en_TAG_ERROR,       LOG_ERR,     true,  "error"   },
    { PZDbgOutput::en_TAG_DEBUG,       LOG_DEBUG,   false, "debug"   },
    { PZDbgOutput::en_TAG_VERBOSE,     LOG_INFO,    false, "verbose" },
    { PZDbgOutput::en_TAG_WARNING,     LOG_WARNING, false, "warning" },
    { PZDbgOutput::en_TAG_SYS,         LOG_NOTICE,  false, "sys"     },
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
    return {tag, LOG_ERR, false, "illegal"};
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

struct ST_PLACE {
    const char* file;
    const char* func;
    int line;
};

/// One formatted write: stdout's own lock keeps the lines of different threads apart.
void put(const ST_REPORT& report) {
    if (pz_are_reports_special()) {
        pz_put_special_report(report);
        return;
    }
    std::printf("%s%*s%s", report.colour, kReportWidth, report.text, kReportReset);
    std::fflush(stdout);
    pz_log_report(report);
}

void put_plain(const char* message) {
    if (pz_are_reports_special()) {
        pz_put_special_report({message, 0, kDefaultColour, LOG_INFO, false, /*isPlain=*/true, false,
                               PZDbgOutput::en_TAG_INFO, "", "", -1, 0});
        return;
    }
    std::printf("%s%s%s", kDefaultColour, message, kReportReset);
    std::fflush(stdout);
}

/// How a form of DbgPrint writes its line, see `put_located`.
struct ST_FORM {
    const char* call;  // "()@" or " ()@"
    bool isTagged;
    bool hasLineNumber;
};

constexpr ST_FORM kTagged = {"()@", true, true};
constexpr ST_FORM kTaggedWide = {" ()@", true, true};
constexpr ST_FORM kUntagged = {" ()@", false, true};
constexpr ST_FORM kWithoutLineNumber = {" ()@", false, false};

/// "[tag] func()@file(line) {process} : message". All forms pass here: one function, because each
/// appending is compiled in for speed.
void put_located(const ST_FORM& form, const ST_PLACE& place, PZDbgOutput::EN_TAG tag,
                 const char* message, int error = 0) {
    const ST_TAG row = describe(tag);
    PZReportLine text;
    if (form.isTagged) text.Add("[").Add(row.word).Add("] ");
    text.Add(text_of(place.func)).Add(form.call).Add(base_name(text_of(place.file)));
    if (form.hasLineNumber) text.Add("(").Add(place.line).Add(") ");
    text.Add("{").Add(pz_GetName()).Add("} : ");
    const size_t messageAt = text.Length();
    text.Add(message);
    put({text.Text(), messageAt, row.Colour(), row.priority,
         form.isTagged && is_logged(row.priority), false, form.isTagged, row.tag, place.file,
         place.func, place.line, error});
}

__attribute__((format(printf, 4, 0))) void print_located(const ST_FORM& form, const ST_PLACE& place,
                                                         PZDbgOutput::EN_TAG tag,
                                                         const char* format, va_list args) {
    const PZErrnoKeeper keeper;
    char message[kMessageSize];
    format_message(message, format, args);
    put_located(form, place, tag, message);
}

void print_located(const ST_FORM& form, const ST_PLACE& place, PZDbgOutput::EN_TAG tag,
                   const wchar_t* format, va_list args) {
    const PZErrnoKeeper keeper;
    char message[kMessageSize];
    format_message(message, format, args);
    put_located(form, place, tag, message);
}

void put_error(const ST_PLACE& place, int error, const char* end, const char* message) {
    char text[2 * kMessageSize];
    std::snprintf(text, sizeof text, "std library error [%d : %s%s%s", error, std::strerror(error),
                  end, message);
    put_located(kTagged, place, PZDbgOutput::en_TAG_ERROR, text, error);
}

}  // namespace

PZReportLine& PZReportLine::Add(std::string_view text) {
    const size_t length = std::min(text.size(), kSize - 1 - length_);
    std::memcpy(text_ + length_, text.data(), length);
    length_ += length;
    text_[length_] = '\0';
    return *this;
}

PZReportLine& PZReportLine::Add(int number) {
    char digits[std::numeric_limits<int>::digits10 + 2];  // one more digit, and the sign
    char* const end = std::end(digits);
    char* begin = end;
    unsigned int rest =
        number < 0 ? 0U - static_cast<unsigned int>(number) : static_cast<unsigned int>(number);
    do {
        *--begin = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (rest != 0);
    if (number < 0) *--begin = '-';
    return Add(std::string_view(begin, static_cast<size_t>(end - begin)));
}

// Does something with the arguments `args` after `format`. A macro, because only the function that
// has been given them can begin and end them.
#define PZ_WITH_ARGUMENTS(...) \
    va_list args;              \
    va_start(args, format);    \
    __VA_ARGS__;               \
    va_end(args)

void PZDbgOutput::DbgPrint(const char* format, ...) {
    const PZErrnoKeeper keeper;
    char message[kMessageSize];
    PZ_WITH_ARGUMENTS(format_message(message, format, args));
    put_plain(message);
}

void PZDbgOutput::DbgPrint(const char* file, const char* func, int line, const char* format, ...) {
    PZ_WITH_ARGUMENTS(print_located(line == -1 ? kWithoutLineNumber : kUntagged, {file, func, line},
                                    en_TAG_INFO, format, args));
}

void PZDbgOutput::DbgPrint(const char* file, const char* func, int line, const wchar_t* format,
                           ...) {
    PZ_WITH_ARGUMENTS(print_located(kUntagged, {file, func, line}, en_TAG_INFO, format, args));
}

void PZDbgOutput::DbgPrint(const char* file, const char* func, int line, EN_TAG tag,
                           const char* format, ...) {
    PZ_WITH_ARGUMENTS(print_located(kTagged, {file, func, line}, tag, format, args));
}

void PZDbgOutput::DbgPrint(const char* file, const char* func, int line, EN_TAG tag,
                           const wchar_t* format, ...) {
    PZ_WITH_ARGUMENTS(print_located(kTaggedWide, {file, func, line}, tag, format, args));
}

void PZDbgOutput::DbgPrintStdErr(const char* file, const char* func, int line) {
    const PZErrnoKeeper keeper;
    put_error({file, func, line}, errno, "]\n", "");
}

void PZDbgOutput::DbgPrintStdErr(const char* file, const char* func, int line, const char* format,
                                 ...) {
    const PZErrnoKeeper keeper;
    char message[kMessageSize];
    PZ_WITH_ARGUMENTS(format_message(message, format, args));
    // Formatting may have failed, too: its error is the last one.
    put_error({file, func, line}, errno, "] ", message);
}

// Here because it formats.
void pz_report_error_on(PZReportObject::EN_KIND kind, const char* name, const char* file,
                        const char* func, int line, const char* format, ...) {
    const PZReportObject object(kind, name);
    PZ_WITH_ARGUMENTS(
        print_located(kTagged, {file, func, line}, PZDbgOutput::en_TAG_ERROR, format, args));
}

#undef PZ_WITH_ARGUMENTS

const char* PZDbgOutput::getColorTagString(EN_TAG tag) {
    return describe(tag).Colour();
}
