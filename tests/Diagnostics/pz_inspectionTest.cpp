#include "Framework/Diagnostics/pz_inspection.h"

#include <dlfcn.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Communication/PZMessageQueue.h>
#include <Framework/Foundation/PZLMsgBox.h>
#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZSyncLock.h>

#include "support/CountingObserver.h"
#include "support/Gate.h"
#include "support/OwnProcess.h"
#include "support/TestQueue.h"
#include "support/WaitUntil.h"

// What pz-top's own tests read from a process in use is not repeated here.

namespace {

using pztest::wait_until;

template <typename Record>
const Record* first_of(const PZInspectionAddress& address) {
    return static_cast<const Record*>(address.pointer.load());
}

/// The entries of the array of queues that are in use.
std::vector<const ST_INSPECTED_QUEUE<PZInspectionLive>*> shown_queues() {
    const auto* const all = first_of<ST_INSPECTED_QUEUE<PZInspectionLive>>(pz_inspection.queues);
    std::vector<const ST_INSPECTED_QUEUE<PZInspectionLive>*> shown;
    for (std::uint32_t i = 0; i < pz_inspection.queueCount; ++i) {
        if (all[i].queue.pointer != nullptr) shown.push_back(&all[i]);
    }
    return shown;
}

bool shows(const PZMsgQ::PZMessageQueue<0>& queue) {
    const auto shown = shown_queues();
    return std::any_of(shown.begin(), shown.end(), [&](const auto* entry) {
        const void* const at = entry->queue.pointer;
        return at >= &queue && at < &queue + 1;
    });
}

/// How many threads are noted as waiting for the lock.
std::ptrdiff_t waiting_for(const PZSync& lock) {
    const auto* const all = first_of<ST_INSPECTED_WAIT<PZInspectionLive>>(pz_inspection.waits);
    return std::count_if(all, all + pz_inspection.waitCount,
                         [&](const auto& wait) { return wait.lock.pointer == &lock; });
}

bool sleeps(pid_t thread) {
    return thread != 0 && pztest::thread_status(std::to_string(thread), "State")[0] == 'S';
}

}  // namespace

TEST(pz_inspectionTest, ShowsTheFirst32OpenQueues) {
    const pztest::QueueName name;
    std::list<PZMsgQ::PZMessageQueue<0>> queues;
    for (std::uint32_t i = 0; i <= PZ_INSPECTED_QUEUES; ++i) {
        ASSERT_TRUE(queues.emplace_back().open({name.Get()}));
    }
    EXPECT_EQ(PZ_INSPECTED_QUEUES, shown_queues().size());
    EXPECT_TRUE(shows(queues.front()));
    EXPECT_FALSE(shows(queues.back()));

    const char byte = 1;
    EXPECT_EQ(0, queues.back().send(&byte, sizeof byte, 1)) << "it works all the same";
    queues.pop_front();
    EXPECT_EQ(PZ_INSPECTED_QUEUES - 1, shown_queues().size());
    EXPECT_FALSE(shows(queues.back())) << "it was opened too early";
    ASSERT_TRUE(queues.emplace_back().open({name.Get()}));
    EXPECT_TRUE(shows(queues.back()));
}

TEST(pz_inspectionTest, DoesNotCountTheMessageThatEndsAReceiver) {
    const pztest::QueueName name;
    pztest::CountingObserver observer;
    PZMsgQ::PZMessageQueue<1> receiver;
    ASSERT_TRUE(receiver.open({name.Get(), &observer}));
    ASSERT_EQ(1U, shown_queues().size());
    const auto* const entry = shown_queues()[0];
    PZMsgQ::PZMessageQueue<0> sender;
    ASSERT_TRUE(sender.open({name.Get()}));
    const char byte = 1;
    ASSERT_EQ(0, sender.send(&byte, sizeof byte, 1));
    ASSERT_TRUE(wait_until([&] { return entry->received == 1; }));
    receiver.close();
    EXPECT_EQ(nullptr, entry->queue.pointer);
    EXPECT_EQ(1U, entry->received);
    EXPECT_EQ(0U, entry->sent);
}

