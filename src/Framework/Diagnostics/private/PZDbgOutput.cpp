#include "Framework/Diagnostics/PZDbgOutput.h"

#include <Framework/Foundation/pz_identity.h>
#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "PZErrnoKeeper.h"

namespace {

constexpr size_t kMessageSize = 511;  // 510 characters are kept
constexpr size_t kLineSize = 2048;    // a whole message, and room for any sane prefix before it

constexpr char kRed[] = "\033[31m";
constexpr char kDefaultColour[] = "\033[49m";
constexpr char kReset[] = "\033[0m";

struct ST_TAG {
    PZDbgOutput::EN_TAG tag;
    const char* word;
    const char* colour;
    int priority;  // of the system log
};

// clang-format off
constexpr ST_TAG kTags[] = {
    { PZDbgOutput::en_TAG_INFO,    "info",    kDefaultColour, LOG_INFO    },
    { PZDbgOutput::en_TAG_ERROR,   "error",   kRed,           LOG_ERR     },
    { PZDbgOutput::en_TAG_DEBUG,   "debug",   kDefaultColour, LOG_DEBUG   },
    { PZDbgOutput::en_TAG_VERBOSE, "verbose", kDefaultColour, LOG_INFO    },
    { PZDbgOutput::en_TAG_WARNING, "warning", kDefaultColour, LOG_WARNING },
    { PZDbgOutput::en_TAG_SYS,     "sys",     kDefaultColour, LOG_NOTICE  },
};
// clang-format on
constexpr size_t kTagCount = sizeof kTags / sizeof kTags[0];

constexpr const char* kIllegalWord = "illegal";
constexpr int kIllegalPriority = LOG_ERR;

constexpr bool is_in_order(const ST_TAG (&tags)[kTagCount]) {
    for (size_t i = 0; i < kTagCount; ++i) {
        if (static_cast<size_t>(tags[i].tag) != i) return false;
    }
    return true;
}
static_assert(is_in_order(kTags), "kTags follows EN_TAG");

ST_TAG describe(PZDbgOutput::EN_TAG tag) {
    const auto index = static_cast<size_t>(tag);
    if (index < kTagCount) return kTags[index];
    return {tag, kIllegalWord, kDefaultColour, kIllegalPriority};
}

// A set of priorities, no threshold: warnings stay out of the system log on purpose, although
// the less urgent notices go to it.
constexpr unsigned int kLoggedPriorities =
    1U << LOG_EMERG | 1U << LOG_CRIT | 1U << LOG_ERR | 1U << LOG_NOTICE;

constexpr bool is_logged(int priority) {
    return ((kLoggedPriorities >> static_cast<unsigned int>(priority)) & 1U) != 0;
}

/// What follows the last '/'; the whole path when there is none.
const char* base_name(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

__attribute__((format(printf, 2, 0))) void format_message(char (&message)[kMessageSize],
                                                          const char* format, va_list args) {
    message[0] = '\0';
    std::vsnprintf(message, sizeof message, format, args);
}

/// One formatted write: stdout's own lock keeps the lines of different threads apart.
void print_line(const char* colour, const char* line) {
    std::printf("%s%80s%s", colour, line, kReset);
    std::fflush(stdout);
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

    char text[kLineSize];
    if (line == -1) {
        std::snprintf(text, sizeof text, "%s ()@%s{%s} : %s", func, base_name(file), pz_GetName(),
                      message);
    } else {
        std::snprintf(text, sizeof text, "%s ()@%s(%d) {%s} : %s", func, base_name(file), line,
                      pz_GetName(), message);
    }
    print_line(kDefaultColour, text);
}

void PZDbgOutput::DbgPrint(const char* file, const char* func, int line, EN_TAG tag,
                           const char* format, ...) {
    const PZErrnoKeeper keeper;
    char message[kMessageSize];
    va_list args;
    va_start(args, format);
    format_message(message, format, args);
    va_end(args);

    const ST_TAG row = describe(tag);
    char text[kLineSize];
    std::snprintf(text, sizeof text, "[%s] %s()@%s(%d) {%s} : %s", row.word, func, base_name(file),
                  line, pz_GetName(), message);
    print_line(row.colour, text);
    if (is_logged(row.priority)) syslog(row.priority, "%s", text);
}

void PZDbgOutput::DbgPrintStdErr(const char* file, const char* func, int line) {
    const int error = errno;
    DbgPrint(file, func, line, en_TAG_ERROR, "std library error [%d : %s]\n", error,
             std::strerror(error));
    errno = error;
}

void PZDbgOutput::DbgPrintStdErr(const char* file, const char* func, int line, const char* format,
                                 ...) {
    const PZErrnoKeeper keeper;
    char message[kMessageSize];
    va_list args;
    va_start(args, format);
    format_message(message, format, args);
    va_end(args);

    const int error = errno;
    char text[kLineSize];
    std::snprintf(text, sizeof text, "[%s] %s()@%s(%d) {%s} : std library error [%d : %s] %s",
                  kTags[en_TAG_ERROR].word, func, base_name(file), line, pz_GetName(), error,
                  std::strerror(error), message);
    print_line(kRed, text);
    syslog(LOG_ERR, "%s", text);
}

const char* PZDbgOutput::getColorTagString(EN_TAG tag) {
    return describe(tag).colour;
}
