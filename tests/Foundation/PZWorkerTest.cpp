#include "Framework/Foundation/PZWorker.h"

#include <pthread.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/PZWatchDog.h>

#include "support/ChildProcess.h"
#include "support/FewDescriptors.h"
#include "support/Gate.h"
#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/OwnProcess.h"
#include "support/RecordingDispatcher.h"
#include "support/StdoutCapture.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(epoll_wait, 4);
PZ_INTERPOSE(sem_init, 3);
PZ_INTERPOSE(read, 3);
PZ_INTERPOSE(write, 3);
PZ_INTERPOSE(pthread_create, 4, EAGAIN);
PZ_INTERPOSE(pthread_join, 2);

namespace {

using pztest::Gate;
using pztest::RecordingDispatcher;
using pztest::StdoutCapture;
using pztest::wait_until;
using Log = RecordingDispatcher::Log;

constexpr int kStartLimitMs = 3000;
constexpr unsigned int kOrdinary = 1;
constexpr int kNoThreadPriority = 256;
constexpr unsigned int kWatchTimeMs = 1234;
constexpr unsigned int kWorkerNo = 17;
constexpr unsigned int kWhoAmI = 1000;

}  // namespace

namespace {

/// The wait for the loop's start ends at once, without a signal; other waits are real.
std::atomic<int> start_waits{0};
int time_out_start_wait(int epfd, epoll_event* events, int maxevents, int timeout) {
    if (timeout != kStartLimitMs) return epoll_wait_call.Real(epfd, events, maxevents, timeout);
    ++start_waits;
    return 0;
}

/// The thread is joined, but the call answers an error.
int join_and_fail(pthread_t thread, void** result) {
    pthread_join_call.Real(thread, result);
    errno = ENOENT;
    return EINVAL;
}

Gate* write_gate = nullptr;
ssize_t write_after_gate(int fd, const void* data, size_t size) {
    write_gate->Pass();
    return write_call.Real(fd, data, size);
}

bool is_active(unsigned long handle) {
    std::vector<unsigned long> handles;
    PZThreadMng::GetInstance()->getActiveThreadList(handles);
    return std::find(handles.begin(), handles.end(), handle) != handles.end();
}

class PZWorkerTest : public testing::Test {
protected:
    // The framework's start makes these two before any worker runs.
    PZWorkerTest() {
        PZThreadMng::GetInstance();
        PZWatchDog::GetInstance();
        id = worker.GetMsgBox()->Registory(&unit);
        unit.OnMessage(kWhoAmI, [this](const auto&) {
            handle = pthread_self();
            tid = static_cast<int>(syscall(SYS_gettid));
        });
    }

    ~PZWorkerTest() override {
        epoll_wait_call.Reset();
        write_call.Reset();
        pthread_create_call.Reset();
        pthread_join_call.Reset();
        gate.Open();
        worker.End(0);
    }

    unsigned int Post(unsigned int msgId) {
        PZIMsgBox::ST_PUSH_MSG_DATA record = {id, msgId, kOrdinary, nullptr, 0};
        return worker.GetMsgBox()->PushMsg(record);
    }

    /// Starts the worker and learns its thread's handle and kernel id.
    void StartAndAsk(const char* name = "worker") {
        ASSERT_EQ(0, worker.Start(name));
        ASSERT_EQ(0U, Post(kWhoAmI));
        ASSERT_TRUE(wait_until([this] { return tid != -1; }));
        unit.Forget();
    }

    /// Starts the worker and holds it at the gate.
    void StartAndHold() {
        unit.OnMessage(1, [this](const auto&) { gate.Pass(); });
        ASSERT_EQ(0, worker.Start("worker"));
        ASSERT_EQ(0U, Post(1));
        ASSERT_TRUE(gate.WaitForArrival());
    }

