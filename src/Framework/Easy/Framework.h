#ifndef PZ_FRAMEWORK_EASY_FRAMEWORK_H
#define PZ_FRAMEWORK_EASY_FRAMEWORK_H

#include <utility>

#include <Framework/Foundation/pz_identity.h>
#include <Framework/PZApi.h>

namespace pz {

/// Starts the framework, and ends it when the scope is left.
///
///     int main() {
///         pz::Framework fw("radio", 1);
///         if (!fw) return 1;
///         ...
///     }
///
/// Several:  they share one start. The first gives name and id; the last to be destroyed ends the
///           framework, even if pz_FwInitialize started it.
/// End:      workers that still run are stopped, each within its own bound, and reported. When a
///           handler hangs, the framework stays as it is, because the handler may still use it.
///           That is reported; the process may still end. pz_FwFinalize, called while an object
///           lives, stops the workers as well, but ends the framework in any case; the next object
///           starts it again.
///           A forked child of the process that started it does not end it.
/// Tick:     timers continue when the 32-bit tick wraps, every 49.7 days: one sleeping thread,
///           "pz_tick", causes a check in every band of PZLTimerMng right after each wrap.
/// Rights:   a user who may not raise priorities gets one warning that says so, where
///           pz_FwInitialize reports an error for each band of timers; all else works.
/// Threads:  made and destroyed by the main thread.
/// Failures: answered with false, never thrown.
class PZ_API Framework {
public:
    /// `name` is copied, at most 63 characters; null counts as "". `id` is what pz_GetId answers.
    [[nodiscard]] explicit Framework(const char* name, int id = 0) noexcept;

    ~Framework();

    /// The new object ends the framework; `other` is false.
    Framework(Framework&& other) noexcept : started_(std::exchange(other.started_, false)) {}
    /// What was here before ends as in the destructor.
    Framework& operator=(Framework&& other) noexcept {
        Framework taken(std::move(other));
        swap(taken);
        return *this;
    }

    /// Whether the framework runs; false after a move from this object.
    explicit operator bool() const noexcept { return started_; }

    /// The name of the process: that of the first one. It stays readable.
    static const char* name() noexcept { return pz_GetName(); }

private:
    void swap(Framework& other) noexcept { std::swap(started_, other.started_); }

    bool started_;
};

}  // namespace pz

#endif  // PZ_FRAMEWORK_EASY_FRAMEWORK_H
