#include <pthread.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Diagnostics/PZDbgOutput.h>
#include <Framework/Diagnostics/PZReport.h>

#include "support/ChildProcess.h"
#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"
#include "support/WaitUntil.h"

// Reports as records, handed to the application.

namespace {

using Output = PZDbgOutput;

std::mutex system_log_mutex;
int system_log_lines = 0;

}  // namespace

// The system log of these tests.
extern "C" void syslog(int /*pri*/, const char* /*fmt*/, ...) {
    const std::lock_guard<std::mutex> lock(system_log_mutex);
    ++system_log_lines;
}

namespace {

/// A record that outlives its sink.
struct Kept {
    bool isTagged;
    int tag;
    long long timeNs;
    std::string thread;
    int threadId;
    std::string file;
    std::string function;
    int line;
    int error;
    std::string message;
    std::string path;
    std::string objectThread;
    std::string worker;
};

/// Keeps what comes, and answers what it was told to.
struct Collector {
    static bool take(const Output::ST_RECORD& record, void* user) {
        auto* const self = static_cast<Collector*>(user);
        const std::lock_guard<std::mutex> lock(self->mutex);
        self->records.push_back({record.isTagged, record.tag, record.timeNs, record.thread,
                                 record.threadId, record.file, record.function, record.line,
                                 record.error, record.message, record.objectPath,
                                 record.objectThread, record.objectWorker});
        return self->isPrinted;
    }

    std::mutex mutex;
    std::vector<Kept> records;
    bool isPrinted = false;
};

void info(const char* message) {
    Output::DbgPrint("../x/unit", "f", 12, Output::en_TAG_INFO, "%s", message);
}

const std::string kHi = pztest::padded_line("\033[49m", "[info] f()@unit(12) {} : hi\n");

class PZDbgOutputSinkTest : public testing::Test {
protected:
    PZDbgOutputSinkTest() { system_log_lines = 0; }
    ~PZDbgOutputSinkTest() override {
        Output::SetSink(nullptr, nullptr);
        Output::SetStyle(Output::en_STYLE_DEFAULT);
    }

    pztest::StdoutCapture output;
    Collector collector;
};

}  // namespace

TEST_F(PZDbgOutputSinkTest, GetsATaggedReport) {
    Output::SetSink(&Collector::take, &collector);
    timespec before = {};
    timespec after = {};
    clock_gettime(CLOCK_REALTIME, &before);
    Output::DbgPrint("../x/unit", "f", 12, Output::en_TAG_WARNING, "%d kHz\n", 98500);
    clock_gettime(CLOCK_REALTIME, &after);
    ASSERT_EQ(1U, collector.records.size());
    const Kept& record = collector.records[0];
    EXPECT_TRUE(record.isTagged);
    EXPECT_EQ(Output::en_TAG_WARNING, record.tag);
    EXPECT_LE(before.tv_sec * 1000000000LL + before.tv_nsec, record.timeNs);
    EXPECT_LE(record.timeNs, after.tv_sec * 1000000000LL + after.tv_nsec);
    EXPECT_EQ(syscall(SYS_gettid), record.threadId);
    EXPECT_EQ("../x/unit", record.file);
    EXPECT_EQ("f", record.function);
    EXPECT_EQ(12, record.line);
    EXPECT_EQ(0, record.error);
    EXPECT_EQ("98500 kHz", record.message);
    EXPECT_EQ("", record.path + record.objectThread + record.worker);
}