    Gate gate;
    RecordingDispatcher unit;
    PZWorker worker{1, kWatchTimeMs, kWorkerNo};
    unsigned long id = 0;
    std::atomic<unsigned long> handle{0};
    std::atomic<int> tid{-1};
};

TEST_F(PZWorkerTest, IsLeftAloneByAForkedChildThatEndsIt) {
    StartAndAsk();
    const pztest::ChildResult child = pztest::run_in_child(
        [this] {
            worker.End(0);
            return 42;
        },
        /*limitSeconds=*/20);
    EXPECT_EQ(42, child.status) << child.output;
    tid = -1;
    ASSERT_EQ(0U, Post(kWhoAmI));
    EXPECT_TRUE(wait_until([this] { return tid != -1; }));
}

TEST_F(PZWorkerTest, CanBeDestroyedInAForkedChildWhoseParentPostsJustNow) {
    StartAndAsk();
    ASSERT_TRUE(wait_until([this] {
        return pztest::thread_status(std::to_string(tid), "State").substr(0, 1) == "S";
    }));
    write_gate = &gate;
    write_call.Replace(&write_after_gate);
    std::thread poster([this] { Post(kWhoAmI); });
    EXPECT_TRUE(gate.WaitForArrival());  // it is about to wake the worker
    const pztest::ChildResult child = pztest::run_in_child(
        [this] {
            write_call.Reset();
            worker.~PZWorker();
            return 42;
        },
        /*limitSeconds=*/20);
    EXPECT_EQ(42, child.status) << child.output;
    gate.Open();
    poster.join();
}

TEST_F(PZWorkerTest, HasItsBoxFromTheBeginning) {
    PZIMsgBox* const box = worker.GetMsgBox();
    ASSERT_NE(nullptr, box);
    ASSERT_EQ(0, worker.Start("worker"));
    EXPECT_EQ(box, worker.GetMsgBox());
    worker.End(0);
    EXPECT_EQ(box, worker.GetMsgBox());
}

TEST_F(PZWorkerTest, IsDestroyedThroughItsBase) {
    EXPECT_TRUE(std::has_virtual_destructor_v<PZWorker>);
}

TEST_F(PZWorkerTest, ServesItsBoxOnAThreadOfItsOwn) {
    StartAndAsk();
    EXPECT_NE(static_cast<int>(syscall(SYS_gettid)), tid);
}

TEST_F(PZWorkerTest, StartsWithoutAName) {
    ASSERT_EQ(0, worker.Start(nullptr));
    EXPECT_STREQ("no_name", worker.getName());
}

TEST_F(PZWorkerTest, NamesItsThread) {
    EXPECT_STREQ("", worker.getName());
    StartAndAsk("a name of more than 15 characters");
    EXPECT_STREQ("a name of more than 15 characters", worker.getName());
    char kernelName[16] = {};
    ASSERT_EQ(0, pthread_getname_np(handle, kernelName, sizeof kernelName));
    EXPECT_STREQ("a name of more ", kernelName);
    worker.End(0);
    EXPECT_STREQ("", worker.getName());
}

TEST_F(PZWorkerTest, RegistersItsThreadWithNamePriorityAndWatchTime) {
    StartAndAsk("registered");
    char label[256] = {};
    EXPECT_TRUE(PZThreadMng::GetInstance()->getLabel(handle, label));
    EXPECT_STREQ("registered", label);
    EXPECT_EQ(kWatchTimeMs, PZThreadMng::GetInstance()->getWatchTime(handle));
    EXPECT_TRUE(is_active(handle));
}

TEST_F(PZWorkerTest, EndUnregistersTheThread) {
    StartAndAsk();
    worker.End(0);
    EXPECT_FALSE(is_active(handle));
}

TEST_F(PZWorkerTest, GivesItsNumberToTheBox) {
    StartAndHold();
    for (int i = 0; i < 256; ++i) ASSERT_EQ(0U, Post(2));
    StdoutCapture capture;
    EXPECT_EQ(3U, Post(2));
    EXPECT_EQ((Log{"msg queue is full : worker[17]"}), pztest::error_messages(capture.Take()));
}

TEST_F(PZWorkerTest, EndReturnsWhenEverythingThatWasPostedIsServed) {
    StartAndHold();
    for (int i = 0; i < 200; ++i) ASSERT_EQ(0U, Post(2));
    for (unsigned int i = 0; i < 100; ++i) {
        ASSERT_EQ(0U, worker.GetMsgBox()->SetEvent(i, id));
    }
    // The worker's own thread opens the gate: End is under way, or about to be, by then.
    std::thread opener([this] { gate.Open(); });
    worker.End(0);
    EXPECT_EQ(301U, unit.Received().size());
    opener.join();
}

TEST_F(PZWorkerTest, EndDoesNotUseItsTimeLimit) {
    StartAndHold();
    std::atomic<bool> ended{false};
    std::thread ender([&] {
        worker.End(1);
        ended = true;
    });
    // Time for an End that does not wait to show itself.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(ended);
    gate.Open();
    ender.join();
    EXPECT_EQ((Log{"msg 1"}), unit.Received());
}

TEST_F(PZWorkerTest, StartsAgainAfterEnd) {
    StartAndAsk("first");
    worker.End(0);
    tid = -1;
    StartAndAsk("second");
    EXPECT_STREQ("second", worker.getName());
    ASSERT_EQ(0U, Post(1));
    worker.End(0);
    EXPECT_EQ((Log{"msg 1"}), unit.Received());
}

TEST_F(PZWorkerTest, RefusesASecondStartAndLeavesTheRunningThreadAlone) {
    StartAndAsk("first");
    {
        StdoutCapture capture;
        EXPECT_EQ(-1, worker.Start("second"));
        EXPECT_TRUE(pztest::has_report(capture.Take(), "Start", "PZThread.h", "error [second]"));
    }
    EXPECT_STREQ("first", worker.getName());
    ASSERT_EQ(0U, Post(1));
    EXPECT_TRUE(unit.WaitForCount(1));
}

TEST_F(PZWorkerTest, EndWithoutAThreadEndsTheNextLoopWhenItIsIdle) {
    worker.End(0);
    EXPECT_EQ(kNoThreadPriority, worker.GetPriority());
    ASSERT_EQ(0, worker.Start("worker"));
    StdoutCapture capture;
    // A thread that has ended has no priority any more.
    EXPECT_TRUE(wait_until([this] { return worker.GetPriority() == 0; }));
}

TEST_F(PZWorkerTest, StartWaits3000MillisecondsForTheLoop) {
    start_waits = 0;
    epoll_wait_call.Replace(time_out_start_wait);
    EXPECT_EQ(-1, worker.Start("worker"));
    EXPECT_EQ(1, start_waits);
}

TEST_F(PZWorkerTest, KeepsTheThreadRunningWhenTheLoopWasTooLate) {
    write_gate = &gate;  // holds the loop before it says that it serves
    write_call.Replace(write_after_gate);
    epoll_wait_call.Replace(time_out_start_wait);
    ASSERT_EQ(-1, worker.Start("worker"));
    ASSERT_TRUE(gate.WaitForArrival());
    gate.Open();
    ASSERT_EQ(0, worker.GetMsgBox()->InitWait(60000));
    ASSERT_EQ(0U, Post(1));
    EXPECT_TRUE(unit.WaitForCount(1));
}

TEST_F(PZWorkerTest, StartAnswersAFailureWhenTheLoopNeverSignals) {
    write_call.FailNext(EBADF);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, worker.Start("worker"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2999));
}

