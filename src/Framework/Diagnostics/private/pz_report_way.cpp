#include "pz_report_way.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/private/pz_standard_descriptors.h>
#include <Framework/private/pz_time.h>
#include <Framework/private/pz_uncancelled.h>

#include "PZErrnoKeeper.h"
#include "pz_report_repeats.h"
#include "pz_report_sink.h"

std::atomic<unsigned int> pz_report_way{0};
PZMutex pz_report_mutex;

namespace {

constexpr unsigned int kColourWords = PZDbgOutput::en_STYLE_PLAIN | PZDbgOutput::en_STYLE_AUTO;
constexpr unsigned int kStyles = 2 * PZDbgOutput::en_STYLE_REPEATS - 1;

void lock_for_fork() PZ_ACQUIRE(pz_report_mutex) {
    pz_report_mutex.Lock();
}
void unlock_after_fork() PZ_RELEASE(pz_report_mutex) {
    pz_report_mutex.Unlock();
}
void begin_in_child() PZ_RELEASE(pz_report_mutex) {
    pz_keep_report_sink_in_child();
    pz_forget_repetitions_in_child();
    unlock_after_fork();
}
[[maybe_unused]] const bool isToldOfForks =
    pthread_atfork(lock_for_fork, unlock_after_fork, begin_in_child) == 0;

struct ST_WORD {
    char word[12];
    unsigned int style;
};

// clang-format off
constexpr ST_WORD kWords[] = {
    { "plain",     PZDbgOutput::en_STYLE_PLAIN     },
    { "colour",    PZDbgOutput::en_STYLE_DEFAULT   },
    { "auto",      PZDbgOutput::en_STYLE_AUTO      },
    { "time",      PZDbgOutput::en_STYLE_TIME      },
    { "thread",    PZDbgOutput::en_STYLE_THREAD    },
    { "nopad",     PZDbgOutput::en_STYLE_NOPAD     },
    { "stderr",    PZDbgOutput::en_STYLE_STDERR    },
    { "demangled", PZDbgOutput::en_STYLE_DEMANGLED },
    { "repeats",   PZDbgOutput::en_STYLE_REPEATS   },
};
// clang-format on

const ST_WORD* find_word(std::string_view word) {
    for (const ST_WORD& known : kWords) {
        if (word == known.word) return &known;
    }
    return nullptr;
}

/// The style that the list says; of several words on colours the last one counts. `unknown` gets
/// the words without a meaning.
unsigned int read_words(std::string_view list, PZReportLine& unknown) {
    unsigned int style = PZDbgOutput::en_STYLE_DEFAULT;
    while (!list.empty()) {
        const size_t comma = std::min(list.find(','), list.size());
        const std::string_view word = list.substr(0, comma);
        list.remove_prefix(std::min(comma + 1, list.size()));
        if (word.empty()) continue;
        const ST_WORD* const known = find_word(word);
        if (known == nullptr) {
            unknown.Add(unknown.Length() != 0 ? "," : "").Add(word);
        } else if (known->style == PZDbgOutput::en_STYLE_DEFAULT ||
                   (known->style & kColourWords) != 0) {
            style = (style & ~kColourWords) | known->style;
        } else {
            style |= known->style;
        }
    }
    return style;
}

/// NO_COLOR counts where it is asked for.
unsigned int way_of(unsigned int style) {
    unsigned int way = kReportsSettled | (style & kStyles);
    if ((style & PZDbgOutput::en_STYLE_AUTO) != 0) {
        const char* const noColour = secure_getenv("NO_COLOR");
        if (noColour != nullptr && *noColour != '\0') way |= kReportsUncoloured;
    }
    return way;
}

void read_environment() {
    PZReportLine unknown;
    const char* const list = secure_getenv("PZ_REPORT");
    const unsigned int way = way_of(list != nullptr ? read_words(list, unknown) : 0);
    unsigned int unsettled = 0;
    const bool isFirst = pz_report_way.compare_exchange_strong(unsettled, way);
    if (isFirst && unknown.Length() != 0) {
        PZ_REPORT_ERROR_OF("PZ_REPORT",
                           "unknown words [%s] : plain, colour, auto, time, thread, "
                           "nopad, stderr, demangled, repeats\n",
                           unknown.Text());
    }
}

bool has_colours(unsigned int way, FILE* stream) {
    if ((way & PZDbgOutput::en_STYLE_PLAIN) != 0) return false;
    if ((way & PZDbgOutput::en_STYLE_AUTO) == 0) return true;
    return (way & kReportsUncoloured) == 0 && isatty(fileno(stream)) != 0;
}

void add_time(PZReportLine& head) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    char text[40];
    const size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text + length, sizeof text - length, ".%03ld ",
                  static_cast<long>(now.tv_nsec / kNsPerMs));
    head.Add(text);
}

