#ifndef PZ_TESTS_SUPPORT_CANCELLEDTHREAD_H
#define PZ_TESTS_SUPPORT_CANCELLEDTHREAD_H

#include <pthread.h>

#include <cstdlib>
#include <functional>
#include <utility>

namespace pztest {

/// Runs `body` on a thread of its own that has been cancelled before; the thread ends at the first
/// cancellation point that is reached after it. False when that happens inside it, or never.
inline bool ends_whole_when_cancelled(std::function<void()> body) {
    struct Run {
        std::function<void()> body;
        bool isWhole = false;
    } run = {std::move(body)};
    const auto main = +[](void* argument) -> void* {
        auto* const mine = static_cast<Run*>(argument);
        pthread_cancel(pthread_self());
        mine->body();
        mine->isWhole = true;
        pthread_testcancel();
        return nullptr;
    };
    pthread_t thread = {};
    void* result = nullptr;
    if (pthread_create(&thread, nullptr, main, &run) != 0) std::abort();
    if (pthread_join(thread, &result) != 0) std::abort();
    return run.isWhole && result == PTHREAD_CANCELED;
}

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_CANCELLEDTHREAD_H