TEST_F(PZWorkerTest, StartAnswersAFailureWhenThereIsNoThreadToBeHad) {
    StdoutCapture capture;
    pthread_create_call.FailNext(EAGAIN);
    EXPECT_EQ(-1, worker.Start("worker"));
    EXPECT_TRUE(pztest::has_report(capture.Take(), "Start", "PZThread.h",
                                   "PZThread::Start() failed !! [worker]\r"));
}

TEST_F(PZWorkerTest, KeepsTheThreadObjectWhenThereIsNoThreadToBeHad) {
    StdoutCapture capture;
    pthread_create_call.FailNext(EAGAIN);
    ASSERT_EQ(-1, worker.Start("worker"));
    capture.Take();
    EXPECT_EQ(-1, worker.GetPriority());
    EXPECT_EQ((Log{"invalid thread id"}), pztest::error_messages(capture.Take()));
    worker.End(0);
    EXPECT_EQ(kNoThreadPriority, worker.GetPriority());
}

TEST_F(PZWorkerTest, StartsOnASecondAttemptAfterThereWasNoThreadToBeHad) {
    {
        const StdoutCapture capture;
        pthread_create_call.FailNext(EAGAIN);
        ASSERT_EQ(-1, worker.Start("first"));
    }
    StartAndAsk("second");
    EXPECT_STREQ("second", worker.getName());
}

