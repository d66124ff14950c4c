// What heapviewTest shows: five blocks of one place, one of another, one of a second thread, and
// one that is written past its end. With an argument, the heap's maps are written to that file.

#include <pthread.h>

#include <thread>

#include <Framework/Foundation/PZLHeapMng.h>
#include <Framework/Foundation/pz_framework.h>

namespace {

// Each in a frame of its own.
[[gnu::noinline]] void* make_station() {
    void* const block = Malloc(100);
    asm volatile("" ::: "memory");  // no tail call
    return block;
}

[[gnu::noinline]] void load_list() {
    for (int i = 0; i < 5; ++i) make_station();
    asm volatile("" ::: "memory");
}

[[gnu::noinline]] void allocate_on_a_thread() {
    pthread_setname_np(pthread_self(), "tuner");
    Malloc(1000);
    asm volatile("" ::: "memory");
}

}  // namespace

int main(int argc, char** argv) {
    if (pz_FwInitialize("pz_heapview_test", 1) == 0) return 1;
    load_list();
    make_station();
    std::thread(allocate_on_a_thread).join();
    static_cast<char*>(Malloc(8))[8] = 'x';
    if (argc > 1 && !pz_HeapWriteMaps(argv[1])) return 2;
    pz_FwFinalize();
    return 0;
}
