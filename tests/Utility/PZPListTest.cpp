#include "Framework/Utility/PZPList.h"

#include <cstddef>
#include <memory>
#include <random>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/MemoryShortage.h"

namespace {

using List = PZPList<int, PZAllocator<int*>>;

#if __SIZEOF_POINTER__ == 4
static_assert(offsetof(List::Node, prev) == 0 && offsetof(List::Node, next) == 4 &&
                  offsetof(List::Node, element) == 8 && sizeof(List::Node) == 12,
              "previous, next, element");
static_assert(sizeof(List) == 16, "head, tail, current, count");
#endif
static_assert(!std::is_copy_constructible_v<List> && !std::is_copy_assignable_v<List>,
              "the nodes have one owner");

std::vector<int*> elements_of(const List& list) {
    return std::vector<int*>(list.begin(), list.end());
}

class PZPListTest : public testing::Test {
protected:
    void FillWithThree() {
        for (int& number : numbers) list.AddTail(&number);
    }

    int numbers[3] = {1, 2, 3};
    List list;
};

}  // namespace

TEST_F(PZPListTest, IsEmptyAtFirst) {
    EXPECT_EQ(0U, list.GetCount());
    EXPECT_EQ(nullptr, list.GetHead());
    EXPECT_TRUE(list.begin() == list.end());
}

TEST_F(PZPListTest, AppendsAtTheTailAndCounts) {
    FillWithThree();
    EXPECT_EQ(3U, list.GetCount());
    EXPECT_EQ((std::vector<int*>{&numbers[0], &numbers[1], &numbers[2]}), elements_of(list));
}

TEST_F(PZPListTest, LinksEveryNodeWithItsNeighbours) {
    FillWithThree();
    const List::Node* const head = list.GetHead();
    ASSERT_NE(nullptr, head);
    EXPECT_EQ(nullptr, head->prev);
    EXPECT_EQ(head, head->next->prev);
    EXPECT_EQ(head->next, head->next->next->prev);
    EXPECT_EQ(nullptr, head->next->next->next);
}

TEST_F(PZPListTest, ErasesTheHead) {
    FillWithThree();
    list.Erase(list.GetHead());
    EXPECT_EQ((std::vector<int*>{&numbers[1], &numbers[2]}), elements_of(list));
    EXPECT_EQ(nullptr, list.GetHead()->prev);
    EXPECT_EQ(2U, list.GetCount());
}

TEST_F(PZPListTest, ErasesANodeBetweenOthers) {
    FillWithThree();
    list.Erase(list.GetHead()->next);
    EXPECT_EQ((std::vector<int*>{&numbers[0], &numbers[2]}), elements_of(list));
    EXPECT_EQ(list.GetHead(), list.GetHead()->next->prev);
}

TEST_F(PZPListTest, AppendsAfterTheNewTailWhenTheTailWasErased) {
    FillWithThree();
    list.Erase(list.GetHead()->next->next);
    list.AddTail(&numbers[0]);
    EXPECT_EQ((std::vector<int*>{&numbers[0], &numbers[1], &numbers[0]}), elements_of(list));
}

TEST_F(PZPListTest, CanBeFilledAgainAfterItsLastNodeWasErased) {
    list.AddTail(&numbers[0]);
    list.Erase(list.GetHead());
    EXPECT_EQ(nullptr, list.GetHead());
    EXPECT_EQ(0U, list.GetCount());
    FillWithThree();
    EXPECT_EQ(3U, elements_of(list).size());
}

TEST_F(PZPListTest, IgnoresANullNode) {
    FillWithThree();
    list.Erase(nullptr);
    EXPECT_EQ(3U, list.GetCount());
}

TEST_F(PZPListTest, KeepsNullElements) {
    list.AddTail(nullptr);
    EXPECT_EQ(std::vector<int*>{nullptr}, elements_of(list));
}

TEST_F(PZPListTest, NeverDeletesItsElements) {
    int* const number = new int(7);
    {
        List shortLived;
        shortLived.AddTail(number);
    }
    EXPECT_EQ(7, *number);
    delete number;
}

TEST_F(PZPListTest, WalksWithItsCursorToTheEnd) {
    EXPECT_EQ(nullptr, list.MoveFirst());
    EXPECT_EQ(nullptr, list.MoveNext());
    FillWithThree();
    EXPECT_EQ(nullptr, list.GetCurrent());
    std::vector<int*> seen;
    for (List::Node* node = list.MoveFirst(); node != nullptr; node = list.MoveNext()) {
        EXPECT_EQ(node, list.GetCurrent());
        seen.push_back(node->element);
    }
    EXPECT_EQ(elements_of(list), seen);
    EXPECT_EQ(nullptr, list.MoveNext());
}

