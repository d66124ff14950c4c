#include <sys/mman.h>
#include <sys/time.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include <Framework/private/pz_interrupted_stack.h>

#include "support/InstructionAt.h"

// Of 32-bit machines.

namespace {

constexpr int kFrames = 34;
constexpr int kSamples = 300;

#ifdef __i386__
void set_stack(ucontext_t& context, uintptr_t stack) {
    context.uc_mcontext.gregs[REG_ESP] = static_cast<greg_t>(stack);
}
void set_frame(ucontext_t& context, uintptr_t frame) {
    context.uc_mcontext.gregs[REG_EBP] = static_cast<greg_t>(frame);
}
#else
void set_stack(ucontext_t& context, uintptr_t stack) {
    context.uc_mcontext.arm_sp = stack;
}
void set_frame(ucontext_t& context, uintptr_t frame) {
    context.uc_mcontext.arm_r7 = frame;
    context.uc_mcontext.arm_fp = frame;
    context.uc_mcontext.arm_lr = frame;
}
#endif

std::atomic<const void*> caller{nullptr};  // of the work that runs; null when none does
std::atomic<int> samples{0};
std::atomic<int> complete{0};  // those that tell the caller

void ring_again() {
    const itimerval soon = {{0, 0}, {0, 200 + samples % 97}};
    setitimer(ITIMER_REAL, &soon, nullptr);
}

void take_sample(int /*signal*/, siginfo_t* /*info*/, void* context) {
    const int error = errno;
    const void* const wanted = caller;
    if (wanted != nullptr) {
        void* addresses[kFrames];
        const int count = pz_take_interrupted_stack(context, addresses, kFrames);
        const bool isTold = std::find(addresses, addresses + count, wanted) != addresses + count;
        complete += isTold ? 1 : 0;
        ++samples;
    }
    if (samples < kSamples) ring_again();
    errno = error;
}

int compare(const void* left, const void* right) {
    return *static_cast<const int*>(left) - *static_cast<const int*>(right);
}

/// Much of it is written by hand, or has its beginning and its end close to each other.
[[gnu::noinline]] void use_the_library() {
    caller = pztest::instruction_at(__builtin_return_address(0));
    static char from[4096];
    static char to[sizeof from];
    for (size_t i = 0; samples < kSamples; ++i) {
        std::free(std::malloc(1 + i % 5000));
        std::memcpy(to + i % 7, from + i % 5, i % 4000);
        std::memmove(to, to + 3, i % 100);
        int numbers[9] = {3, 2, 9, 4, 8, 1, 6, 5, 7};
        std::qsort(numbers, 9, sizeof *numbers, &compare);
        std::strtol("123", nullptr, 10);
    }
    caller = nullptr;
}

[[gnu::noinline]] int add(int left, int right) {
    return left + right;
}
[[gnu::noinline]] int add_up(int count) {
    int sum = 0;
    for (int i = 0; i < count; ++i) sum = add(sum, i);
    return sum;
}
[[gnu::noinline]] int use_own_functions() {
    caller = pztest::instruction_at(__builtin_return_address(0));
    int sum = 0;
    while (samples < kSamples) sum = add(sum, add_up(5));
    caller = nullptr;
    return sum;
}

class pz_interrupted_stackTest : public testing::Test {
protected:
    void SetUp() override {
        samples = 0;
        complete = 0;
        struct sigaction action = {};
        action.sa_sigaction = &take_sample;
        action.sa_flags = SA_SIGINFO | SA_RESTART;
        sigaction(SIGALRM, &action, &before_);
        getcontext(&context_);
    }
    void TearDown() override { sigaction(SIGALRM, &before_, nullptr); }

    int Take() { return pz_take_interrupted_stack(&context_, addresses_, kFrames); }

    struct sigaction before_ = {};
    ucontext_t context_ = {};
    void* addresses_[kFrames] = {};
};

}  // namespace

TEST_F(pz_interrupted_stackTest, TellsTheCallersWhereverOwnCodeIsInterrupted) {
    ring_again();
    use_own_functions();
    EXPECT_EQ(kSamples, samples);
    EXPECT_EQ(kSamples, complete);
}

TEST_F(pz_interrupted_stackTest, TellsTheCallersOfTheCLibrary) {
    ring_again();
    use_the_library();
    EXPECT_EQ(kSamples, samples);
#ifdef __arm__  // few functions of the C library have unwind tables there
    EXPECT_GT(complete, kSamples / 2);
#else
    EXPECT_EQ(kSamples, complete);
#endif
}

TEST_F(pz_interrupted_stackTest, TellsWhereTheThreadStandsWhenItsStackCannotBeRead) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* const closed = mmap(nullptr, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, closed);
    for (const uintptr_t wrong : {uintptr_t{0}, uintptr_t{4}, reinterpret_cast<uintptr_t>(closed),
                                  ~uintptr_t{0}, ~uintptr_t{0} - 3}) {
        set_stack(context_, wrong);
        set_frame(context_, wrong);
        EXPECT_EQ(1, Take()) << wrong;
        EXPECT_NE(nullptr, addresses_[0]);
    }
    munmap(closed, page);
}

TEST_F(pz_interrupted_stackTest, TellsNoMoreThanIsAskedFor) {
    EXPECT_EQ(1, pz_take_interrupted_stack(&context_, addresses_, 1));
    EXPECT_NE(nullptr, addresses_[0]);
    EXPECT_EQ(nullptr, addresses_[1]);
}