TEST_F(PZWorkerTest, KeepsTheThreadObjectWhenTheJoinFails) {
    StartAndAsk("worker");
    StdoutCapture capture;
    pthread_join_call.Replace(join_and_fail);
    worker.End(0);
    EXPECT_TRUE(
        pztest::has_report(capture.Take(), "WaitExit", "PZThread.h",
                           "pthread_join failed !! ret[22] errno[2 : No such file or directory]"));
    EXPECT_FALSE(is_active(handle));
    EXPECT_STREQ("worker", worker.getName());
    EXPECT_EQ(-1, worker.GetPriority());
    EXPECT_EQ((Log{"invalid thread id"}), pztest::error_messages(capture.Take()));
}

TEST_F(PZWorkerTest, ASecondEndDestroysAThreadObjectThatWasKept) {
    StartAndAsk();
    const StdoutCapture capture;
    pthread_join_call.Replace(join_and_fail);
    worker.End(0);
    worker.End(0);
    EXPECT_EQ(kNoThreadPriority, worker.GetPriority());
}

TEST_F(PZWorkerTest, HasPriority256WithoutAThread) {
    EXPECT_EQ(kNoThreadPriority, worker.GetPriority());
    ASSERT_EQ(0, worker.Start("worker"));
    EXPECT_NE(kNoThreadPriority, worker.GetPriority());
    worker.End(0);
    EXPECT_EQ(kNoThreadPriority, worker.GetPriority());
}

TEST_F(PZWorkerTest, InheritsThePriorityOfTheStartingThread) {
    const int own = PZThreadMng::GetInstance()->GetCurrentThreadPriority();
    ASSERT_EQ(0, worker.Start("worker"));
    EXPECT_EQ(own, worker.GetPriority());
}

TEST_F(PZWorkerTest, SetsThePriorityOfItsThreadOnly) {
    const int own = getpriority(PRIO_PROCESS, 0);
    StartAndAsk();
    EXPECT_TRUE(worker.SetPriority(en_WORKER_PRIORITY_LOWEST));
    EXPECT_EQ(4, getpriority(PRIO_PROCESS, static_cast<id_t>(tid)));
    EXPECT_EQ(255, worker.GetPriority());
    EXPECT_EQ(own, getpriority(PRIO_PROCESS, 0));
}

TEST_F(PZWorkerTest, SetPriorityWithoutAThreadDoesNothing) {
    StdoutCapture capture;
    EXPECT_FALSE(worker.SetPriority(en_WORKER_PRIORITY_LOWEST));
    EXPECT_EQ("", capture.Take());
}

TEST_F(PZWorkerTest, SetPriorityGivesAThreadFiftyMillisecondsToShowItsId) {
    StdoutCapture capture;
    pthread_create_call.FailNext(EAGAIN);
    ASSERT_EQ(-1, worker.Start("worker"));
    capture.Take();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(worker.SetPriority(en_WORKER_PRIORITY_LOWEST));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_TRUE(
        pztest::has_report(capture.Take(), "SetPriority", "PZThread.h", "invalid thread id"));
}

