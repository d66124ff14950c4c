#ifndef PZ_FRAMEWORK_COMMUNICATION_PZMESSAGEQUEUE_H
#define PZ_FRAMEWORK_COMMUNICATION_PZMESSAGEQUEUE_H

#include <mqueue.h>  // for programs that take queues away by their names, as they always could
#include <sys/types.h>

#include <atomic>
#include <cstddef>

#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZThread.h>
#include <Framework/PZApi.h>
#include <Framework/Pattern/PZSubject.h>

/// Messages between processes, over the system's named message queues.
///
///     receiving process                             sending process
///
///     PZMessageQueue<1> box;                        PZMessageQueue<0> box;
///     PZMessageQueue<1>::OpenParam p = {"radio",    PZMessageQueue<0>::OpenParam p = {"radio"};
///                                       &unit};     if (!box.open(p)) return;
///     if (!box.open(p)) return;                     box.send(&order, sizeof order, 128);
///     ...                                           ...
///     box.close();                                  box.close();
///
/// The first side to open the name creates the queue. The name is system-wide, "/" and up to 32
/// characters; the receiving side removes it when it closes. A side that still has it open then
/// uses a queue that nobody reads, and should open the name again.
///
/// Use one receiver per name: two would take each other's messages, and the end of one may end the
/// other.
///
/// On the queue a message is one byte of type, the payload, and three zero bytes. Its system
/// priority is 255 minus the caller's: smaller values overtake larger ones, equal values keep their
/// order. Other programs may send too; their messages are received as they are, up to 1024 bytes.
namespace PZMsgQ {

/// The first byte of a message. Other programs may send other values, which pass too.
enum MSG_TYPE : unsigned char {
    en_MSG_TYPE_USER = 1,  ///< data
    en_MSG_TYPE_QUIT = 2   ///< ends the thread of a PZMessageQueue<1>
};

/// <2> opens, sends and receives; <0> only sends; <1> receives on a thread of its own.
template <int N>
class PZMessageQueue;

/// A named queue, to send to and to receive from.
///
/// Threads:   one at a time.
/// Failures:  reported and answered with a result. A queue that cannot be opened is also reported
///            as an assertion, with a call stack.
template <>
class PZ_API PZMessageQueue<2> {
public:
    /// What open needs to know.
    struct OpenParam {
        const char* name;  ///< without "/", at most 32 characters; copied
        int maxMsg;        ///< messages that a new queue holds, at most fs.mqueue.msg_max
    };

    static constexpr unsigned int kMaxNameLength = 32;     ///< characters, without "/"
    static constexpr unsigned int kMaxMessageSize = 1024;  ///< of a new queue, type byte included
    static constexpr unsigned int kMinReceiveSize = 1028;  ///< bytes that `receive` may fill

    PZMessageQueue();

    /// Reports a queue that is still open, and closes it; its name stays. Cancellation does not
    /// interrupt that.
    ~PZMessageQueue();

    PZMessageQueue(const PZMessageQueue&) = delete;
    PZMessageQueue& operator=(const PZMessageQueue&) = delete;

    /// Opens the queue, or creates it for everybody to read and write. One that exists keeps its
    /// own capacity and message size. Closes the queue that was open before, if any.
    ///
    /// False, with everything as it was, for a null or too long name, or when the system refuses.
    /// The process's file creation mask is 0 from now on.
    bool open(const OpenParam& p);

    /// Whether there is a queue to send to.
    bool isOpened() const noexcept { return handle_ != kNoQueue; }

    /// Closes the queue if it is open. With `unlink` it also removes the name that was opened last,
    /// open or not; a new queue may then be created under it.
    void close(bool unlink);

    /// Sends `size` bytes of `data` (null only for 0 bytes), and never waits for room:
    ///  0  sent;
    /// -1  not open, or refused by the system: a queue as it is created here takes 1020 bytes, of
    ///     the 1024 that are allowed;
    /// -2  the queue is full;
    /// -3  more than 1024 bytes, user data with priority 0 (that is for control messages), or null
    ///     data.
    /// Where several apply: size, priority, not open, null data, full, refused.
    int send(MSG_TYPE type, const void* data, unsigned int size, unsigned char priority);

    /// Waits without limit for a message, and takes the most urgent one.
    ///
    /// Answers the number of bytes received, type and trailing bytes included, or -1 (reported).
    /// As many bytes are stored in `data`: the payload, what followed it, and one zero byte.
    /// `data` must hold 1028 bytes, whatever `size` says, which only must not be 0. An empty
    /// message, which other programs may send, has type 0 and the result 0.
    ///
    /// A queue of another program, for messages of more than 1024 bytes, cannot be received from:
    /// -1 every time.
    int receive(MSG_TYPE& type, void* data, unsigned int size);

private:
    friend class PZMessageQueue<0>;
    friend class PZMessageQueue<1>;

    static constexpr int kNoQueue = -1;

    PZ_LOCAL bool open(const OpenParam& p, unsigned int sides);
    PZ_LOCAL int post(const unsigned char* message, size_t length,
                      unsigned int systemPriority) const;
    PZ_LOCAL int reportRefusal(int error) const;

