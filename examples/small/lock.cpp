// The lock: recursive, taken for a scope or with a time limit.
//
// Two threads count together. Nobody else gets in while a scope holds the lock.
#include <cstdio>
#include <thread>

#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZSyncLock.h>

namespace {

class Counter {
public:
    /// The inner locks find that this thread holds it already.
    void Add(int count) {
        const PZSyncLock lock(sync_);
        if (count > 1) Add(count - 1);
        ++value_;
    }

    int Value() {
        const PZSyncLock lock(sync_);
        return value_;
    }

    /// What Lock answers. Clang's analysis does not follow a lock that is taken only sometimes.
    unsigned int TryFor(unsigned int timeoutMs) PZ_NO_THREAD_SAFETY_ANALYSIS {
        const unsigned int answer = sync_.Lock(timeoutMs);
        if (answer == 0) sync_.Unlock();
        return answer;
    }

    /// What another thread is answered while this one holds the lock.
    unsigned int AnswerToOthers() {
        const PZSyncLock lock(sync_);
        unsigned int answer = 0;
        std::thread([&] { answer = TryFor(20); }).join();
        return answer;
    }

private:
    PZSync sync_;
    int value_ PZ_GUARDED_BY(sync_) = 0;
};

}  // namespace

int main() {
    Counter counter;
    std::thread other([&counter] {
        for (int i = 0; i < 1000; ++i) counter.Add(2);
    });
    for (int i = 0; i < 1000; ++i) counter.Add(2);
    other.join();
    std::printf("counted: %d\n", counter.Value());
    std::printf("others, after 20 ms: %s\n", counter.AnswerToOthers() == 1 ? "timed out" : "in");
    std::printf("free again: %s\n", counter.TryFor(0) == 0 ? "in" : "refused");
}
