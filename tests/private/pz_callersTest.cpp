#include <alloca.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/private/pz_callers.h>

#include "support/ChildProcess.h"

namespace {

#if defined(__x86_64__) && defined(__LP64__) && !defined(__SANITIZE_ADDRESS__) && \
    !defined(__SANITIZE_THREAD__)
constexpr bool kIsOffered = true;
#else
constexpr bool kIsOffered = false;
#endif

constexpr int kMaxFrames = 200;

/// How often the walk was compared, and how often it gave up.
std::atomic<int> comparisons{0};
std::atomic<int> refusals{0};

/// Compares with backtrace() from here, for one number of frames. Both calls are in one frame: only
/// the first addresses differ.
[[gnu::noinline]] void compare(int size) {
    void* expected[kMaxFrames];
    void* actual[kMaxFrames];
    std::fill(std::begin(actual), std::end(actual), &comparisons);
    errno = 4711;
    const int count = pz_take_callers(actual, size);
    EXPECT_EQ(4711, errno);
    const int wanted = backtrace(expected, size);
    ++comparisons;
    if (count == -1) {
        ++refusals;
        return;
    }
    ASSERT_EQ(wanted, count) << "of " << size;
    for (int i = 1; i < count; ++i) ASSERT_EQ(expected[i], actual[i]) << i << " of " << size;
    if (size < kMaxFrames) {
        EXPECT_EQ(static_cast<void*>(&comparisons), actual[size]);
    }
}

void compare_all() {
    for (const int size : {1, 2, 3, 12, 13, 50, kMaxFrames}) compare(size);
}

/// Keeps a call from becoming a jump.
void stay() {
    __asm__ volatile("" ::: "memory");
}

using Body = std::function<void()>;

[[gnu::noinline]] void call_plainly(const Body& body) {
    body();
    stay();
}

[[gnu::noinline]] void call_deeply(int depth, const Body& body) {
    if (depth > 0) {
        call_deeply(depth - 1, body);
    } else {
        body();
    }
    stay();
}

/// A frame whose size is known at run time only.
[[gnu::noinline]] void call_with_alloca(size_t size, const Body& body) {
    auto* const memory = static_cast<char*>(alloca(size));
    std::memset(memory, 1, size);
    body();
    __asm__ volatile("" ::"r"(memory) : "memory");
}

/// A frame too large for what is kept.
[[gnu::noinline]] void call_with_large_frame(const Body& body) {
    char memory[100000];
    memory[0] = 1;
    __asm__ volatile("" ::"r"(memory) : "memory");
    body();
    __asm__ volatile("" ::"r"(memory) : "memory");
}

[[gnu::noinline]] void call_aligned(const Body& body) {
    alignas(128) char memory[256];
    __asm__ volatile("" ::"r"(memory) : "memory");
    body();
    __asm__ volatile("" ::"r"(memory) : "memory");
}

/// Many registers to save, rbp among them.
[[gnu::noinline]] long call_with_many_values(long seed, const Body& body) {
    long a = seed + 1, b = seed * 3, c = seed ^ 5, d = seed - 7, e = seed * 11, f = seed + 13;
    for (int i = 0; i < 3; ++i) {
        __asm__ volatile("" : "+r"(a), "+r"(b), "+r"(c), "+r"(d), "+r"(e), "+r"(f));
        body();
        a += b, b += c, c += d, d += e, e += f, f += a;
    }
    return a + b + c + d + e + f;
}

#ifdef __GNUC__
#ifndef __clang__
[[gnu::noinline, gnu::optimize("no-omit-frame-pointer")]]
#endif
#endif
void call_with_frame_pointer(const Body& body) {
    body();
    stay();
}

[[gnu::noinline]] void call_and_catch(const Body& body) {
    try {
        body();
        throw 1;
    } catch (int) {
        body();
    }
    stay();
}

thread_local const Body* foreignBody = nullptr;

int compare_elements(const void* left, const void* right) {
    (*foreignBody)();
    return *static_cast<const int*>(left) - *static_cast<const int*>(right);
}

/// Through the C library.
void call_in_qsort(const Body& body) {
    const Body* const outer = foreignBody;
    foreignBody = &body;
    int numbers[] = {3, 1, 2};
    std::qsort(numbers, 3, sizeof numbers[0], &compare_elements);
    foreignBody = outer;
}

const std::map<std::string, std::function<void(const Body&)>> kCalls = {
    {"plain", call_plainly},
    {"deep", [](const Body& body) { call_deeply(40, body); }},
    {"deeper than asked for", [](const Body& body) { call_deeply(300, body); }},
    {"alloca", [](const Body& body) { call_with_alloca(1234, body); }},
    {"many values", [](const Body& body) { call_with_many_values(7, body); }},
    {"frame pointer", call_with_frame_pointer},
    {"catching", call_and_catch},
    {"qsort", call_in_qsort},
    {"large frame", call_with_large_frame},
    {"aligned", call_aligned},
};

class pz_callersTest : public testing::Test {
protected:
    void SetUp() override {
        comparisons = 0;
        refusals = 0;
    }
};

}  // namespace

