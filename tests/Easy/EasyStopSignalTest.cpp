#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Easy/Framework.h>
#include <Framework/Easy/StopSignal.h>
#include <Framework/Easy/Worker.h>

#include "support/ChildProcess.h"
#include "support/Interposed.h"
#include "support/StdoutCapture.h"

PZ_INTERPOSE(getpid, 0);
PZ_INTERPOSE(write, 3);

namespace {

/// Looks the real function up, which a signal's handler may not do.
[[maybe_unused]] const ssize_t first_write = ::write(-1, nullptr, 0);
[[maybe_unused]] const pid_t first_getpid = ::getpid();

thread_local bool is_held_up = false;
std::atomic<bool> has_begun{false};
std::atomic<bool> may_go_on{false};

/// Holds a signal's handler up at its beginning.
pid_t getpid_later() {
    if (is_held_up) {
        has_begun = true;
        while (!may_go_on) std::this_thread::yield();
    }
    return getpid_call.Real();
}

}  // namespace

using namespace std::chrono_literals;
using pz::wait_any;
using pztest::ChildResult;
using pztest::run_in_child;

// Each in a process of its own, which the signals are meant for.

TEST(EasyStopSignalTest, ASignalEndsAProgramInOrder) {
    for (const int number : {SIGINT, SIGTERM}) {
        const ChildResult result = run_in_child([number] {
            bool served = false;
            {
                const pz::Framework fw("radio");
                pz::Worker worker("tuner");
                worker.post([&] { served = true; });
                const pz::StopSignal first;  // the signal may come before the wait
                std::thread killer([number] { ::kill(::getpid(), number); });
                const int stop = pz::wait_for_stop();
                killer.join();
                if (stop != number) return 1;
            }
            return served ? 0 : 2;
        });
        EXPECT_TRUE(result.exited);
        EXPECT_EQ(0, result.status) << result.output;
    }
}

