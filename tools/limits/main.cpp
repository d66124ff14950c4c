// Measures how much of a device the framework needs, and where its limits are. Prints one line for
// each quantity: what it is, a tab, and the value. scripts/limits makes the table of
// docs/limits.md of them.
//
//   pz_limits           everything
//   pz_limits --exact   only what is the same on every machine of the kind, and takes no time

#include <dirent.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <Framework/Communication/PZMessageQueue.h>
#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZLHeapMng.h>
#include <Framework/Foundation/PZWorker.h>
#include <Framework/Foundation/pz_framework.h>

namespace {

constexpr int kTimerThreads = 5;

std::FILE* results = nullptr;  // the standard output; that of the framework's reports is /dev/null

void print(const char* quantity, long value) {
    std::fprintf(results, "%s\t%ld\n", quantity, value);
}

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "pz_limits: %s\n", what);
    std::_Exit(1);
}

/// Descriptors that are open, and those of them that timer threads or callers wait by.
struct ST_DESCRIPTORS {
    int all;
    int waits;
    int sockets;
};

ST_DESCRIPTORS descriptors() {
    ST_DESCRIPTORS count = {0, 0, 0};
    DIR* const folder = opendir("/proc/self/fd");
    if (folder == nullptr) fail("no /proc");
    while (const dirent* const entry = readdir(folder)) {
        char target[64] = {};
        const ssize_t length = readlinkat(dirfd(folder), static_cast<const char*>(entry->d_name),
                                          static_cast<char*>(target), sizeof target - 1);
        if (length <= 0) continue;  // "." and ".."
        const std::string kind(static_cast<const char*>(target));
        ++count.all;
        count.waits += kind == "anon_inode:[eventpoll]" ? 1 : 0;
        count.sockets += kind.compare(0, 7, "socket:") == 0 ? 1 : 0;
    }
    closedir(folder);
    --count.all;  // of the folder itself
    return count;
}

/// Returns when that many such waits are going on.
void wait_for_waits(int count) {
    constexpr std::chrono::milliseconds kNap(1);
    constexpr int kNaps = 60000;
    for (int nap = 0; descriptors().waits != count; ++nap) {
        if (nap == kNaps) fail("threads do not come to rest");
        std::this_thread::sleep_for(kNap);
    }
}

void start_framework() {
    if (pz_FwInitialize("limits", 1) == 0) fail("the framework does not start");
    wait_for_waits(kTimerThreads);
}

/// Runs a measurement in a process of its own: nothing of it is left for the next one.
void in_child(void (*measure)()) {
    std::fflush(results);
    const pid_t child = fork();
    if (child == 0) {
        measure();
        std::fflush(results);
        _exit(0);
    }
    int status = -1;
    if (waitpid(child, &status, 0) != child || status != 0) fail("a measurement has failed");
}

// The connection to the system log exists only where a log daemon runs.
void count_descriptors() {
    const int before = descriptors().all;
    {
        const PZEvent event;
        print("descriptors of a PZEvent", descriptors().all - before);
    }
    start_framework();
    const ST_DESCRIPTORS started = descriptors();
    print("descriptors of a started process beside its own (and 1 with a log daemon)",
          started.all - before - started.sockets);
    PZWorker worker(1, 4000, 1);
    print("descriptors of a worker before Start", descriptors().all - started.all);
    if (worker.Start("worker") != 0) fail("a worker does not start");
    wait_for_waits(kTimerThreads);
    print("descriptors of a worker that waits", descriptors().all - started.all);
    worker.End(0);
    pz_FwFinalize();
}

void count_signals() {
    PZEvent event;
    int signals = 0;
    while (event.SetEvent() == 1) ++signals;  // the one too many is reported
    print("signals that an event holds", signals);
}

/// The block as its header and trailer show it in memory.
void measure_block() {
    constexpr unsigned int kSize = 100;
    constexpr unsigned char kGuard[8] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    auto* const data = static_cast<unsigned char*>(Malloc(kSize));
    if (data == nullptr) fail("no memory");
    const unsigned char* begin = data - sizeof kGuard;
    while (std::memcmp(begin, kGuard, sizeof kGuard) != 0) begin -= sizeof kGuard;
    const auto front = static_cast<long>(data - begin);
    const long behind = std::memcmp(data + kSize, kGuard, sizeof kGuard) == 0 ? 8 : 0;
    print("bytes that a block of the accounted heap costs beside its own", front + behind);
    Free(data);
}

