#ifndef PZ_TESTS_SUPPORT_INTERPOSED_H
#define PZ_TESTS_SUPPORT_INTERPOSED_H

#include <dlfcn.h>

#include <atomic>
#include <cerrno>

// System calls that fail on demand. The test executable defines the function itself; the shared
// library's call resolves to that definition:
//
//     pztest::Interposed<int(sem_t*)> sem_wait_call("sem_wait");
//     extern "C" int sem_wait(sem_t* sem) { return sem_wait_call(sem); }
//
//     sem_wait_call.FailNext(EINTR, 3);   // the next three calls answer -1 with EINTR
//
// As long as nothing is armed, the real function runs.

namespace pztest {

template <typename Signature>
class Interposed;

template <typename Result, typename... Args>
class Interposed<Result(Args...)> {
public:
    using Function = Result (*)(Args...);

    /// `name` is the real function's; `failure` is what a failing call answers.
    explicit constexpr Interposed(const char* name, Result failure = static_cast<Result>(-1))
        : name_(name), failure_(failure) {}

    /// The next `times` calls, after `skip` more that succeed, fail with `error` in errno.
    void FailNext(int error, int times = 1, int skip = 0) {
        error_ = error;
        skip_ = skip;
        failures_ = times;
    }

    /// Every call runs `fake` instead; null ends that.
    void Replace(Function fake) { fake_ = fake; }

    /// Disarms everything and counts from 0 again.
    void Reset() {
        failures_ = 0;
        skip_ = 0;
        fake_ = nullptr;
        calls_ = 0;
    }

    /// Calls since the start or the last Reset, failed ones included.
    int Calls() const { return calls_; }

    /// The real function.
    Result Real(Args... args) { return RealFunction()(args...); }

    Result operator()(Args... args) {
        ++calls_;
        if (failures_ > 0 && TakeFailure()) {
            errno = error_;
            return failure_;
        }
        const Function fake = fake_;
        return fake != nullptr ? fake(args...) : RealFunction()(args...);
    }

private:
    bool TakeFailure() {
        if (skip_ > 0 && skip_.fetch_sub(1) > 0) return false;
        return failures_.fetch_sub(1) > 0;
    }

    Function RealFunction() {
        Function real = real_;
        if (real == nullptr) {
            const int saved = errno;
            real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name_));
            real_ = real;
            errno = saved;
        }
        return real;
    }

    const char* const name_;
    const Result failure_;
    std::atomic<int> failures_{0};
    std::atomic<int> skip_{0};
    std::atomic<int> error_{0};
    std::atomic<int> calls_{0};
    std::atomic<Function> fake_{nullptr};
    std::atomic<Function> real_{nullptr};
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_INTERPOSED_H