TEST_F(PZDbgOutputSinkTest, GetsEveryFormOfAReport) {
    Output::SetSink(&Collector::take, &collector);
    Output::DbgPrint("plain\n");
    Output::DbgPrint("u", "f", 1, "untagged");
    Output::DbgPrint("u", "f", -1, "without a line\n");
    Output::DbgPrint("u", "f", 2, L"wide\n");
    Output::DbgPrint("u", "f", 3, Output::en_TAG_SYS, L"wide and tagged\n");
    errno = ENOENT;
    Output::DbgPrintStdErr("u", "f", 4);
    Output::DbgPrintStdErr("u", "f", 5, "x [%s]\n", "y");
    Output::DbgPrint(nullptr, nullptr, 6, Output::en_TAG_ERROR, "no place\n");
    std::vector<std::string> texts;
    for (const Kept& record : collector.records) {
        texts.push_back(record.file + "|" + record.function + "|" + std::to_string(record.line) +
                        "|" + (record.isTagged ? std::to_string(record.tag) : "-") + "|" +
                        std::to_string(record.error) + "|" + record.message);
    }
    EXPECT_EQ((std::vector<std::string>{
                  "||-1|-|0|plain",
                  "u|f|1|-|0|untagged",
                  "u|f|-1|-|0|without a line",
                  "u|f|2|-|0|wide",
                  "u|f|3|5|0|wide and tagged",
                  "u|f|4|1|2|std library error [2 : No such file or directory]",
                  "u|f|5|1|2|std library error [2 : No such file or directory] x [y]",
                  "||6|1|0|no place",
              }),
              texts);
}

TEST_F(PZDbgOutputSinkTest, DecidesWhetherALineIsPrintedAndLogged) {
    Output::SetSink(&Collector::take, &collector);
    PZ_REPORT_ERROR("x\n");
    EXPECT_EQ("", output.Take());
    EXPECT_EQ(0, system_log_lines);
    collector.isPrinted = true;
    info("hi\n");
    EXPECT_EQ(kHi, output.Take());
    PZ_REPORT_ERROR("x\n");
    EXPECT_EQ(1, system_log_lines);
    EXPECT_EQ(3U, collector.records.size());
}

TEST_F(PZDbgOutputSinkTest, GetsNoReportOnceItIsRemoved) {
    Output::SetSink(&Collector::take, &collector);
    Output::SetSink(nullptr, &collector);
    info("hi\n");
    EXPECT_EQ(kHi, output.Take());
    EXPECT_EQ(0U, collector.records.size());
}

TEST_F(PZDbgOutputSinkTest, NamesTheThreadThatReports) {
    Output::SetSink(&Collector::take, &collector);
    std::thread([] {
        pthread_setname_np(pthread_self(), "tuner");
        info("hi\n");
    }).join();
    ASSERT_EQ(1U, collector.records.size());
    EXPECT_EQ("tuner", collector.records[0].thread);
    EXPECT_NE(getpid(), collector.records[0].threadId);
}

TEST_F(PZDbgOutputSinkTest, GetsEachOfTheLinesThatAreOnlyCounted) {
    collector.isPrinted = true;
    Output::SetStyle(Output::en_STYLE_REPEATS);
    Output::SetSink(&Collector::take, &collector);
    for (int i = 0; i < 5; ++i) info("hi\n");
    EXPECT_EQ(kHi, output.Take());
    EXPECT_EQ(5U, collector.records.size());
}

TEST_F(PZDbgOutputSinkTest, PrintsWhatASinkReportsItself) {
    static int calls;
    calls = 0;
    Output::SetSink(
        [](const Output::ST_RECORD& record, void*) {
            ++calls;
            info(record.message);
            return false;
        },
        nullptr);
    info("hi\n");
    EXPECT_EQ(1, calls);
    EXPECT_EQ(pztest::padded_line("\033[49m", "[info] f()@unit(12) {} : hi"), output.Take());
}

TEST_F(PZDbgOutputSinkTest, KeepsExceptionsOfASinkInsideAndPrintsTheLine) {
    Output::SetSink([](const Output::ST_RECORD&, void*) -> bool { throw std::runtime_error("x"); },
                    nullptr);
    EXPECT_NO_THROW(info("hi\n"));
    EXPECT_EQ(kHi, output.Take());
    info("hi\n");  // it is called again
    EXPECT_EQ(kHi, output.Take());
}

