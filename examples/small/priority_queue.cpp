// The priority queue: the lowest value first, equal values in the order of their coming.
#include <cstdio>

#include <Framework/Foundation/PZPriorityQueue.h>

namespace {

struct Task {
    const char* name;
};

}  // namespace

int main() {
    PZPriorityQueue<Task> tasks(16);  // the limit is for its user to keep
    tasks.push({{"write the log"}, 200});
    tasks.push({{"draw"}, 100});
    tasks.push({{"draw again"}, 100});
    tasks.push({{"switch off"}, 0});

    std::printf("%u of %u\n", tasks.size(), tasks.capacity());
    for (; !tasks.empty(); tasks.pop()) {
        std::printf("%3u %s\n", tasks.top().priority, tasks.top().name);
    }
}