void add_thread(PZReportLine& head) {
    char name[16] = {};
    prctl(PR_GET_NAME, name);
    head.Add(name).Add("(").Add(static_cast<int>(syscall(SYS_gettid))).Add(") ");
}

/// One formatted write: the stream's own lock keeps the lines of different threads apart.
void print(unsigned int way, const ST_REPORT& report) {
    FILE* const stream = (way & PZDbgOutput::en_STYLE_STDERR) != 0 ? stderr : stdout;
    const bool isColoured = has_colours(way, stream);
    const char* const colour = isColoured ? report.colour : "";
    const char* const reset = isColoured ? kReportReset : "";
    PZReportLine head;
    int padding = 0;
    if (!report.isPlain) {
        if ((way & PZDbgOutput::en_STYLE_TIME) != 0) add_time(head);
        if ((way & PZDbgOutput::en_STYLE_THREAD) != 0) add_thread(head);
        const size_t length = head.Length() + std::strlen(report.text);
        const bool isPadded = (way & PZDbgOutput::en_STYLE_NOPAD) == 0 && length < kReportWidth;
        padding = isPadded ? static_cast<int>(kReportWidth - length) : 0;
    }
    std::fprintf(stream, "%s%*s%s%s%s", colour, padding, "", head.Text(), report.text, reset);
    std::fflush(stream);
}

void print_due(unsigned int way, const ST_REPETITIONS& due) {
    if (due.isDue) pz_print_report(way, due.report);
}

void tell_repetitions(unsigned int way, bool forGood) {
    ST_REPETITIONS due;
    pz_take_repetitions(due, forGood);
    print_due(way, due);
}

/// Nothing comes after it that could tell a count.
__attribute__((destructor)) void tell_the_last_repetitions() {
    tell_repetitions(pz_report_way.load(std::memory_order_relaxed), /*forGood=*/true);
}

}  // namespace

unsigned int pz_settle_report_way() {
    if (pz_report_way.load(std::memory_order_relaxed) == 0) read_environment();
    return pz_report_way.load(std::memory_order_relaxed);
}

void pz_log_report(const ST_REPORT& report) {
    if (!report.isLogged) return;
    // Where no daemon listens it writes to the console through a stream on the stack, which a
    // thread that ends meanwhile would leave among the streams of the process.
    const PZUncancelled uncancelled;
    const PZStandardDescriptorsTaken taken;  // it may connect to the log, and stay connected
    syslog(report.priority, "%s", report.text);
}

void pz_print_report(unsigned int way, const ST_REPORT& report) {
    print(way, report);
    pz_log_report(report);
}

void pz_put_special_report(const ST_REPORT& report) {
    const unsigned int way = pz_settle_report_way();
    if ((way & kReportsToSink) != 0 && !pz_tell_report_sink(report)) return;
    if ((way & PZDbgOutput::en_STYLE_REPEATS) != 0) {
        ST_REPETITIONS due;
        const bool isCounted = pz_count_report(report, due);
        print_due(way, due);
        if (isCounted) return;
    }
    pz_print_report(way, report);
}

void PZDbgOutput::SetStyle(unsigned int style) {
    const PZErrnoKeeper keeper;
    const unsigned int way = way_of(style);
    unsigned int before = pz_report_way.load(std::memory_order_relaxed);
    while (!pz_report_way.compare_exchange_weak(before, way | (before & kReportsToSink))) {
    }
    tell_repetitions(before, /*forGood=*/false);
}

unsigned int PZDbgOutput::GetStyle() {
    const PZErrnoKeeper keeper;
    return pz_settle_report_way() & kStyles;
}

void PZDbgOutput::SetSink(Sink sink, void* user) {
    const PZErrnoKeeper keeper;
    pz_settle_report_way();
    pz_set_report_sink(sink, user);
}
