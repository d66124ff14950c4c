#include "Framework/Foundation/PZPriorityQueue.h"

#include <algorithm>
#include <new>
#include <random>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/MemoryShortage.h"

namespace {

struct Record {
    int number;
    const void* payload;
};

using Queue = PZPriorityQueue<Record>;

static_assert(std::is_aggregate_v<Queue::que>, "a stored record is plain data");
static_assert(std::is_same_v<decltype(Queue::que::priority), unsigned int>, "held as a word");

class PZPriorityQueueTest : public testing::Test {
protected:
    void Push(unsigned int priority) { Push(priority, ++lastNumber); }
    void Push(unsigned int priority, int number) { queue.push({{number, nullptr}, priority}); }

    /// Takes everything out: the numbers in the order of service.
    std::vector<int> Serve() {
        std::vector<int> numbers;
        for (; !queue.empty(); queue.pop()) numbers.push_back(queue.top().number);
        return numbers;
    }

    Queue queue{256};
    int lastNumber = 0;
};

TEST_F(PZPriorityQueueTest, IsEmptyAtFirst) {
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(0U, queue.size());
}

TEST_F(PZPriorityQueueTest, KeepsTheCapacityItWasGiven) {
    EXPECT_EQ(256U, queue.capacity());
    EXPECT_EQ(3U, PZPriorityQueue<Record>(3).capacity());
}

TEST_F(PZPriorityQueueTest, NeverRefusesAnElement) {
    PZPriorityQueue<Record> small(1);
    small.push({{1, nullptr}, 7});
    small.push({{2, nullptr}, 7});
    EXPECT_EQ(2U, small.size());
}

TEST_F(PZPriorityQueueTest, CountsItsElements) {
    Push(5);
    Push(5);
    EXPECT_EQ(2U, queue.size());
    EXPECT_FALSE(queue.empty());
    queue.pop();
    EXPECT_EQ(1U, queue.size());
    queue.pop();
    EXPECT_TRUE(queue.empty());
}

TEST_F(PZPriorityQueueTest, ServesTheLowestPriorityValueFirstAndEqualsInTheOrderTheyCame) {
    Push(5, 1);
    Push(0, 2);
    Push(5, 3);
    Push(255, 4);
    EXPECT_EQ((std::vector<int>{2, 1, 3, 4}), Serve());
}

TEST_F(PZPriorityQueueTest, ServesElementsThatComeInOrderOfServiceInThatOrder) {
    for (unsigned int priority = 0; priority < 256; ++priority) Push(priority);
    std::vector<int> expected(256);
    for (int i = 0; i < 256; ++i) expected[static_cast<size_t>(i)] = i + 1;
    EXPECT_EQ(expected, Serve());
}

TEST_F(PZPriorityQueueTest, ServesElementsThatComeInReverseOrderOfServiceReversed) {
    for (unsigned int priority = 256; priority-- > 0;) Push(priority);
    std::vector<int> expected(256);
    for (int i = 0; i < 256; ++i) expected[static_cast<size_t>(i)] = 256 - i;
    EXPECT_EQ(expected, Serve());
}

TEST_F(PZPriorityQueueTest, ServesAnyMixLikeAStableSort) {
    std::mt19937 random(1);  // NOLINT(cert-msc51-cpp): the same mix in every run
    std::vector<Queue::que> expected;
    for (int number = 0; number < 2000; ++number) {
        const unsigned int priority = random() % 16;
        Push(priority, number);
        expected.push_back({{number, nullptr}, priority});
    }
    std::stable_sort(
        expected.begin(), expected.end(),
        [](const Queue::que& a, const Queue::que& b) { return a.priority < b.priority; });

    for (const auto& element : expected) {
        ASSERT_EQ(element.number, queue.top().number);
        ASSERT_EQ(element.priority, queue.top().priority);
        queue.pop();
    }
    EXPECT_TRUE(queue.empty());
}

TEST_F(PZPriorityQueueTest, PutsLateElementsBetweenThoseThatWait) {
    Push(9, 1);
    Push(3, 2);
    EXPECT_EQ(2, queue.top().number);
    queue.pop();
    Push(3, 3);
    Push(9, 4);
    Push(0, 5);
    EXPECT_EQ((std::vector<int>{5, 3, 1, 4}), Serve());
}

TEST_F(PZPriorityQueueTest, StoresAPriorityOf256As0) {
    Push(1, 1);
    Push(256, 2);
    Push(0, 3);
    EXPECT_EQ(0U, queue.top().priority);
    EXPECT_EQ((std::vector<int>{2, 3, 1}), Serve());
}

TEST_F(PZPriorityQueueTest, StoresTheLow8BitsOfAnyPriority) {
    Push(0xFFFFFFFF);
    EXPECT_EQ(255U, queue.top().priority);
    queue.pop();
    Push(0x12345678);
    EXPECT_EQ(0x78U, queue.top().priority);
}

TEST_F(PZPriorityQueueTest, KeepsTheRecordWhole) {
    const int payload = 0;
    queue.push({{77, &payload}, 4});
    EXPECT_EQ(77, queue.top().number);
    EXPECT_EQ(&payload, queue.top().payload);
    EXPECT_EQ(4U, queue.top().priority);
}

TEST_F(PZPriorityQueueTest, InsertPlacesWhatTheCallerFillsInLikePush) {
    Push(5);
    Queue::que& first = queue.Insert(0);
    EXPECT_EQ(0U, first.priority);
    first.number = 20;
    Queue::que& second = queue.Insert(256 + 5);
    EXPECT_EQ(5U, second.priority);
    second.number = 30;
    Push(4, 40);
    EXPECT_EQ((std::vector<int>{20, 40, 1, 30}), Serve());
}

TEST_F(PZPriorityQueueTest, TopLeavesTheElementInPlace) {
    Push(4, 1);
    EXPECT_EQ(1, queue.top().number);
    EXPECT_EQ(1, queue.top().number);
    EXPECT_EQ(1U, queue.size());
}

TEST_F(PZPriorityQueueTest, ClearRemovesEveryElement) {
    for (unsigned int priority = 0; priority < 100; ++priority) Push(priority % 7);
    queue.Clear();
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(256U, queue.capacity());
}

TEST_F(PZPriorityQueueTest, ClearDoesNotTouchPayloads) {
    int payload = 42;
    queue.push({{1, &payload}, 0});
    queue.Clear();
    EXPECT_EQ(42, payload);
}

TEST_F(PZPriorityQueueTest, ClearOfAnEmptyQueueDoesNothing) {
    queue.Clear();
    EXPECT_TRUE(queue.empty());
}

TEST_F(PZPriorityQueueTest, CanBeUsedAgainAfterClear) {
    Push(1, 1);
    queue.Clear();
    Push(2, 2);
    EXPECT_EQ((std::vector<int>{2}), Serve());
}

TEST_F(PZPriorityQueueTest, APushWithoutMemoryThrowsAndStoresNothing) {
    int refusals = 0;
    while (queue.size() < 100) {
        const unsigned int before = queue.size();
        bool hasThrown = false;
        {
            const pztest::MemoryShortage shortage;
            try {
                Push(before % 7, static_cast<int>(before));
            } catch (const std::bad_alloc&) {
                hasThrown = true;
            }
        }
        ASSERT_EQ(before + (hasThrown ? 0U : 1U), queue.size());
        if (!hasThrown) continue;
        ++refusals;
        Push(before % 7, static_cast<int>(before));
    }
    EXPECT_LT(0, refusals);
    std::vector<int> expected;
    for (int priority = 0; priority < 7; ++priority) {
        for (int number = priority; number < 100; number += 7) expected.push_back(number);
    }
    EXPECT_EQ(expected, Serve());
}

TEST_F(PZPriorityQueueTest, KeepsItsMemoryForAsManyElementsAsHaveWaitedTogether) {
    for (int i = 0; i < 100; ++i) Push(1);
    Serve();
    const pztest::MemoryShortage shortage;
    EXPECT_NO_THROW({
        for (int i = 0; i < 100; ++i) Push(1);
    });
    queue.Clear();
    EXPECT_NO_THROW({
        for (int i = 0; i < 100; ++i) Push(2);
    });
    EXPECT_EQ(100U, queue.size());
}

}  // namespace
