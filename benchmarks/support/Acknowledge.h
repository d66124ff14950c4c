#ifndef PZ_BENCHMARKS_SUPPORT_ACKNOWLEDGE_H
#define PZ_BENCHMARKS_SUPPORT_ACKNOWLEDGE_H

#include <semaphore.h>

#include <atomic>

namespace pzbench {

/// Lets the poster sleep until a number of messages has been handled.
///
/// Threads: one poster calls Expect and Wait; any thread calls Handled.
class Acknowledge {
public:
    Acknowledge() { sem_init(&sem_, 0, 0); }
    ~Acknowledge() { sem_destroy(&sem_); }
    Acknowledge(const Acknowledge&) = delete;
    Acknowledge& operator=(const Acknowledge&) = delete;

    void Expect(unsigned int messages) { left_ = messages; }
    void Handled() {
        if (--left_ == 0) sem_post(&sem_);
    }
    void Wait() {
        while (sem_wait(&sem_) != 0) {
        }
    }

private:
    std::atomic<unsigned int> left_{0};
    sem_t sem_ = {};
};

}  // namespace pzbench

#endif  // PZ_BENCHMARKS_SUPPORT_ACKNOWLEDGE_H