TEST_F(pz_callersTest, AreThoseOfBacktraceForEveryKindOfFrame) {
    for (const auto& [name, call] : kCalls) {
        SCOPED_TRACE(name);
        comparisons = 0;
        refusals = 0;
        for (int round = 0; round < 3; ++round) call(compare_all);
        EXPECT_LE(21, comparisons);
        const bool mayGiveUp = name == "large frame" || name == "aligned";
        if (!kIsOffered) {
            EXPECT_EQ(comparisons, refusals);
        } else if (!mayGiveUp) {
            EXPECT_EQ(0, refusals);
        }
    }
}

TEST_F(pz_callersTest, AreThoseOfBacktraceForKindsOfFramesWithinEachOther) {
    for (const auto& [outerName, outer] : kCalls) {
        for (const auto& [innerName, inner] : kCalls) {
            SCOPED_TRACE(outerName + ", " + innerName);
            const auto& call = inner;
            outer([&call] { call(compare_all); });
        }
    }
    EXPECT_LE(700, comparisons);
}

TEST_F(pz_callersTest, AreThoseOfBacktraceOnTheShallowStackOfAThread) {
    const auto body = [](void*) -> void* {
        compare_all();
        return nullptr;
    };
    for (int i = 0; i < 3; ++i) {
        pthread_t thread = {};
        ASSERT_EQ(0, pthread_create(&thread, nullptr, body, nullptr));
        pthread_join(thread, nullptr);
    }
    EXPECT_EQ(21, comparisons);
    EXPECT_EQ(kIsOffered ? 0 : 21, refusals);
}

TEST_F(pz_callersTest, AreThoseOfBacktraceOnManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([i] {
            for (int round = 0; round < 100; ++round) {
                call_deeply(i, [] { call_with_many_values(3, compare_all); });
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(8 * 100 * 3 * 7, comparisons);
    EXPECT_EQ(kIsOffered ? 0 : 8 * 100 * 3 * 7, refusals);
}

TEST_F(pz_callersTest, AreThoseOfBacktraceInASignalHandlerAsFarAsThatIsSeen) {
    compare_all();  // the C library loads what unwinds stacks: not first in a handler
    comparisons = 0;
    refusals = 0;
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) { compare_all(); };
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, &before));
    call_deeply(5, [] { EXPECT_EQ(0, raise(SIGUSR1)); });
    ASSERT_EQ(0, sigaction(SIGUSR1, &before, nullptr));
    EXPECT_EQ(7, comparisons);
    // One and two frames end before the handler's own caller, the kernel.
    EXPECT_LE(4, refusals);
}

TEST_F(pz_callersTest, AreThoseOfBacktraceInCodeThatIsLoadedAndUnloaded) {
    using Call = void (*)(void (*)());
    for (int round = 0; round < 6; ++round) {
        const char* const path = round % 2 == 0 ? PZ_SMALL_FRAME_MODULE : PZ_LARGE_FRAME_MODULE;
        void* const module = dlopen(path, RTLD_NOW);
        ASSERT_NE(nullptr, module) << dlerror();
        const auto call = reinterpret_cast<Call>(dlsym(module, "call_from_module"));
        ASSERT_NE(nullptr, call);
        call(compare_all);
        call(compare_all);
        ASSERT_EQ(0, dlclose(module));
    }
    EXPECT_EQ(6 * 2 * 7, comparisons);
    EXPECT_EQ(kIsOffered ? 0 : 6 * 2 * 7, refusals);
}

TEST_F(pz_callersTest, AreLeftToBacktraceInAForkedChild) {
    pztest::ChildProcess child([] {
        void* addresses[4];
        return pz_take_callers(addresses, 4) == -1 ? 0 : 1;
    });
    EXPECT_EQ(0, child.Wait());
}
