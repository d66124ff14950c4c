#ifndef PZ_FRAMEWORK_EASY_GUARDEDFILE_H
#define PZ_FRAMEWORK_EASY_GUARDEDFILE_H

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include <Framework/PZApi.h>

namespace pz {

namespace detail {

/// One step on a guarded file: from the lock to the end of the object.
class PZ_API FileUpdate {
public:
    /// Waits for the file and reads it.
    FileUpdate(const std::string& folder, const std::string& name,
               std::chrono::milliseconds within) noexcept;
    ~FileUpdate();

    FileUpdate(const FileUpdate&) = delete;
    FileUpdate& operator=(const FileUpdate&) = delete;

    /// Whether it has the file.
    explicit operator bool() const noexcept { return state_ != nullptr; }
    /// What is in it.
    std::string& bytes() noexcept;
    /// Replaces the file by what is in `bytes` now.
    bool Commit() noexcept;

    /// Reports an update without a function; false.
    static bool NoFunction(const std::string& name) noexcept;

private:
    struct State;
    std::unique_ptr<State> state_;  // null: refused
};

/// Whether the function gets bytes of its own; not known of one that takes whatever it gets.
/// @{
template <typename R>
std::true_type has_own_bytes(const std::function<R(std::string)>*);
std::false_type has_own_bytes(const void*);

template <typename F, typename = void>
struct takes_a_copy : std::false_type {};
template <typename F>
struct takes_a_copy<F, std::void_t<decltype(std::function{std::declval<F>()})>>
    : decltype(has_own_bytes(static_cast<decltype(std::function{std::declval<F>()})*>(nullptr))) {};
/// @}

}  // namespace detail

/// A file that several threads and processes change, one after the other.
///
///     pz::GuardedFile settings("/temp/system_data", "settings");
///     settings.update([](std::string& bytes) { bytes += "volume=7\n"; });
///
/// Step:      update locks out all other users of the file, reads it, lets the function change the
///            bytes, and replaces the file. A process that dies releases the lock. A child that is
///            forked during a step cannot end it: if the function returns there too, update
///            answers false.
/// Whole:     the file is replaced whole or not at all, even when the process is killed or the
///            power fails: the bytes are on the medium before they get the name.
/// Files:     beside "settings" there are ".settings.lock", which stays, and during an update
///            ".settings.new". The folder must exist. A replaced file keeps its mode, and its owner
///            where the process may give it away; links are not followed, and what is no plain file
///            (a fifo, a folder) is refused. The lock is this class's own: PZFileGuard does not
///            respect it. An update is refused if the folder or the lock is replaced meanwhile.
/// Threads:   any thread may call anything.
/// Failures:  reported and answered, never thrown; what the function throws reaches the caller, and
///            the file stays as it was.
class PZ_API GuardedFile {
public:
    /// No time limit.
    static constexpr std::chrono::milliseconds kNoLimit = std::chrono::milliseconds::max();

    /// Copies both; opens nothing yet. A null or empty argument, and a name that is "." or ".." or
    /// holds a '/', is reported; every operation is refused then.
    GuardedFile(const char* folder, const char* name) noexcept;

    /// Whether the names are valid.
    explicit operator bool() const noexcept { return !name_.empty(); }

    /// Calls `function` with the bytes of the file (none when there is no file), and replaces the
    /// file by what they are afterwards. True also when they are the same: nothing is written then.
    /// A function that answers false leaves the file as it is; update then answers false too.
    ///
    /// False, and the file as it was, when the lock cannot be had `within` the time, or a step
    /// fails. If only the last step fails, which brings the new name to the medium, the file has
    /// already changed. An update of the same file by the function itself is refused. So is a
    /// null pointer (reported).
    template <typename F>
    bool update(F&& function, std::chrono::milliseconds within = kNoLimit) {
        static_assert(!detail::takes_a_copy<std::decay_t<F>>::value,
                      "the function takes a std::string&, not a copy that nobody sees");
        if constexpr (std::is_pointer_v<std::decay_t<F>>) {
            const std::decay_t<F> pointer = function;
            if (pointer == nullptr) return detail::FileUpdate::NoFunction(name_);
        }
        detail::FileUpdate step(folder_, name_, within);
        if (!step) return false;
        if constexpr (std::is_void_v<std::invoke_result_t<F&, std::string&>>) {
            function(step.bytes());
        } else {
            if (!function(step.bytes())) return false;
        }
        return step.Commit();
    }

    /// The bytes of the file, as an update left them; nothing when there is no file (not reported),
    /// or it cannot be read. Does not wait for an update.
    [[nodiscard]] std::optional<std::string> read() const noexcept;

private:
    std::string folder_;
    std::string name_;  // empty: not valid
};

}  // namespace pz

#endif  // PZ_FRAMEWORK_EASY_GUARDEDFILE_H