/// Starts workers while there are descriptors for one more and for the wait for its start.
void count_workers() {
    constexpr int kNeeded = 3 + 1;
    const rlimit limit = {1024, 1024};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) fail("RLIMIT_NOFILE cannot be set");
    start_framework();
    std::vector<std::unique_ptr<PZWorker>> workers;
    while (descriptors().all + kNeeded <= 1024) {
        workers.push_back(std::make_unique<PZWorker>(1, 4000, 1));
        if (workers.back()->Start("worker") != 0) fail("a worker does not start");
        wait_for_waits(kTimerThreads);
    }
    print("workers of a process with 1,024 descriptors, 4 of them its own",
          static_cast<long>(workers.size()));
    for (const auto& worker : workers) worker->End(0);
    pz_FwFinalize();
}

/// Opens queues until the system refuses one. The limit counts the queues of all processes of the
/// user together: there must be no other.
void count_queues() {
    constexpr rlim_t kDefaultBytes = 819200;
    const rlimit limit = {kDefaultBytes, kDefaultBytes};
    if (setrlimit(RLIMIT_MSGQUEUE, &limit) != 0) fail("RLIMIT_MSGQUEUE cannot be set");
    std::vector<std::unique_ptr<PZMsgQ::PZMessageQueue<2>>> queues;
    for (;;) {
        auto queue = std::make_unique<PZMsgQ::PZMessageQueue<2>>();
        const std::string name =
            "pz_limits" + std::to_string(getpid()) + "_" + std::to_string(queues.size());
        if (!queue->open({name.c_str(), 64})) break;  // reported
        queues.push_back(std::move(queue));
    }
    for (const auto& queue : queues) queue->close(true);
    print("queues of a user at the default limit of 819,200 bytes",
          static_cast<long>(queues.size()));
}

/// A line of /proc/self/smaps_rollup that begins so, in KiB, summed up.
long rollup_kib(const std::string& prefix) {
    std::ifstream rollup("/proc/self/smaps_rollup");
    long total = 0;
    for (std::string line; std::getline(rollup, line);) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            total += std::strtol(line.c_str() + line.find(':') + 1, nullptr, 10);
        }
    }
    return total;
}

using Clock = std::chrono::steady_clock;

long microseconds(Clock::time_point from, Clock::time_point to) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::microseconds>(to - from).count());
}

/// One start and stop of a process.
struct ST_RUN {
    long startUs;
    long stopUs;
    long addedKib;     // private memory that the start adds
    long residentKib;  // after the start, shared pages included
};

ST_RUN* run_of_child = nullptr;  // in memory that is shared with the children

void measure_one_process() {
    descriptors();  // the buffers of the measuring itself do not count
    rollup_kib("Rss");
    const long before = rollup_kib("Private_");
    const auto begin = Clock::now();
    if (pz_FwInitialize("limits", 1) == 0) fail("the framework does not start");
    const auto started = Clock::now();
    wait_for_waits(kTimerThreads);
    run_of_child->addedKib = rollup_kib("Private_") - before;
    run_of_child->residentKib = rollup_kib("Rss");
    const auto stopping = Clock::now();
    pz_FwFinalize();
    run_of_child->startUs = microseconds(begin, started);
    run_of_child->stopUs = microseconds(stopping, Clock::now());
}

long median(std::vector<long> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void measure_processes() {
    constexpr int kProcesses = 101;
    void* const memory =
        mmap(nullptr, sizeof(ST_RUN), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) fail("no memory");
    run_of_child = static_cast<ST_RUN*>(memory);
    std::vector<long> added;
    std::vector<long> resident;
    std::vector<long> starts;
    std::vector<long> stops;
    for (int i = 0; i < kProcesses; ++i) {
        in_child(&measure_one_process);
        added.push_back(run_of_child->addedKib);
        resident.push_back(run_of_child->residentKib);
        starts.push_back(run_of_child->startUs);
        stops.push_back(run_of_child->stopUs);
    }
    munmap(memory, sizeof(ST_RUN));
    print("private memory that the start adds, KiB, median of 101 processes", median(added));
    print("resident memory after the start, shared pages included, KiB, median of 101 processes",
          median(resident));
    // Other programs can only make it slower: the fastest process counts.
    print("start, microseconds, fastest of 101 processes",
          *std::min_element(starts.begin(), starts.end()));
    print("stop, microseconds, fastest of 101 processes",
          *std::min_element(stops.begin(), stops.end()));
}

}  // namespace

int main(int argc, char** argv) {
    const bool isExact = argc == 2 && std::strcmp(argv[1], "--exact") == 0;
    if (argc > 1 && !isExact) {
        const bool isHelp = std::strcmp(argv[1], "--help") == 0;
        std::fputs("usage: pz_limits [--exact]\n", isHelp ? stdout : stderr);
        return isHelp ? 0 : 2;
    }
    close_range(3, ~0U, 0);  // what the process was started with does not count
    results = fdopen(dup(STDOUT_FILENO), "w");
    if (results == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) fail("no output");

    in_child(&count_descriptors);
    in_child(&count_signals);
    in_child(&measure_block);
    if (isExact) return 0;
    in_child(&count_workers);
    in_child(&count_queues);
    measure_processes();
}