TEST_F(PZWorkerTest, ItsPrioritiesAreOnTheWideScale) {
    EXPECT_EQ(177, en_WORKER_PRIORITY_HIGHEST);
    EXPECT_EQ(200, en_WORKER_PRIORITY_HIGH);
    EXPECT_EQ(225, en_WORKER_PRIORITY_ABOVE_NORMAL);
    EXPECT_EQ(251, en_WORKER_PRIORITY_NORMAL);
    EXPECT_EQ(252, en_WORKER_PRIORITY_BELOW_NORMAL);
    EXPECT_EQ(254, en_WORKER_PRIORITY_LOW);
    EXPECT_EQ(255, en_WORKER_PRIORITY_LOWEST);
    PZThreadMng* const threads = PZThreadMng::GetInstance();
    EXPECT_EQ(-20, threads->get_narrow_priority(en_WORKER_PRIORITY_HIGHEST));
    EXPECT_EQ(-6, threads->get_narrow_priority(en_WORKER_PRIORITY_HIGH));
    EXPECT_EQ(-3, threads->get_narrow_priority(en_WORKER_PRIORITY_ABOVE_NORMAL));
    EXPECT_EQ(0, threads->get_narrow_priority(en_WORKER_PRIORITY_NORMAL));
    EXPECT_EQ(1, threads->get_narrow_priority(en_WORKER_PRIORITY_BELOW_NORMAL));
    EXPECT_EQ(3, threads->get_narrow_priority(en_WORKER_PRIORITY_LOW));
    EXPECT_EQ(4, threads->get_narrow_priority(en_WORKER_PRIORITY_LOWEST));
}

TEST_F(PZWorkerTest, InitializeAnswersWhatItsBoxAnswers) {
    EXPECT_EQ(0, worker.Initialize());
}

TEST_F(PZWorkerTest, MainProcServesTheBoxOnTheCallingThread) {
    worker.GetMsgBox()->Exit();
    worker.MainProc();
    EXPECT_EQ(0, worker.GetMsgBox()->InitWait(0));
}

TEST_F(PZWorkerTest, FinalizeLeavesTheWorkerServing) {
    ASSERT_EQ(0, worker.Start("worker"));
    worker.Finalize();
    ASSERT_EQ(0U, Post(1));
    EXPECT_TRUE(unit.WaitForCount(1));
}

TEST_F(PZWorkerTest, ManyWorkersServeSideBySide) {
    constexpr size_t kWorkers = 8;
    constexpr unsigned int kHops = 200;
    std::vector<std::unique_ptr<PZWorker>> workers;
    std::vector<std::unique_ptr<RecordingDispatcher>> units;
    std::vector<unsigned long> ids;
    for (size_t i = 0; i < kWorkers; ++i) {
        workers.push_back(std::make_unique<PZWorker>(0, 0, static_cast<unsigned int>(i)));
        units.push_back(std::make_unique<RecordingDispatcher>());
        ids.push_back(workers[i]->GetMsgBox()->Registory(units[i].get()));
    }
    // A message goes round from worker to worker.
    std::atomic<unsigned int> hops{0};
    for (size_t i = 0; i < kWorkers; ++i) {
        const size_t next = (i + 1) % kWorkers;
        units[i]->OnMessage(1, [&, next](const auto&) {
            if (++hops >= kHops) return;
            PZIMsgBox::ST_PUSH_MSG_DATA record = {ids[next], 1, kOrdinary, "hop", 4};
            workers[next]->GetMsgBox()->PushMsg(record);
        });
    }
    for (const auto& each : workers) ASSERT_EQ(0, each->Start("ring"));
    PZIMsgBox::ST_PUSH_MSG_DATA record = {ids[0], 1, kOrdinary, "hop", 4};
    ASSERT_EQ(0U, workers[0]->GetMsgBox()->PushMsg(record));
    EXPECT_TRUE(wait_until([&] { return hops == kHops; }));
    for (const auto& each : workers) each->End(0);
    EXPECT_EQ(kHops, hops);
}