TEST_F(PZPListTest, ErasingANodeLeavesTheIteratorsOfOthersValid) {
    FillWithThree();
    List::iterator last = list.begin();
    ++last;
    ++last;
    List::iterator first = list.begin();
    list.Erase(list.GetHead()->next);
    EXPECT_EQ(&numbers[2], *last);
    EXPECT_EQ(&numbers[0], *first);
    EXPECT_EQ(last, ++first);
    list.Erase(list.GetHead());
    EXPECT_EQ(&numbers[2], *last++);
    EXPECT_EQ(list.end(), last);
}

TEST_F(PZPListTest, MovesItsCursorOnWhenTheNodeThereIsErased) {
    FillWithThree();
    list.MoveFirst();
    list.Erase(list.GetHead()->next);
    EXPECT_EQ(&numbers[0], list.GetCurrent()->element);
    list.Erase(list.GetCurrent());
    ASSERT_NE(nullptr, list.GetCurrent());
    EXPECT_EQ(&numbers[2], list.GetCurrent()->element);
    list.Erase(list.GetCurrent());
    EXPECT_EQ(nullptr, list.GetCurrent());
}

TEST(PZPListOfManyTest, TakesTheNodesOfAnotherList) {
    PZPList<int> first;
    PZPList<int> second;
    int numbers[100] = {};
    for (int i = 0; i < 40; ++i) first.AddTail(&numbers[i]);
    {
        PZPList<int> gone;
        for (int i = 40; i < 100; ++i) gone.AddTail(&numbers[i]);
        gone.MoveFirst();
        {
            const pztest::MemoryShortage shortage;
            first.Take(gone);
            EXPECT_EQ(0, shortage.Refused());
        }
        EXPECT_EQ(0U, gone.GetCount());
        EXPECT_EQ(nullptr, gone.GetHead());
        EXPECT_EQ(nullptr, gone.GetCurrent());
        gone.AddTail(&numbers[0]);  // and is as good as new
        EXPECT_EQ(1U, gone.GetCount());
    }
    EXPECT_EQ(100U, first.GetCount());
    int next = 0;
    for (const int* number : first) EXPECT_EQ(&numbers[next++], number);
    EXPECT_EQ(100, next);

    second.Take(first);
    first.Take(second);
    first.Take(second);  // empty
    first.Take(first);
    EXPECT_EQ(100U, first.GetCount());
    EXPECT_EQ(&numbers[0], first.GetHead()->element);
}

namespace {

int allocated;  // objects, by allocators of any type

template <typename T>
struct CountingAllocator {
    using value_type = T;

    CountingAllocator() = default;
    template <typename U>
    explicit CountingAllocator(const CountingAllocator<U>& /*other*/) {}

    T* allocate(size_t count) {
        allocated += static_cast<int>(count);
        return std::allocator<T>().allocate(count);
    }
    void deallocate(T* memory, size_t count) {
        allocated -= static_cast<int>(count);
        std::allocator<T>().deallocate(memory, count);
    }
};

}  // namespace

TEST(PZPListOfManyTest, GivesItsMemoryBackInWhateverOrderNodesAreErased) {
    int element = 0;
    std::mt19937 random(1);
    for (int round = 0; round < 200; ++round) {
        allocated = 0;
        PZPList<int, CountingAllocator<int*>> list;
        std::vector<PZPListObj<int>*> nodes;
        for (int i = 0; i < 500; ++i) {
            if (!nodes.empty() && random() % 5 < 2) {
                const size_t which = random() % nodes.size();
                list.Erase(nodes[which]);
                nodes.erase(nodes.begin() + static_cast<ptrdiff_t>(which));
                continue;
            }
            list.AddTail(&element);
            PZPListObj<int>* last = list.GetHead();
            while (last->next != nullptr) last = last->next;
            nodes.push_back(last);
        }
        EXPECT_EQ(nodes.size(), list.GetCount());
        EXPECT_GT(allocated, 0);
        while (list.GetHead() != nullptr) list.Erase(list.GetHead());
        EXPECT_EQ(0, allocated);
    }
}

TEST(PZPListOfManyTest, StaysSmallWhileItIsUsedAsAQueue) {
    allocated = 0;
    PZPList<int, CountingAllocator<int*>> list;
    int element = 0;
    for (int i = 0; i < 10; ++i) list.AddTail(&element);
    for (int i = 0; i < 10000; ++i) {
        list.AddTail(&element);
        list.Erase(list.GetHead());
        ASSERT_LE(allocated, 60);
    }
}

TEST(PZAllocatorTest, HandsOutMemoryForAsManyObjectsAsAsked) {
    std::vector<int, PZAllocator<int>> numbers(1000, 7);
    EXPECT_EQ(7, numbers[999]);
    EXPECT_TRUE(PZAllocator<int>() == PZAllocator<int>(PZAllocator<char>()));
    EXPECT_FALSE(PZAllocator<int>() != PZAllocator<int>());
}
