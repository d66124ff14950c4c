#ifndef PZ_BENCHMARKS_SUPPORT_RAWEVENT_H
#define PZ_BENCHMARKS_SUPPORT_RAWEVENT_H

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace pzbench {

/// The system calls under an event, and nothing else: a pipe, and one epoll instance per wait.
class RawEvent {
public:
    RawEvent() {
        if (pipe(fds_) != 0) std::abort();
        fcntl(fds_[1], F_SETFL, O_NONBLOCK);
    }
    ~RawEvent() {
        close(fds_[0]);
        close(fds_[1]);
    }
    RawEvent(const RawEvent&) = delete;
    RawEvent& operator=(const RawEvent&) = delete;

    void Set() const {
        const char one = 1;
        if (write(fds_[1], &one, 1) != 1) std::abort();
    }

    /// The same, but a full pipe is left alone.
    void TrySet() const {
        const char one = 1;
        if (write(fds_[1], &one, 1) != 1 && errno != EAGAIN) std::abort();
    }

    /// Waits until one of `count` events is set and takes its signal.
    static void WaitAny(const RawEvent* const* events, unsigned int count) {
        const int epfd = epoll_create(static_cast<int>(count));
        for (unsigned int i = 0; i < count; ++i) {
            epoll_event interest = {};
            interest.events = EPOLLIN;
            interest.data.fd = events[i]->fds_[0];
            epoll_ctl(epfd, EPOLL_CTL_ADD, interest.data.fd, &interest);
        }
        epoll_event ready[2] = {};
        if (epoll_wait(epfd, ready, static_cast<int>(count), -1) < 1) std::abort();
        char byte = 0;
        if (read(ready[0].data.fd, &byte, 1) != 1) std::abort();
        close(epfd);
    }

    void Wait() const {
        const RawEvent* self = this;
        WaitAny(&self, 1);
    }

private:
    int fds_[2] = {-1, -1};
};

}  // namespace pzbench

#endif  // PZ_BENCHMARKS_SUPPORT_RAWEVENT_H
