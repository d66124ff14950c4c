#include "Framework/Easy/Channel.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <string>
#include <vector>

#include <Framework/Communication/PZMessageQueue.h>
#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/private/PZMutex.h>
#include <Framework/private/pz_scope_end.h>

#include "WorkerCore.h"

namespace pz::detail {

namespace {

using SendQueue = PZMsgQ::PZMessageQueue<0>;
using ReceiveQueue = PZMsgQ::PZMessageQueue<1>;

/// In front of the bytes of every value.
struct Header {
    std::uint32_t mark;
    std::uint16_t version;
    std::uint16_t size;
};
static_assert(sizeof(Header) == 8, "the same in every process");

constexpr std::uint32_t kMark = 0x505A4331;  // tells values from what others send
constexpr unsigned int kTrailer = 4;         // bytes that the queue adds to what was sent
constexpr std::size_t kMostInQueue = 1020;
static_assert(sizeof(Header) + kMostBytes == kMostInQueue, "a value fills a message");

bool is_name(const char* name) {
    if (name != nullptr && *name != '\0' && std::strchr(name, '/') == nullptr &&
        std::strlen(name) <= PZMsgQ::PZMessageQueue<2>::kMaxNameLength) {
        return true;
    }
    PZ_REPORT_ERROR("no channel [%s]\n", name != nullptr ? name : "(null)");
    return false;
}

}  // namespace

struct SenderCore::State {
    State(const char* channel, ValueKind valueKind) : name(channel), kind(valueKind) {}

    const std::string name;
    const ValueKind kind;
    PZMutex mutex;
    SendQueue queue PZ_GUARDED_BY(mutex);
};

SenderCore::SenderCore(const char* name, ValueKind kind) noexcept {
    if (!is_name(name)) return;
    try {
        state_ = std::make_unique<State>(name, kind);
    } catch (const std::bad_alloc&) {
        PZ_REPORT_ERROR("no memory for the channel [%s]\n", name);
    }
}

SenderCore::~SenderCore() = default;

Sent SenderCore::NoMemory() noexcept {
    PZ_REPORT_ERROR("no memory for a value\n");
    return Sent::failed;
}

Sent SenderCore::Send(const void* bytes, std::size_t size, Priority priority) noexcept {
    constexpr int kFull = -2;
    if (state_ == nullptr) return Sent::failed;
    if (size > kMostBytes) {
        PZ_REPORT_ERROR("channel [%s]: a value of %zu bytes is too big\n", state_->name.c_str(),
                        size);
        return Sent::too_big;
    }
    std::array<unsigned char, kMostInQueue> message;
    const Header header = {kMark, state_->kind.version, static_cast<std::uint16_t>(size)};
    std::memcpy(message.data(), &header, sizeof header);
    if (size > 0) std::memcpy(message.data() + sizeof header, bytes, size);
    const auto level =
        static_cast<unsigned char>(std::clamp(static_cast<unsigned int>(priority), 1U, 255U));

    const PZMutexLock lock(state_->mutex);
    // By its name every time: a receiver that was destroyed has taken the queue away, and one that
    // came since reads another.
    const SendQueue::OpenParam param = {state_->name.c_str()};
    if (!state_->queue.open(param)) return Sent::failed;
    const int result =
        state_->queue.send(message.data(), static_cast<unsigned int>(sizeof header + size), level);
    state_->queue.close();
    if (result == 0) return Sent::ok;
    PZ_REPORT_ERROR("channel [%s]: a value is refused: %s\n", state_->name.c_str(),
                    result == kFull ? "full" : "the system does not take it");
    return result == kFull ? Sent::full : Sent::failed;
}

namespace {

/// What the worker's posts need of a receiver, for as long as one waits.
struct Delivery {
    bool WaitUntilDone(Clock::time_point deadline) {
        const PZMutexLock lock(mutex);
        while (isRunning && lock.WaitUntil(done, deadline)) {
        }
        return !isRunning;
    }

    /// False when it is not to run any more.
    bool Begin() {
        const PZMutexLock lock(mutex);
        if (isStopped) return false;
        isRunning = true;
        return true;
    }
    void End() {
        const PZMutexLock lock(mutex);
        isRunning = false;
        done.notify_all();
    }
    void Stop() {
        const PZMutexLock lock(mutex);
        isStopped = true;
    }

