// The list of pointers: in the order of adding; the elements stay with their owner.
#include <cstdio>

#include <Framework/Utility/PZPList.h>

namespace {

void print(const PZPList<int>& list) {
    std::printf("%u:", list.GetCount());
    for (const int* value : list) std::printf(" %d", *value);
    std::printf("\n");
}

}  // namespace

int main() {
    int values[] = {4, 7, 1, 8, 3};
    PZPList<int> list;
    for (int& value : values) list.AddTail(&value);
    print(list);

    // The list's own cursor moves on when its node is erased.
    for (PZPList<int>::Node* node = list.MoveFirst(); node != nullptr; node = list.GetCurrent()) {
        if (*node->element % 2 == 0) {
            list.Erase(node);
        } else {
            list.MoveNext();
        }
    }
    print(list);
    std::printf("the first value itself: %d\n", values[0]);
}