    int handle_ = kNoQueue;               // a mqd_t
    char name_[kMaxNameLength + 1] = {};  // without "/"
    // The byte after the longest message: as many bytes are passed on as were received, from the
    // second one on.
    unsigned char rxBuffer_[kMaxMessageSize + 1] = {};
    unsigned short shown_ = 0;  // entry of pz_inspection, 0: none
};

/// The sending side: user data to a queue of 64 messages.
///
/// Threads:  one at a time. The destructor closes.
/// Failures: as those of PZMessageQueue<2>.
template <>
class PZ_API PZMessageQueue<0> {
public:
    /// What open needs to know.
    struct OpenParam {
        const char* name;  ///< see PZMessageQueue<2>
    };

    PZMessageQueue();
    ~PZMessageQueue();

    PZMessageQueue(const PZMessageQueue&) = delete;
    PZMessageQueue& operator=(const PZMessageQueue&) = delete;

    /// See PZMessageQueue<2>::open.
    bool open(const OpenParam& p);

    /// The queue and its name stay, and so do the messages in it.
    void close();

    /// See PZMessageQueue<2>::send; priorities are 1 (most urgent) to 255.
    int send(const void* data, unsigned int size, unsigned char priority);

private:
    PZMessageQueue<2> queue_;
};

/// The receiving side: a thread takes the messages and calls the observer with each.
///
/// The observer is called with id 0, the payload, and the number of bytes received: 4 more than
/// were sent (see PZMessageQueue<2>::receive). The bytes are valid during the call; up to 1024 of
/// them may be read, those after the message are zero. More observers may be added, as to every
/// subject, and must be removed before the queue is destroyed.
///
/// Threads:   open, close and destruction belong to one controlling thread. Observers run on the
///            queue's own thread, "mq_" and the name, with the subject's lock held.
///            An observer may call close, not destroy the queue: see there.
/// Processes: the queue belongs to the process that opened it: the end of a forked child does not
///            disturb it.
/// Ownership: the observer is not owned; it must live until close has returned.
/// Failures:  reported and answered with a result. Messages that cannot be received are reported
///            and tried again every 100 milliseconds until close. An exception out of an observer
///            ends the thread; the queue fills up then, until close. Only the constructor throws
///            std::bad_alloc.
template <>
class PZ_API PZMessageQueue<1> : public PZSubject {
public:
    /// What open needs to know.
    struct OpenParam {
        const char* name;       ///< see PZMessageQueue<2>
        PZObserver_* observer;  ///< called with each message
    };

    PZMessageQueue();

    /// Closes.
    ~PZMessageQueue() override;

    PZMessageQueue(const PZMessageQueue&) = delete;
    PZMessageQueue& operator=(const PZMessageQueue&) = delete;

    /// Opens the queue, with room for 64 messages when it is new, and starts the thread.
    ///
    /// False for a null name or observer, for a queue that cannot be opened, without memory for the
    /// subscription, and when the thread of the last open was not joined yet; it runs on
    /// undisturbed: close first. True even when the thread cannot be started (reported); open again
    /// to try once more.
    bool open(const OpenParam& p);

    /// Ends the thread, waits for it, and removes the queue's name. Nothing happens when the queue
    /// is closed already.
    ///
    /// A message through the queue tells the thread; it overtakes the waiting messages, which are
    /// lost. When the queue is so full that this message is refused (reported like every refused
    /// message), or when messages cannot be received, the thread leaves by itself after its present
    /// message. close waits for a running observer.
    ///
    /// In a forked child of the process that opened the queue, only the child's own handle is
    /// closed: thread, messages and name stay as they are. The object is unusable there.
    ///
    /// A call from an observer on the queue's own thread does not wait: the failed join is
    /// reported, and the thread ends after the observer has returned. The observer is still
    /// subscribed then, and the controlling thread must still call close or destroy the queue.
    void close();

    /// The phases of the thread, see PZThread.
    /// @{
    int Initialize();
    void MainProc();
    void Finalize();
    /// @}

private:
    /// How the thread learns that it must end.
    enum EN_STATE : int {
        en_STATE_SERVING,  // not at all
        en_STATE_CLOSING,  // from a message
        en_STATE_LEAVING   // at once: the message may not have found room
    };

    PZ_LOCAL void closeOfParent();
    PZ_LOCAL void sendQuit();
    PZ_LOCAL void postQuit();
    PZ_LOCAL void passQuitOn();
    PZ_LOCAL void closeQueue();
    PZ_LOCAL bool serveOne();
    PZ_LOCAL bool mayServeAfterFailure() const;

    // Opened by the controlling thread while there is no thread; closed under sync_.
    PZMessageQueue<2> queue_;
    PZThread<PZMessageQueue<1>> thread_;
    PZObserver_* observer_ = nullptr;  // subscribed; not owned
    char threadName_[sizeof "mq_" + PZMessageQueue<2>::kMaxNameLength] = {};
    PZSync sync_;  // lets nobody send into a queue that is being closed
    std::atomic<EN_STATE> state_{en_STATE_SERVING};
    pid_t opener_ = 0;  // the process that has the thread; 0: never opened
};

}  // namespace PZMsgQ

#endif  // PZ_FRAMEWORK_COMMUNICATION_PZMESSAGEQUEUE_H