TEST(pz_inspectionTest, ShowsWhichSidesOfAQueueAnObjectMayUse) {
    const pztest::QueueName name;
    const auto sides = [] {
        const auto shown = shown_queues();
        return shown.size() == 1 ? shown[0]->sides.load() : 0;
    };
    {
        PZMsgQ::PZMessageQueue<2> both;
        ASSERT_TRUE(both.open({name.Get(), 1}));
        EXPECT_EQ(PZ_INSPECTED_QUEUE_SENDS | PZ_INSPECTED_QUEUE_RECEIVES, sides());
        both.close(true);
    }
    {
        PZMsgQ::PZMessageQueue<0> sender;
        ASSERT_TRUE(sender.open({name.Get()}));
        EXPECT_EQ(PZ_INSPECTED_QUEUE_SENDS, sides());
    }
    pztest::CountingObserver observer;
    PZMsgQ::PZMessageQueue<1> receiver;
    ASSERT_TRUE(receiver.open({name.Get(), &observer}));
    EXPECT_EQ(PZ_INSPECTED_QUEUE_RECEIVES, sides());
}

TEST(pz_inspectionTest, ABoxThatGoesLeavesTheOthersInTheList) {
    using Box = ST_INSPECTED_BOX<PZInspectionLive>;
    const PZLMsgBox oldest;
    const auto* const oldestShown = first_of<Box>(pz_inspection.boxes);
    auto between = std::make_unique<PZLMsgBox>();
    const PZLMsgBox newest;
    const auto* const newestShown = first_of<Box>(pz_inspection.boxes);
    EXPECT_NE(oldestShown, newestShown->next.pointer);
    between.reset();
    EXPECT_EQ(newestShown, first_of<Box>(pz_inspection.boxes));
    EXPECT_EQ(oldestShown, newestShown->next.pointer);
}

TEST(pz_inspectionTest, ShowsTheHandlerThatABoxRunsAndHowLongTheLongestTook) {
    /// Held in each of its handlers.
    class Held : public PZIDispatcher {
    public:
        void OnReceiveMsg(unsigned int, const void*, unsigned int) override { inMessage.Pass(); }
        void OnReceiveEvent(unsigned int) override { inEvent.Pass(); }
        pztest::Gate inMessage;
        pztest::Gate inEvent;
    };
    constexpr std::uint32_t kFarTooLongMs = 60000;
    Held held;
    PZLMsgBox box;
    const auto* const shown = first_of<ST_INSPECTED_BOX<PZInspectionLive>>(pz_inspection.boxes);
    const unsigned long id = box.Registory(&held);
    std::thread loop([&box] { box.Loop(7); });
    ASSERT_EQ(0, box.InitWait(kFarTooLongMs));

    PZIMsgBox::ST_PUSH_MSG_DATA message = {id, 5, 128, nullptr, 0};
    ASSERT_EQ(0U, box.PushMsg(message));
    ASSERT_TRUE(held.inMessage.WaitForArrival());
    EXPECT_EQ(static_cast<const PZIDispatcher*>(&held), shown->dispatcher.pointer);
    EXPECT_EQ(5U, shown->messageId);
    EXPECT_EQ(0U, shown->isEvent);
    EXPECT_EQ(7U, shown->number);
    constexpr std::uint32_t kHeldMs = 60;
    std::this_thread::sleep_for(std::chrono::milliseconds(kHeldMs));
    held.inMessage.Open();

    ASSERT_EQ(0U, box.SetEvent(3, id));
    ASSERT_TRUE(held.inEvent.WaitForArrival());
    EXPECT_EQ(3U, shown->messageId);
    EXPECT_EQ(1U, shown->isEvent);
    held.inEvent.Open();
    EXPECT_TRUE(wait_until([&] { return shown->servedEvents == 1; }));
    EXPECT_EQ(nullptr, shown->dispatcher.pointer);
    box.Exit();
    loop.join();
    constexpr std::uint32_t kClockStepMs = 20;
    EXPECT_LE(kHeldMs - kClockStepMs, shown->longestMs);
    EXPECT_GT(kFarTooLongMs, shown->longestMs);
    EXPECT_EQ(1U, shown->served);
}