TEST_F(PZDbgOutputSinkTest, MayBeReplacedFromItsOwnCall) {
    static Collector* next;
    next = &collector;
    Output::SetSink(
        [](const Output::ST_RECORD&, void*) {
            Output::SetSink(&Collector::take, next);
            return false;
        },
        nullptr);
    info("first\n");
    info("second\n");
    ASSERT_EQ(1U, collector.records.size());
    EXPECT_EQ("second", collector.records[0].message);
}

TEST_F(PZDbgOutputSinkTest, RunsNoMoreWhenItHasBeenReplaced) {
    struct Slow {
        std::atomic<bool> isInside{false};
        std::atomic<bool> mayLeave{false};
        std::atomic<bool> hasLeft{false};
    } slow;
    Output::SetSink(
        [](const Output::ST_RECORD&, void* user) {
            auto* const state = static_cast<Slow*>(user);
            if (state->isInside.exchange(true)) return false;
            pztest::wait_until([state] { return state->mayLeave.load(); });
            state->hasLeft = true;
            return false;
        },
        &slow);
    std::thread reporter([] { info("hi\n"); });
    ASSERT_TRUE(pztest::wait_until([&slow] { return slow.isInside.load(); }));
    std::atomic<bool> isReplaced{false};
    std::thread changer([&] {
        Output::SetSink(&Collector::take, &collector);
        EXPECT_TRUE(slow.hasLeft);
        isReplaced = true;
    });
    // The new one is at work before the old one has left.
    ASSERT_TRUE(pztest::wait_until([this] {
        info("new\n");
        const std::lock_guard<std::mutex> lock(collector.mutex);
        return !collector.records.empty();
    }));
    EXPECT_FALSE(isReplaced);
    slow.mayLeave = true;
    changer.join();
    reporter.join();
}

TEST_F(PZDbgOutputSinkTest, MayBeChangedWhileSeveralThreadsReport) {
    struct State {
        std::atomic<bool> isAlive{true};
        std::atomic<int> calls{0};
    };
    constexpr int kRounds = 300;
    std::atomic<bool> isOver{false};
    std::atomic<bool> wasDead{false};
    static std::atomic<bool>* dead;
    dead = &wasDead;
    std::vector<std::thread> reporters;
    for (int i = 0; i < 3; ++i) {
        reporters.emplace_back([&isOver] {
            while (!isOver) info("hi\n");
        });
    }
    for (int round = 0; round < kRounds; ++round) {
        State state;
        Output::SetSink(
            [](const Output::ST_RECORD&, void* user) {
                auto* const own = static_cast<State*>(user);
                if (!own->isAlive) *dead = true;
                ++own->calls;
                return false;
            },
            &state);
        pztest::wait_until([&state] { return state.calls > 0; });
        Output::SetSink(nullptr, nullptr);
        state.isAlive = false;
    }
    isOver = true;
    for (std::thread& reporter : reporters) reporter.join();
    EXPECT_FALSE(wasDead);
}

// The address sanitizer takes the unwinding of a cancelled thread for an overrun.
#ifndef __SANITIZE_ADDRESS__
TEST_F(PZDbgOutputSinkTest, LetsItsThreadBeCancelled) {
    static std::atomic<bool> isInside;
    isInside = false;
    Output::SetSink(
        [](const Output::ST_RECORD&, void*) {
            isInside = true;
            for (;;) pause();
            return false;
        },
        nullptr);
    pthread_t thread{};
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr,
                     [](void*) -> void* {
                         info("hi\n");
                         return nullptr;
                     },
                     nullptr));
    ASSERT_TRUE(pztest::wait_until([] { return isInside.load(); }));
    pthread_cancel(thread);
    void* result = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    Output::SetSink(nullptr, nullptr);  // nobody is waited for
}
#endif

TEST_F(PZDbgOutputSinkTest, MayBeSetInAForkedChildWhateverOtherThreadsDo) {
    Output::SetSink(&Collector::take, &collector);
    std::atomic<bool> isOver{false};
    std::thread reporter([&isOver] {
        while (!isOver) info("hi\n");
    });
    for (int i = 0; i < 50; ++i) {
        const pztest::ChildResult child = pztest::run_in_child([] {
            static bool isTold;
            Output::SetSink(
                [](const Output::ST_RECORD&, void*) {
                    isTold = true;
                    return false;
                },
                nullptr);
            info("hi\n");
            Output::SetSink(nullptr, nullptr);
            return isTold ? 5 : 6;
        });
        ASSERT_TRUE(child.exited);
        ASSERT_EQ(5, child.status);
    }
    isOver = true;
    reporter.join();
}

