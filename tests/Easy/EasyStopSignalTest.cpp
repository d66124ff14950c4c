#include <unistd.h>

#include <array>
#include <csignal>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Easy/Framework.h>
#include <Framework/Easy/StopSignal.h>
#include <Framework/Easy/Worker.h>

#include "support/ChildProcess.h"
#include "support/StdoutCapture.h"

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