TEST(EasyStopSignalTest, StaysSignalledForEveryWait) {
    const ChildResult result = run_in_child([] {
        pz::StopSignal stop;
        pz::StopSignal other;
        pz::Event event;
        if (!stop || stop.number() != 0 || wait_any({&event, &stop}, 0ms)) return 1;
        ::raise(SIGTERM);
        for (int i = 0; i < 3; ++i) {
            if (wait_any({&event, &stop}, 60s) != 1U) return 2;
            if (wait_any({&other}, 60s) != 0U) return 3;
        }
        pz::StopSignal late;
        if (wait_any({&late}, 60s) != 0U) return 4;
        return late.number() == SIGTERM ? 0 : 5;
    });
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(EasyStopSignalTest, ASecondSignalEndsTheProcess) {
    const ChildResult result = run_in_child([] {
        const pz::StopSignal stop;
        ::raise(SIGINT);
        ::raise(SIGINT);
        return 0;
    });
    EXPECT_FALSE(result.exited);
    EXPECT_EQ(SIGINT, result.status);
}

TEST(EasyStopSignalTest, PutsTheFormerHandlersBack) {
    const ChildResult result = run_in_child([] {
        ::signal(SIGINT, SIG_IGN);
        auto first = std::make_unique<pz::StopSignal>();
        {
            const pz::StopSignal second;
            first.reset();
            ::raise(SIGINT);
            if (second.number() != SIGINT) return 1;
        }
        ::raise(SIGINT);  // ignored, as before
        const pz::StopSignal third;
        return third.number() == 0 ? 0 : 2;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(EasyStopSignalTest, PutsTheFormerHandlersOfBothSignalsBack) {
    const ChildResult result = run_in_child([] {
        for (const int number : {SIGINT, SIGTERM}) ::signal(number, SIG_IGN);
        { const pz::StopSignal stop; }
        for (const int number : {SIGINT, SIGTERM}) {
            if (::signal(number, SIG_DFL) != SIG_IGN) return number;
        }
        return 0;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(EasyStopSignalTest, MayBeMadeAndDestroyedWhileSignalsArrive) {
    const ChildResult result = run_in_child([] {
        const pz::StopSignal always;
        std::atomic<bool> done{false};
        std::thread killer([&] {
            ::kill(::getpid(), SIGTERM);
            ::kill(::getpid(), SIGINT);
            done = true;
        });
        do {
            pz::StopSignal stop;
            static_cast<void>(wait_any({&stop}, 0ms));
        } while (!done);
        killer.join();
        return always.number() != 0 ? 0 : 1;
    });
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(EasyStopSignalTest, ASignalForAFormerOneDoesNotStopTheNext) {
    const ChildResult result = run_in_child([] {
        getpid_call.Replace(&getpid_later);
        auto former = std::make_unique<pz::StopSignal>();
        std::thread signalled([] {
            is_held_up = true;
            ::pthread_kill(::pthread_self(), SIGINT);
            is_held_up = false;
        });
        while (!has_begun) std::this_thread::yield();
        former.reset();
        may_go_on = true;
        signalled.join();
        const pz::StopSignal next;
        return next.number() == 0 ? 0 : 1;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(EasyStopSignalTest, RefusesMoreThanSixteenAtATime) {
    std::array<pz::StopSignal, 16> stops;
    EXPECT_TRUE(stops.back());
    pztest::StdoutCapture capture;
    pz::StopSignal one;
    EXPECT_FALSE(one);
    EXPECT_EQ(0, one.number());
    EXPECT_TRUE(pztest::has_report(capture.Take(), "StopSignal", "StopSignal.cpp",
                                   "more than 16 at a time"));
    EXPECT_EQ(std::nullopt, wait_any({&one}, 0ms));
    EXPECT_EQ(0, pz::wait_for_stop());
}

namespace {

std::atomic<bool> handler_waits{false};
std::atomic<bool> handler_may_go_on{false};

/// The signal's handler stays in its write until it may go on.
ssize_t hold_write(int fd, const void* bytes, size_t size) {
    handler_waits = true;
    while (!handler_may_go_on) ::usleep(1000);
    return write_call.Real(fd, bytes, size);
}

/// Ends the child when it hangs.
void limit_child() {
    ::signal(SIGALRM, SIG_DFL);
    ::alarm(20);
}

}  // namespace

// Only a held handler is sure to run while another thread forks.
TEST(EasyStopSignalTest, IsDestroyedInAChildThatWasForkedWhileItsHandlerRan) {
    const ChildResult result = run_in_child([] {
        auto stop = std::make_unique<pz::StopSignal>();
        write_call.Replace(&hold_write);
        std::thread interrupted([] { ::pthread_kill(::pthread_self(), SIGTERM); });
        while (!handler_waits) ::usleep(1000);
        write_call.Replace(nullptr);
        pztest::ChildProcess child([&stop] {
            limit_child();
            { const pz::StopSignal own; }  // while the parent's lives
            stop.reset();
            return 0;
        });
        const int status = child.Wait();
        handler_may_go_on = true;
        interrupted.join();
        if (status != 0) return 1;
        return wait_any({stop.get()}, 60s) == 0U ? 0 : 2;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(EasyStopSignalTest, ASignalForAForkedChildEndsTheChildAndNotTheParentsWait) {
    const ChildResult result = run_in_child([] {
        pz::StopSignal stop;
        const pid_t pid = ::fork();
        if (pid == 0) {
            limit_child();
            for (;;) ::pause();
        }
        ::kill(pid, SIGTERM);
        int status = 0;
        if (::waitpid(pid, &status, 0) != pid) return 1;
        if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGTERM) return 2;
        if (wait_any({&stop}, 0ms)) return 3;
        return stop.number() == 0 ? 0 : 4;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(EasyStopSignalTest, AForkedChildMayMakeItsOwnWhichLeavesTheParentsAlone) {
    const ChildResult result = run_in_child([] {
        auto stop = std::make_unique<pz::StopSignal>();
        pztest::ChildProcess child([&stop] {
            limit_child();
            pz::StopSignal own;
            stop.reset();
            ::raise(SIGINT);
            if (!wait_any({&own}, 10s)) return 1;
            return own.number() == SIGINT ? 0 : 2;
        });
        const int status = child.Wait();
        if (status != 0) return status;
        if (wait_any({stop.get()}, 0ms)) return 3;
        ::raise(SIGTERM);
        return wait_any({stop.get()}, 60s) == 0U ? 0 : 4;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(EasyStopSignalTest, AForkedChildThatMakesItsOwnBeginsWithoutTheSignalsOfItsParent) {
    const ChildResult result = run_in_child([] {
        const pz::StopSignal stop;
        ::raise(SIGTERM);
        pztest::ChildProcess child([] {
            limit_child();
            pz::StopSignal own;
            if (own.number() != 0 || wait_any({&own}, 0ms)) return 1;
            ::raise(SIGTERM);
            return wait_any({&own}, 10s) == 0U && own.number() == SIGTERM ? 0 : 2;
        });
        return child.Wait();
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(EasyStopSignalTest, AForkedChildThatMakesItsOwnPutsTheFormerHandlersBack) {
    const ChildResult result = run_in_child([] {
        ::signal(SIGTERM, SIG_IGN);
        auto stop = std::make_unique<pz::StopSignal>();
        pztest::ChildProcess child([&stop] {
            limit_child();
            { const pz::StopSignal own; }
            stop.reset();
            ::raise(SIGTERM);
            return 0;
        });
        return child.Wait();
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(EasyStopSignalTest, ASignalBeforeTheFirstOneIsMadeEndsTheProcess) {
    for (const int number : {SIGINT, SIGTERM}) {
        const ChildResult result = run_in_child([number] {
            std::signal(number, SIG_DFL);  // a shell's background process ignores SIGINT
            ::raise(number);
            return pz::wait_for_stop() == 0 ? 1 : 0;
        });
        EXPECT_FALSE(result.exited);
        EXPECT_EQ(number, result.status);
    }
}