// Out of descriptors

// The sanitizer's check of an object's type needs descriptors of its own, and takes the lack of
// them for a wrong type.
#ifndef __SANITIZE_ADDRESS__
TEST(PZWorkerDescriptorsTest, MakesNoThreadWithoutItsEventsAndStartsOnceItGetsThem) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        PZThreadMng::GetInstance();
        PZWatchDog::GetInstance();
        for (unsigned int more = 0; more < 3; ++more) {
            std::unique_ptr<PZWorker> worker;
            {
                const pztest::FewDescriptors few(more);
                worker = std::make_unique<PZWorker>(1, kWatchTimeMs, kWorkerNo);
                std::puts("start");
                if (worker->Start("few") != -1) return 1;
                std::puts("started");
                std::fflush(stdout);
                if (worker->GetPriority() != 256) return 2;
            }
            if (!pztest::threads_named("few").empty()) return 3;
            RecordingDispatcher unit;
            const unsigned long id = worker->GetMsgBox()->Registory(&unit);
            if (worker->Start("enough") != 0) return 4;
            PZIMsgBox::ST_PUSH_MSG_DATA record = {id, 1, kOrdinary, nullptr, 0};
            if (worker->GetMsgBox()->PushMsg(record) != 0) return 5;
            worker->End(0);
            if (unit.Received().size() != 1) return 6;
        }
        return 0;
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.status);
    size_t starts = 0;
    size_t at = 0;
    while ((at = child.output.find("start\n", at)) != std::string::npos) {
        const size_t end = child.output.find("started\n", at);
        ASSERT_NE(std::string::npos, end);
        const std::string said = child.output.substr(at, end - at);
        EXPECT_EQ(1U, pztest::error_messages(said).size()) << said;
        EXPECT_NE(std::string::npos, said.find("Too many open files")) << said;
        ++starts;
        at = end;
    }
    EXPECT_EQ(3U, starts);
}

TEST(PZWorkerDescriptorsTest, EndsAtOnceWhenItsStartFoundNoDescriptors) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        PZThreadMng::GetInstance();
        PZWatchDog::GetInstance();
        const pztest::FewDescriptors few(2);
        PZWorker worker(1, kWatchTimeMs, kWorkerNo);
        if (worker.Start("few") != -1) return 1;
        worker.End(0);
        return 0;
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.status);
}

TEST(PZWorkerDescriptorsTest, ServesQuietlyInAProcessWithoutFreeDescriptors) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        PZThreadMng::GetInstance();
        PZWatchDog::GetInstance();
        PZWorker worker(1, kWatchTimeMs, kWorkerNo);
        RecordingDispatcher unit;
        const unsigned long id = worker.GetMsgBox()->Registory(&unit);
        if (worker.Start("serves") != 0) return 1;
        const pztest::FewDescriptors none(0);
        for (unsigned int i = 1; i <= 200; ++i) {
            PZIMsgBox::ST_PUSH_MSG_DATA record = {id, i, kOrdinary, "x", 2};
            if (worker.GetMsgBox()->PushMsg(record) != 0) return 2;
            if (worker.GetMsgBox()->SetEvent(i, id) != 0) return 3;
            if (!unit.WaitForCount(2 * static_cast<size_t>(i))) return 4;
        }
        worker.End(0);
        return 0;
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.status);
    EXPECT_EQ("", child.output);
}

#endif

// A handler that throws

