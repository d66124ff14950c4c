#include "Framework/Communication/PZMessageQueue.h"

#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <type_traits>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Diagnostics/pz_last_error.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/Foundation/private/PZWatchedWait.h>
#include <Framework/Foundation/private/pz_lock_memory.h>
#include <Framework/Wrapper/pz_stdlib.h>
#include <Framework/private/pz_descriptor.h>
#include <Framework/private/pz_probes.h>
#include <Framework/private/pz_time.h>
#include <Framework/private/pz_uncancelled.h>

#include "../../Diagnostics/private/PZInspection.h"

namespace PZMsgQ {
namespace {

// Results.
constexpr int kError = -1;
constexpr int kFull = -2;
constexpr int kInvalid = -3;

constexpr unsigned int kMaxPayload = 1024;
constexpr unsigned int kTrailer = 3;  // zero bytes after the payload
constexpr mode_t kQueueMode = 0666;
constexpr unsigned int kMostUrgent = 255;  // of the system; the caller's priority 0
constexpr int kCapacity = 64;              // of the queues of <0> and <1>
constexpr unsigned int kWatchTimeMs = 4000;
constexpr long kRetryPauseNs = 100 * kNsPerMs;

static_assert(std::is_same_v<mqd_t, int>, "the header says so without the system's header");
static_assert(sizeof(PZMessageQueue<2>) == 1064, "record layout: 4 + 33 + 1025, padded");

/// A queue's system-wide name.
struct SystemName {
    explicit SystemName(const char* name) {
        text[0] = '/';
        pz_strncpy(text + 1, sizeof text - 1, name, PZMessageQueue<2>::kMaxNameLength);
    }
    char text[PZMessageQueue<2>::kMaxNameLength + 2];
};

mqd_t open_or_create(const SystemName& name, int maxMsg) {
    mq_attr attr = {};
    attr.mq_maxmsg = maxMsg;
    attr.mq_msgsize = PZMessageQueue<2>::kMaxMessageSize;
    umask(0);  // every process may open the queue, whichever process created it
    // The system makes queues close-on-exec by itself.
    return pz_above_standard(mq_open(name.text, O_RDWR | O_CREAT, kQueueMode, &attr));
}

/// For a loop that is to try again. The whole pause, whatever signals come.
void pause_after_failure() {
    timespec rest = {0, kRetryPauseNs};
    const PZWatchedWait watched;
    while (nanosleep(&rest, &rest) == -1 && errno == EINTR) {
    }
}

/// The queue whose messages the calling thread receives.
thread_local const void* received_queue = nullptr;

}  // namespace

// ---- the core ----

PZMessageQueue<2>::PZMessageQueue() = default;

PZMessageQueue<2>::~PZMessageQueue() {
    if (!isOpened()) return;
    const PZUncancelled whole;
    PZ_REPORT_ERROR_ON(PATH, name_, "Call close method before deleting this instance!\n");
    close(false);
}

bool PZMessageQueue<2>::open(const OpenParam& p) {
    return open(p, PZ_INSPECTED_QUEUE_SENDS | PZ_INSPECTED_QUEUE_RECEIVES);
}

bool PZMessageQueue<2>::open(const OpenParam& p, unsigned int sides) {
    static_assert(offsetof(PZMessageQueue, name_) == kInspectedQueueName, "as pz_inspection says");
    if (p.name == nullptr) {
        PZ_REPORT_ERROR("name is null.\n");
        PZ_REPORT_ASSERTION();
        return false;
    }
    const PZReportObject named(PZReportObject::en_PATH, p.name);
    if (strnlen(p.name, kMaxNameLength + 1) > kMaxNameLength) {
        PZ_REPORT_ERROR("name is too long.\n");
        PZ_REPORT_ASSERTION();
        return false;
    }
    const SystemName fullName(p.name);
    const mqd_t handle = open_or_create(fullName, p.maxMsg);
    if (handle == kNoQueue) {
        PZ_REPORT_ERROR("error : %s : errno[%d : %s]\n", fullName.text, pz_get_last_err(),
                        pz_get_last_err_string());
        PZ_REPORT_ASSERTION();
        return false;
    }
    close(false);
    handle_ = handle;
    pz_strncpy(name_, kMaxNameLength, p.name, kMaxNameLength);
    shown_ = pz_inspection_queue_opened(this, sides);
    return true;
}

void PZMessageQueue<2>::close(bool unlink) {
    if (isOpened()) {
        pz_inspection_queue_closed(shown_);
        shown_ = 0;
        mq_close(handle_);
        handle_ = kNoQueue;
    }
    if (unlink) mq_unlink(SystemName(name_).text);
}

int PZMessageQueue<2>::send(MSG_TYPE type, const void* data, unsigned int size,
                            unsigned char priority) {
    const auto answer = [this, type](int result) {
        PZInspectedQueue& shown = pz_inspection_queue(shown_);
        if (type != en_MSG_TYPE_QUIT) pz_inspect_count(result == 0 ? shown.sent : shown.refused);
        return result;
    };
    if (size > kMaxPayload) {
        PZ_REPORT_ERROR_ON(PATH, name_, "size over(%d)\n", static_cast<int>(size));
        return answer(kInvalid);
    }
    if (type == en_MSG_TYPE_USER && priority == 0) {
        PZ_REPORT_ERROR_ON(PATH, name_, "invalid priority(%d)\n", priority);
        return answer(kInvalid);
    }
    if (!isOpened()) {
        PZ_REPORT_ERROR_ON(PATH, name_, "not opened\n");
        return answer(kError);
    }
    if (data == nullptr && size != 0) {
        PZ_REPORT_ERROR_ON(PATH, name_, "invalid args\n");
        return answer(kInvalid);
    }
    unsigned char message[1 + kMaxPayload + kTrailer];
    message[0] = type;
    if (size != 0) std::memcpy(message + 1, data, size);
    std::memset(message + 1 + size, 0, kTrailer);
    const int error = post(message, 1 + size + kTrailer, kMostUrgent - priority);
    if (error != 0) return answer(reportRefusal(error));
    PZ_PROBE(queue_send, static_cast<const char*>(name_), size, kMostUrgent - priority);
    return answer(0);
}

// What send answers to a message that post has refused. The attributes are asked for only now,
// because asking costs as much as sending. A full queue answers so whatever else is wrong with the
// message.
int PZMessageQueue<2>::reportRefusal(int error) const {
    mq_attr attr = {};
    if (mq_getattr(handle_, &attr) != 0) {
        error = errno;
    } else if (error == ETIMEDOUT || attr.mq_curmsgs >= attr.mq_maxmsg) {
        // Somebody may have taken a message since this one was refused.
        PZ_REPORT_ERROR_OF("send", "que full (%s) %d/%d\n", name_, static_cast<int>(attr.mq_maxmsg),
                           static_cast<int>(attr.mq_maxmsg));
        return kFull;
    }
    const PZReportObject queue(PZReportObject::en_PATH, name_);
    PZ_REPORT_ERROR_OF("send", "error : errno[%d : %s]\n", error, std::strerror(error));
    return kError;
}

int PZMessageQueue<2>::receive(MSG_TYPE& type, void* data, unsigned int size) {
    if (size == 0 || data == nullptr) {
        PZ_REPORT_ERROR_ON(PATH, name_, "invalid args\n");
        return kError;
    }
    if (!isOpened()) {
        PZ_REPORT_ERROR_ON(PATH, name_, "not opened\n");
        return kError;
    }
    unsigned int priority = 0;
    ssize_t received = -1;
    do {
        received =
            mq_receive(handle_, reinterpret_cast<char*>(rxBuffer_), kMaxMessageSize, &priority);
    } while (received == -1 && errno == EINTR);
    if (received == -1) {
        PZ_REPORT_ERROR_ON(PATH, name_, "error : errno[%d : %s]\n", pz_get_last_err(),
                           pz_get_last_err_string());
        return kError;
    }
    const auto length = static_cast<size_t>(received);
    PZ_PROBE(queue_receive, static_cast<const char*>(name_), length, priority);
    rxBuffer_[length] = 0;  // never a byte of the message before, not even as a type
    type = static_cast<MSG_TYPE>(rxBuffer_[0]);
    if (type != en_MSG_TYPE_QUIT) pz_inspect_count(pz_inspection_queue(shown_).received);
    std::memcpy(data, rxBuffer_ + 1, length);
    return static_cast<int>(received);
}

// 0, or the error number: ETIMEDOUT for a full queue.
//
// Never waits for room, as mq_send would: with a time limit that is over already the message is
// sent while there is room, and otherwise refused at once.
int PZMessageQueue<2>::post(const unsigned char* message, size_t length,
                            unsigned int systemPriority) const {
    constexpr timespec kNoWait = {};
    while (mq_timedsend(handle_, reinterpret_cast<const char*>(message), length, systemPriority,
                        &kNoWait) == -1) {
        if (errno != EINTR) return errno;
    }
    return 0;
}

// ---- the sending side ----

PZMessageQueue<0>::PZMessageQueue() = default;

PZMessageQueue<0>::~PZMessageQueue() {
    close();
}

bool PZMessageQueue<0>::open(const OpenParam& p) {
    return queue_.open({p.name, kCapacity}, PZ_INSPECTED_QUEUE_SENDS);
}

void PZMessageQueue<0>::close() {
    queue_.close(false);
}

int PZMessageQueue<0>::send(const void* data, unsigned int size, unsigned char priority) {
    return queue_.send(en_MSG_TYPE_USER, data, size, priority);
}

// ---- the receiving side ----

PZMessageQueue<1>::PZMessageQueue() : thread_(this, kWatchTimeMs) {
    if (!pz_has_semaphore(sync_)) throw std::bad_alloc();
}

PZMessageQueue<1>::~PZMessageQueue() {
    const PZUncancelled whole;  // the thread must not outlive the object
    close();
}

bool PZMessageQueue<1>::open(const OpenParam& p) {
    if (p.name == nullptr || p.observer == nullptr) {
        PZ_REPORT_ERROR_ON(PATH, p.name, "invalid args\n");
        return false;
    }
    // The thread may be waiting in the queue that is open.
    if (thread_.isStarted() || !queue_.open({p.name, kCapacity}, PZ_INSPECTED_QUEUE_RECEIVES)) {
        PZ_REPORT_ERROR_ON(PATH, p.name, "open error\n");
        return false;
    }
    RemoveObserver(observer_);  // of an open whose thread could not be started
    observer_ = AddObserver(p.observer) != 0 ? p.observer : nullptr;
    if (observer_ == nullptr) {
        queue_.close(false);
        PZ_REPORT_ERROR_ON(PATH, p.name, "open error\n");
        return false;
    }
    opener_ = getpid();
    std::snprintf(threadName_, sizeof threadName_, "%s%s", "mq_", p.name);
    state_ = en_STATE_SERVING;
    thread_.Start(threadName_);  // reports its failure
    return true;
}

void PZMessageQueue<1>::close() {
    if (opener_ != 0 && opener_ != getpid()) {
        closeOfParent();
        return;
    }
    if (received_queue == this) {
        // The observer's subscription is in use, and a thread cannot wait for its own end.
        sendQuit();
        constexpr int kResult = EDEADLK;
        PZ_REPORT_ERROR_ON(THREAD, threadName_, "pthread_join failed !! ret[%d] errno[%d : %s]\n",
                           kResult, kResult, std::strerror(kResult));
        PZ_REPORT_ASSERTION();
        return;
    }
    RemoveObserver(observer_);
    observer_ = nullptr;
    sendQuit();
    const int result = thread_.Join();
    if (result != 0) {
        PZ_REPORT_ERROR_ON(THREAD, threadName_, "pthread_join failed !! ret[%d] errno[%d : %s]\n",
                           result, pz_get_last_err(), pz_get_last_err_string());
        PZ_REPORT_ASSERTION();  // the thread may run on: the queue is its own
        return;
    }
    closeQueue();  // of a thread that was never started, or that an exception has ended
}

// In a forked child the thread, the messages and the name are the parent's. No lock is taken: the
// thread may have held it when the child was made, and is not here to give it back.
void PZMessageQueue<1>::closeOfParent() {
    queue_.close(false);
    ForgetObservers();
    observer_ = nullptr;
}

int PZMessageQueue<1>::Initialize() {
    return 0;
}

void PZMessageQueue<1>::MainProc() {
    if (!queue_.isOpened()) return;
    received_queue = this;
    pz_inspect_set(pz_inspection_queue(queue_.shown_).tid, pz_get_current_thread_id());
    while (serveOne()) {
    }
    received_queue = nullptr;
}

void PZMessageQueue<1>::Finalize() {
    closeQueue();
}

// The message that ends the thread must not get lost: close waits for the thread. When it is
// refused, the thread is told by its state, too. The second attempt is for a thread that has just
// emptied the queue and looked at its state before: it finds either room, or a full queue, from
// which the thread takes a message and then sees the state. One byte fits into every queue.
void PZMessageQueue<1>::sendQuit() {
    state_ = en_STATE_CLOSING;
    const PZSyncLock lock(sync_);
    if (!queue_.isOpened()) return;
    constexpr unsigned char kPayload = 0;
    if (queue_.send(en_MSG_TYPE_QUIT, &kPayload, sizeof kPayload, 0) == 0) return;
    state_ = en_STATE_LEAVING;
    postQuit();
}

void PZMessageQueue<1>::postQuit() {
    constexpr unsigned char kMessage = en_MSG_TYPE_QUIT;
    queue_.post(&kMessage, sizeof kMessage, kMostUrgent);
}

// Of another receiver of the name, in this process or elsewhere, that waits for its thread to end.
// Without another one, what is posted goes with the queue.
void PZMessageQueue<1>::passQuitOn() {
    if (state_ == en_STATE_SERVING) postQuit();
}

// Removes the name once only: the next one may already have made a queue under it.
void PZMessageQueue<1>::closeQueue() {
    const PZSyncLock lock(sync_);
    if (queue_.isOpened()) queue_.close(true);
}

// Hands the next message to the observers; false when the thread must end.
bool PZMessageQueue<1>::serveOne() {
    unsigned char data[PZMessageQueue<2>::kMaxMessageSize] = {};  // as long as a message can be
    MSG_TYPE type = en_MSG_TYPE_USER;
    int received = 0;
    {
        const PZWatchedWait watched;
        received = queue_.receive(type, data, sizeof data);
    }
    if (received < 0) return mayServeAfterFailure();
    if (type == en_MSG_TYPE_QUIT) {
        passQuitOn();
        return false;
    }
    PZInspectedQueue& shown = pz_inspection_queue(queue_.shown_);
    pz_inspect_set(shown.beganMs, pz_inspection_now());
    pz_inspect_set(shown.isNotifying, 1U);
    NotifyObserver(0, data, static_cast<unsigned int>(received), en_NTF_ALL);
    pz_inspect_set(shown.isNotifying, 0U);
    return state_ != en_STATE_LEAVING;
}

// A failure may last: of a queue with larger messages nothing can be received, a quit neither.
bool PZMessageQueue<1>::mayServeAfterFailure() const {
    if (!queue_.isOpened() || state_ != en_STATE_SERVING) return false;
    pause_after_failure();
    return true;
}

}  // namespace PZMsgQ
