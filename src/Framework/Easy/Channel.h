#ifndef PZ_FRAMEWORK_EASY_CHANNEL_H
#define PZ_FRAMEWORK_EASY_CHANNEL_H

/// @file
/// Values from process to process.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include <Framework/Easy/Worker.h>
#include <Framework/PZApi.h>
#include <Framework/Pattern/PZSerializable.h>

namespace pz {

/// What became of a value.
enum class Sent {
    ok,       ///< it waits for its receiver
    full,     ///< the channel holds 64 values that nobody has taken (reported)
    too_big,  ///< more than 1012 bytes (reported)
    failed    ///< the system refuses, or there is no memory (reported)
};

namespace detail {

constexpr std::size_t kMostBytes = 1012;  // of a value

template <typename T>
constexpr bool is_serializable = std::is_base_of_v<PZSerialization::PZSerializable, T>;

/// What both sides must agree on.
struct ValueKind {
    std::uint16_t version;
    std::uint16_t size;  // 0: values of different sizes
};

template <typename T>
constexpr ValueKind kind_of(std::uint16_t version) {
    static_assert(is_serializable<T> || std::is_trivially_copyable_v<T>,
                  "values are trivially copyable, or derive from PZSerializable");
    static_assert(is_serializable<T> || sizeof(T) <= kMostBytes, "a value has at most 1012 bytes");
    return {version, static_cast<std::uint16_t>(is_serializable<T> ? 0 : sizeof(T))};
}

/// The sending side, for bytes.
class PZ_API SenderCore {
public:
    SenderCore(const char* name, ValueKind kind) noexcept;
    ~SenderCore();

    SenderCore(const SenderCore&) = delete;
    SenderCore& operator=(const SenderCore&) = delete;

    explicit operator bool() const noexcept { return state_ != nullptr; }
    Sent Send(const void* bytes, std::size_t size, Priority priority) noexcept;
    /// Reports that a value could not be made into bytes.
    static Sent NoMemory() noexcept;

private:
    struct State;
    std::unique_ptr<State> state_;  // null: no valid name, or no memory
};

/// What becomes of the bytes of a value: called on the worker's thread.
class Taker {
public:
    virtual ~Taker() = default;
    virtual void Take(const unsigned char* bytes, std::size_t size) = 0;

protected:
    Taker() = default;
    Taker(const Taker&) = default;
    Taker& operator=(const Taker&) = default;
};

/// The receiving side, for bytes.
class PZ_API ReceiverCore {
public:
    ReceiverCore(const Worker& worker, const char* name, ValueKind kind,
                 std::shared_ptr<Taker> taker) noexcept;
    ~ReceiverCore();

    ReceiverCore(const ReceiverCore&) = delete;
    ReceiverCore& operator=(const ReceiverCore&) = delete;

    explicit operator bool() const noexcept { return state_ != nullptr; }

private:
    struct State;
    std::unique_ptr<State> state_;  // null: not open
};

template <typename T, typename F>
class TakerOf : public Taker {
public:
    TakerOf(std::in_place_t /*tag*/, F function) : function_(std::move(function)) {}

    void Take(const unsigned char* bytes, std::size_t size) override {
        if constexpr (is_serializable<T>) {
            T value;
            value.deserialize(bytes, static_cast<unsigned int>(size));
            function_(static_cast<const T&>(value));
        } else {
            alignas(T) unsigned char room[sizeof(T)];
            std::memcpy(room, bytes, sizeof(T));
            function_(*std::launder(static_cast<const T*>(static_cast<void*>(room))));
        }
    }

private:
    F function_;
};

}  // namespace detail

/// Sends values of one type to the receiver of a name, in any process.
///
///     pz::Sender<Station> out("stations");
///     out.send(station);
///
/// Values:   trivially copyable, of up to 1012 bytes, without pointers, between processes that are
///           built for the same kind of machine; or derived from PZSerializable. The receiver
///           refuses and reports values whose size or `version` differs from its own.
/// Peer:     may come later: up to 64 values wait, even after the sender has ended. When a receiver
///           dies, they wait for the next one. When it is destroyed, waiting values are lost.
/// Order:    more urgent values first, equal ones in the order in which they were sent.
/// Threads:  any thread may send.
/// Failures: reported and answered, never thrown.
template <typename T>
class Sender {
public:
    /// `name`: 1 to 32 characters without '/', system-wide. A sender with another name, null
    /// included, is false (reported), and answers every value with Sent::failed.
    explicit Sender(const char* name, std::uint16_t version = 0) noexcept
        : core_(name, detail::kind_of<T>(version)) {}

    /// Whether the name is valid.
    explicit operator bool() const noexcept { return static_cast<bool>(core_); }

    /// Sends a copy of the value. Never waits. Priority::emergency counts as the next lower one.
    Sent send(const T& value, Priority priority = Priority::normal) noexcept {
        if constexpr (detail::is_serializable<T>) {
            return SendArchived(const_cast<T&>(value), priority);  // serialize fills its archive
        } else {
            return core_.Send(&value, sizeof value, priority);
        }
    }

private:
    Sent SendArchived(T& value, Priority priority) noexcept {
        try {
            PZSerialization::Archive archive;
            archive.write(value);
            constexpr unsigned int kCount = 4;  // the archive tells the number of bytes first
            if (archive.getSize() < kCount) return detail::SenderCore::NoMemory();
            return core_.Send(archive.getBuff() + kCount, archive.getSize() - kCount, priority);
        } catch (const std::bad_alloc&) {
            return detail::SenderCore::NoMemory();
        }
    }

    detail::SenderCore core_;
};

/// Receives the values that are sent under a name, on a worker's thread.
///
///     pz::Receiver<Station> in(tuner, "stations", [](const Station& s) { show(s); });
///
/// Name:      one receiver for each; a second one would take values of the first, and may end with
///            it.
/// Room:      while the worker has no room, values wait in the channel, until that is full.
/// Life:      until the destructor, which waits for a running function, at most for the worker's
///            `stop_within` (then reported); afterwards the function does not run. When the
///            function itself destroys the receiver, the destructor does not wait. The worker may
///            end first.
/// Threads:   made and destroyed by one thread; the function runs on the worker's thread.
/// Failures:  a receiver that could not be opened is false (reported).
template <typename T>
class Receiver {
public:
    /// `function` is called with each value as `const T&`; see Sender for the name and the version.
    /// An empty function and a worker that does not run are refused (reported).
    template <typename F>
    [[nodiscard]] Receiver(const Worker& worker, const char* name, F&& function,
                           std::uint16_t version = 0) noexcept
        : core_(worker, name, detail::kind_of<T>(version), MakeTaker(std::forward<F>(function))) {}

    /// Whether it receives.
    explicit operator bool() const noexcept { return static_cast<bool>(core_); }

private:
    /// Null for an empty function, and without memory.
    template <typename F>
    static std::shared_ptr<detail::Taker> MakeTaker(F&& function) noexcept {
        using Function = std::decay_t<F>;
        static_assert(std::is_invocable_v<Function&, const T&>, "the function takes a const T&");
        if (detail::is_empty<Function>(function)) return nullptr;
        try {
            return std::make_shared<detail::TakerOf<T, Function>>(std::in_place,
                                                                  std::forward<F>(function));
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }

    detail::ReceiverCore core_;
};

}  // namespace pz

#endif  // PZ_FRAMEWORK_EASY_CHANNEL_H