    PZMutex mutex;
    std::condition_variable done;  // with isRunning
    bool isStopped PZ_GUARDED_BY(mutex) = false;
    bool isRunning PZ_GUARDED_BY(mutex) = false;
    std::shared_ptr<Taker> taker;
};

/// A value on its way to the worker's thread.
class ValueJob {
public:
    ValueJob(std::shared_ptr<Delivery> delivery, const unsigned char* bytes, std::size_t size)
        : delivery_(std::move(delivery)), bytes_(bytes, bytes + size) {}

    void operator()() {
        if (!delivery_->Begin()) return;
        // Tells the thread that waits, also when the function throws.
        const PZScopeEnd running([this] { delivery_->End(); });
        delivery_->taker->Take(bytes_.data(), bytes_.size());
    }

private:
    std::shared_ptr<Delivery> delivery_;
    std::vector<unsigned char> bytes_;
};

}  // namespace

struct ReceiverCore::State : public PZObserver_ {
    State(std::shared_ptr<WorkerCore> core, const char* channel, ValueKind valueKind,
          std::shared_ptr<Taker> taker)
        : worker(std::move(core)), name(channel), kind(valueKind) {
        delivery->taker = std::move(taker);
    }

    unsigned int OnNotify(unsigned int id, void* data, unsigned int size) override;
    bool IsUnderstood(const Header& header, std::size_t size) const;
    void Deliver(const unsigned char* bytes, std::size_t size) noexcept;

    const std::shared_ptr<WorkerCore> worker;
    const std::string name;
    const ValueKind kind;
    const std::shared_ptr<Delivery> delivery = std::make_shared<Delivery>();
    std::atomic<bool> isClosing{false};
    ReceiveQueue queue;
};

bool ReceiverCore::State::IsUnderstood(const Header& header, std::size_t size) const {
    if (header.mark != kMark || header.size != size) {
        PZ_REPORT_ERROR("channel [%s]: what came is no value\n", name.c_str());
        return false;
    }
    if (header.version != kind.version || (kind.size != 0 && kind.size != size)) {
        PZ_REPORT_ERROR("channel [%s]: version %u of %zu bytes came, version %u of %u is known\n",
                        name.c_str(), header.version, size, kind.version, kind.size);
        return false;
    }
    return true;
}

// On the queue's thread.
unsigned int ReceiverCore::State::OnNotify(unsigned int /*id*/, void* data, unsigned int size) {
    Header header = {};
    if (size < sizeof header + kTrailer) {
        PZ_REPORT_ERROR("channel [%s]: what came is no value\n", name.c_str());
        return 0;
    }
    std::memcpy(&header, data, sizeof header);
    const std::size_t count = size - kTrailer - sizeof header;
    if (IsUnderstood(header, count)) {
        Deliver(static_cast<const unsigned char*>(data) + sizeof header, count);
    }
    return 0;
}

/// Waits for room, but not for a receiver that is being destroyed or a worker that has ended.
void ReceiverCore::State::Deliver(const unsigned char* bytes, std::size_t size) noexcept {
    constexpr std::chrono::milliseconds kLookAgain(50);
    while (!isClosing) {
        try {
            const Posted posted = post(worker.get(), ValueJob(delivery, bytes, size),
                                       Priority::normal, kLookAgain, Place::here());
            if (posted != Posted::full) return;
        } catch (const std::bad_alloc&) {
            PZ_REPORT_ERROR("channel [%s]: no memory for a value\n", name.c_str());
            return;
        }
    }
}

ReceiverCore::ReceiverCore(const Worker& worker, const char* name, ValueKind kind,
                           std::shared_ptr<Taker> taker) noexcept {
    if (!is_name(name)) return;
    if (taker == nullptr || !worker) {
        PZ_REPORT_ERROR("channel [%s]: no function, or the worker does not run\n", name);
        return;
    }
    try {
        auto state = std::make_unique<State>(worker.core(), name, kind, std::move(taker));
        const ReceiveQueue::OpenParam param = {state->name.c_str(), state.get()};
        if (state->queue.open(param)) state_ = std::move(state);
    } catch (const std::bad_alloc&) {
        PZ_REPORT_ERROR("no memory for the channel [%s]\n", name);
    }
}

ReceiverCore::~ReceiverCore() {
    if (state_ == nullptr || state_->worker->IsOfParent()) return;
    Delivery& delivery = *state_->delivery;
    delivery.Stop();
    state_->isClosing = true;
    state_->queue.close();
    if (state_->worker->IsOwnThread()) return;
    if (delivery.WaitUntilDone(deadline_after(state_->worker->Options().stop_within))) return;
    PZ_REPORT_ERROR("channel [%s]: the function still runs\n", state_->name.c_str());
}

}  // namespace pz::detail