TEST_F(PZDbgOutputSinkTest, StaysInAForkedChild) {
    Output::SetSink(&Collector::take, &collector);
    const pztest::ChildResult child = pztest::run_in_child([this] {
        info("hi\n");
        return collector.records.size() == 1 && collector.records[0].message == "hi" ? 5 : 6;
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(5, child.status);
    EXPECT_EQ("", child.output);
    EXPECT_TRUE(collector.records.empty());
}

TEST_F(PZDbgOutputSinkTest, MayForkAndBeRemovedInTheChild) {
    static int child_status;
    child_status = -1;
    Output::SetSink(
        [](const Output::ST_RECORD&, void*) {
            child_status = pztest::run_in_child([] {
                               Output::SetSink(nullptr, nullptr);
                               info("hi\n");
                               return 3;
                           }).status;
            return false;
        },
        nullptr);
    info("hi\n");
    EXPECT_EQ(3, child_status);
}

TEST_F(PZDbgOutputSinkTest, KeepsTheCallersErrno) {
    Output::SetSink(
        [](const Output::ST_RECORD&, void*) {
            errno = EDOM;
            return false;
        },
        nullptr);
    errno = ERANGE;
    info("hi\n");
    EXPECT_EQ(ERANGE, errno);
    Output::SetSink(nullptr, nullptr);
    EXPECT_EQ(ERANGE, errno);
}

TEST_F(PZDbgOutputSinkTest, NeedsNoMemoryOfItsOwn) {
    static std::string kept;
    kept.assign(64, ' ');
    const auto sink = [](const Output::ST_RECORD& record, void*) {
        kept = record.message;
        return true;
    };
    Output::SetStyle(0xFF & ~Output::en_STYLE_STDERR);
    const pztest::MemoryShortage shortage;
    Output::SetSink(sink, nullptr);
    info("hi\n");
    Output::SetSink(nullptr, nullptr);
    EXPECT_EQ(0, shortage.Refused());
    EXPECT_EQ("hi", kept);
}

// ---- objects ----

TEST_F(PZDbgOutputSinkTest, NamesTheObjectsOfTheInnermostScopes) {
    collector.isPrinted = true;
    Output::SetSink(&Collector::take, &collector);
    {
        const PZReportObject outer(PZReportObject::en_PATH, "/data");
        const PZReportObject worker(PZReportObject::en_WORKER, "tuner");
        {
            const PZReportObject inner(PZReportObject::en_PATH, "/data/a");
            const PZReportObject thread(PZReportObject::en_THREAD, "loop");
            info("hi\n");
        }
        info("hi\n");
        const PZReportObject none(PZReportObject::en_PATH, nullptr);
        info("hi\n");
    }
    info("hi\n");
    std::vector<std::string> objects;
    for (const Kept& record : collector.records) {
        objects.push_back(record.path + "|" + record.objectThread + "|" + record.worker);
    }
    EXPECT_EQ((std::vector<std::string>{"/data/a|loop|tuner", "/data||tuner", "||tuner", "||"}),
              objects);
    EXPECT_EQ(kHi + kHi + kHi + kHi, output.Take());
}

TEST_F(PZDbgOutputSinkTest, NamesObjectsOnTheThreadOfTheScopeOnly) {
    const PZReportObject path(PZReportObject::en_PATH, "/data");
    std::string elsewhere = "unset";
    std::thread([&elsewhere] {
        elsewhere = PZReportObject::Current(PZReportObject::en_PATH);
    }).join();
    EXPECT_EQ("", elsewhere);
    EXPECT_STREQ("/data", PZReportObject::Current(PZReportObject::en_PATH));
}
