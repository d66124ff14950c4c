#ifndef PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZSHORTLOOK_H
#define PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZSHORTLOOK_H

#include <sched.h>

#include <atomic>

#include <Framework/private/pz_time.h>

/// A loop's look for more work before it falls asleep: on several processors the next post is often
/// under way, and a sleep with its wake-up takes longer than to wait for it awake.
///
/// It takes 8 microseconds at most, by the monotonic clock. It is left out when the last noted post
/// did not come from another processor: on one, nobody could post meanwhile. Each look without
/// success doubles the number of sleeps until the next look, up to 64; a success makes it 0 again.
///
/// Threads: one loop looks; any thread notes its post. Of many that the loop has not fetched, the
///          first is enough.
class PZShortLook {
public:
    /// A post, whatever it finds.
    void NotePost() noexcept { poster_.store(::sched_getcpu(), std::memory_order_relaxed); }

    /// The loop, before it falls asleep: true when `hasWork` has become true.
    template <typename HasWork>
    bool operator()(HasWork hasWork) noexcept {
        if (!MayHelp()) return false;
        const timespec start = pz_monotonic_now();
        do {
            for (int i = 0; i < kTestsPerClock; ++i) {
                if (hasWork()) {
                    leftOut_ = 0;
                    return true;
                }
                Pause();
            }
        } while (NsSince(start) < kLimitNs);
        leftOut_ = leftOut_ < kMostLeftOut ? 2 * leftOut_ + 1 : kMostLeftOut;
        toLeaveOut_ = leftOut_;
        return false;
    }

private:
    static constexpr int kNobody = -1;
    static constexpr long kLimitNs = 8000;
    static constexpr int kTestsPerClock = 8;
    static constexpr unsigned int kMostLeftOut = 63;

    bool MayHelp() noexcept {
        if (toLeaveOut_ > 0) {
            --toLeaveOut_;
            return false;
        }
        const int poster = poster_.load(std::memory_order_relaxed);
        if (poster == kNobody) return false;
        poster_.store(kNobody, std::memory_order_relaxed);  // one post, one look
        return poster != ::sched_getcpu();
    }

    static long NsSince(const timespec& start) noexcept {
        const timespec now = pz_monotonic_now();
        return (now.tv_sec - start.tv_sec) * long{kNsPerSecond} + (now.tv_nsec - start.tv_nsec);
    }

    /// Leaves the processor's resources to others for some cycles.
    static void Pause() noexcept {
#if defined(__i386__) || defined(__x86_64__)
        __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
        __asm__ volatile("yield");
#endif
    }

    std::atomic<int> poster_{kNobody};  // processor of the last post since the last look
    unsigned int leftOut_ = 0;          // sleeps without a look after the last look
    unsigned int toLeaveOut_ = 0;       // of these, those to come
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZSHORTLOOK_H