TEST_F(PZWorkerTest, ServesNothingAnyMoreWhenAHandlerThrew) {
    const auto isGone = [](const char* name) {
        return wait_until([=] { return pztest::threads_named(name).empty(); });
    };
    unit.OnMessage(1, [](const auto&) { throw 1; });
    ASSERT_EQ(0, worker.Start("throws"));
    ASSERT_EQ(0U, Post(1));
    ASSERT_TRUE(isGone("throws"));
    for (unsigned int i = 0; i < 256; ++i) EXPECT_EQ(0U, Post(2));

    worker.End(0);  // nobody takes the request to end: it stays in the box
    EXPECT_EQ(0, worker.Start("again"));
    ASSERT_TRUE(isGone("again"));
    worker.End(0);
    EXPECT_EQ(0, worker.Start("once more"));
    ASSERT_TRUE(isGone("once more"));
    const StdoutCapture capture;
    for (unsigned int i = 0; i < 256; ++i) EXPECT_EQ(0U, Post(2));
    EXPECT_EQ(3U, Post(2));
    EXPECT_EQ((Log{"msg 1"}), unit.Received());
}

// Cancellation

// The address sanitizer takes the unwinding of a cancelled thread for an overrun.
#ifndef __SANITIZE_ADDRESS__
TEST_F(PZWorkerTest, EndsWhenItsThreadIsCancelledWhileItWaits) {
    std::atomic<pthread_t> thread{0};
    unit.OnMessage(1, [&](const auto&) { thread = pthread_self(); });
    ASSERT_EQ(0, worker.Start("cancelled"));
    const int waits = read_call.Calls();
    ASSERT_EQ(0U, Post(1));
    ASSERT_TRUE(wait_until([&] { return thread != 0 && read_call.Calls() > waits; }));
    ASSERT_EQ(0, pthread_cancel(thread));
    EXPECT_TRUE(wait_until([] { return pztest::threads_named("cancelled").empty(); }));
    worker.End(0);
    EXPECT_EQ((Log{"msg 1"}), unit.Received());
}

#endif

// Out of memory

TEST(PZWorkerMemoryTest, AnswersAFailedStartAndStartsOnceThereIsMemory) {
    PZThreadMng::GetInstance();
    PZWatchDog::GetInstance();
    PZWorker worker(1, kWatchTimeMs, kWorkerNo);
    RecordingDispatcher unit;
    const unsigned long id = worker.GetMsgBox()->Registory(&unit);
    const StdoutCapture capture;
    for (int skip = 0;; ++skip) {
        int result = 0;
        int refused = 0;
        {
            const pztest::MemoryShortage shortage(skip);
            result = worker.Start("short");
            refused = shortage.Refused();
        }
        if (refused == 0) {
            ASSERT_EQ(0, result);
            break;
        }
        ASSERT_EQ(-1, result);
    }
    PZIMsgBox::ST_PUSH_MSG_DATA record = {id, 1, kOrdinary, nullptr, 0};
    EXPECT_EQ(0U, worker.GetMsgBox()->PushMsg(record));
    worker.End(0);
    EXPECT_EQ((Log{"msg 1"}), unit.Received());
}

TEST(PZWorkerMemoryTest, GetsTheLocksOfItsBoxWhenItStarts) {
    PZThreadMng::GetInstance();
    PZWatchDog::GetInstance();
    for (int lock = 0; lock < 2; ++lock) {
        StdoutCapture capture;
        sem_init_call.FailNext(ENOMEM, 1, lock);
        PZWorker worker(1, kWatchTimeMs, kWorkerNo);
        sem_init_call.FailNext(ENOMEM);
        EXPECT_EQ(-1, worker.Start("locked")) << "no memory for it again";
        EXPECT_EQ(256, worker.GetPriority()) << "no thread";
        EXPECT_EQ(2U, pztest::error_messages(capture.Take()).size()) << "one for each refusal";

        ASSERT_EQ(0, worker.Start("locked"));
        RecordingDispatcher unit;
        const unsigned long id = worker.GetMsgBox()->Registory(&unit);
        PZIMsgBox::ST_PUSH_MSG_DATA record = {id, 1, kOrdinary, nullptr, 0};
        EXPECT_EQ(0U, worker.GetMsgBox()->PushMsg(record));
        worker.End(0);
        EXPECT_EQ((Log{"msg 1"}), unit.Received());
        EXPECT_EQ("", capture.Take());
    }
}

}  // namespace
