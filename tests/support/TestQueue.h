#ifndef PZ_TESTS_SUPPORT_TESTQUEUE_H
#define PZ_TESTS_SUPPORT_TESTQUEUE_H

#include <fcntl.h>
#include <mqueue.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>

#include "support/Uncopyable.h"

namespace pztest {

/// A queue name that no other test process uses; the queue is removed with it, even another's.
class QueueName : private Uncopyable {
public:
    /// Filled up to `length` characters.
    explicit QueueName(size_t length = 0) : name_(Unique()) {
        if (name_.size() < length) name_.resize(length, 'n');
        Unlink();
    }
    ~QueueName() { Unlink(); }

    /// As the framework takes it.
    const char* Get() const { return name_.c_str(); }
    const std::string& Text() const { return name_; }

    /// As the system knows it.
    std::string System() const { return "/" + name_; }

    bool Exists() const {
        const mqd_t queue = mq_open(System().c_str(), O_RDONLY);
        if (queue == -1) return false;
        mq_close(queue);
        return true;
    }

    void Unlink() const { mq_unlink(System().c_str()); }

private:
    static std::string Unique() {
        static std::atomic<int> made{0};
        return "pzt" + std::to_string(getpid()) + "_" + std::to_string(++made);
    }

    std::string name_;
};

/// The other end of a queue, that knows nothing of the framework. Never waits.
class RawQueue : private Uncopyable {
public:
    /// Opens a queue that exists.
    explicit RawQueue(const QueueName& name)
        : handle_(mq_open(name.System().c_str(), O_RDWR | O_NONBLOCK)) {}

    /// Creates one.
    RawQueue(const QueueName& name, long maxMsg, long msgSize) : handle_(-1) {
        mq_attr attr = {};
        attr.mq_maxmsg = maxMsg;
        attr.mq_msgsize = msgSize;
        handle_ =
            mq_open(name.System().c_str(), O_RDWR | O_CREAT | O_EXCL | O_NONBLOCK, 0600, &attr);
    }

    ~RawQueue() {
        if (handle_ != -1) mq_close(handle_);
    }

    bool IsOpen() const { return handle_ != -1; }
    int Handle() const { return handle_; }

    mq_attr Attributes() const {
        mq_attr attr = {};
        attr.mq_maxmsg = attr.mq_msgsize = attr.mq_curmsgs = -1;
        mq_getattr(handle_, &attr);
        return attr;
    }

    long Count() const { return Attributes().mq_curmsgs; }

    /// 0, or errno.
    int Send(const std::string& bytes, unsigned int priority) const {
        return mq_send(handle_, bytes.data(), bytes.size(), priority) == 0 ? 0 : errno;
    }

    /// Sends until the queue is full.
    void Fill(const std::string& bytes, unsigned int priority) const {
        while (Send(bytes, priority) == 0) {
        }
    }

    struct Message {
        std::string bytes;
        unsigned int priority;
    };

    /// The most urgent message; "(none)" when there is none.
    Message Receive() const {
        std::string bytes(static_cast<size_t>(Attributes().mq_msgsize), '\xAA');
        unsigned int priority = 0xFFFFFFFFU;
        const ssize_t length = mq_receive(handle_, &bytes[0], bytes.size(), &priority);
        if (length == -1) return {"(none)", priority};
        bytes.resize(static_cast<size_t>(length));
        return {bytes, priority};
    }

private:
    mqd_t handle_;
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_TESTQUEUE_H