TEST(pz_inspectionTest, Notes32OfTheThreadsThatWaitForALock) {
    PZSync lock;
    std::array<std::atomic<pid_t>, PZ_INSPECTED_WAITS + 1> ids{};
    std::vector<std::thread> threads;
    {
        const PZSyncLock held(lock);
        for (auto& id : ids) {
            threads.emplace_back([&lock, &id] {
                id = gettid();
                const PZSyncLock later(lock);
            });
        }
        EXPECT_TRUE(wait_until([&] { return std::all_of(ids.begin(), ids.end(), sleeps); }));
        EXPECT_EQ(PZ_INSPECTED_WAITS, waiting_for(lock));
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, waiting_for(lock));
}

TEST(pz_inspectionTest, NotesThreadsThatWouldUseTheSameEntryInDifferentOnes) {
    // Of more threads than there are entries, two have ids that begin at the same one.
    constexpr std::size_t kThreads = PZ_INSPECTED_WAITS + 1;
    PZSync lock;
    std::array<std::atomic<pid_t>, kThreads> ids{};
    std::array<std::atomic<bool>, kThreads> isToWait{};
    std::atomic<bool> isChosen{false};
    std::vector<std::thread> threads;
    {
        const PZSyncLock held(lock);
        for (std::size_t i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                ids[i] = gettid();
                if (wait_until([&] { return isChosen.load(); }) && isToWait[i]) {
                    const PZSyncLock later(lock);
                }
            });
        }
        EXPECT_TRUE(wait_until([&] {
            return std::all_of(ids.begin(), ids.end(), [](const auto& id) { return id != 0; });
        }));
        std::array<int, PZ_INSPECTED_WAITS> first{};  // by entry: number of its thread, or 0
        for (std::size_t i = 0; i < kThreads; ++i) {
            int& other = first[static_cast<std::size_t>(ids[i]) % PZ_INSPECTED_WAITS];
            if (other != 0) {
                isToWait[static_cast<std::size_t>(other - 1)] = true;
                isToWait[i] = true;
                break;
            }
            other = static_cast<int>(i) + 1;
        }
        isChosen = true;
        EXPECT_TRUE(wait_until([&] { return waiting_for(lock) == 2; }));
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, waiting_for(lock));
}

// The sanitizers keep the allocator to themselves.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

namespace {

using Link = ST_INSPECTED_LINK<PZInspectionLive>;

std::atomic<const Link*> watched{nullptr};
std::uint32_t kind_at_release = 0;

bool holds(void* memory, const void* address) {
    return address >= memory && address < static_cast<char*>(memory) + malloc_usable_size(memory);
}

}  // namespace

extern "C" void free(void* ptr) noexcept {
    using Function = void (*)(void*);
    static std::atomic<Function> real{nullptr};
    if (real == nullptr) real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "free"));
    if (watched != nullptr && holds(ptr, watched)) {
        kind_at_release = watched.load()->kind;
        watched = nullptr;
    }
    real.load()(ptr);
}

TEST(pz_inspectionTest, ARecordHasNoKindAnyMoreWhenItsMemoryIsReleased) {
    kind_at_release = PZ_INSPECTED_BOX_KIND;
    auto box = std::make_unique<PZLMsgBox>();
    watched = first_of<Link>(pz_inspection.boxes);
    ASSERT_NE(nullptr, watched);
    EXPECT_EQ(PZ_INSPECTED_BOX_KIND, watched.load()->kind);
    box.reset();
    EXPECT_EQ(nullptr, watched) << "the newest record is the first one";
    EXPECT_EQ(0U, kind_at_release);
}

#endif
