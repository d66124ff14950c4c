#ifndef PZ_TESTS_SUPPORT_INTERPOSED_H
#define PZ_TESTS_SUPPORT_INTERPOSED_H

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <tuple>
#include <type_traits>

// System calls that fail on demand. The test executable defines the function itself; the shared
// library's call resolves to that definition:
//
//     PZ_INTERPOSE(sem_wait, 1);          // at file scope; 1: it has one parameter
//
//     sem_wait_call.FailNext(EINTR, 3);   // the next three calls answer -1 with EINTR
//
// As long as nothing is armed, the real function runs.

/// Defines the C library's function `name`, of so many parameters (0 to 6), in this test
/// executable: it calls the object `name_call`, a pztest::Interposed of the same signature, defined
/// here, too. What a failing call answers may follow; without it, -1 or a null pointer.
#define PZ_INTERPOSE(...) \
    PZ_INTERPOSE_CHOICE(__VA_ARGS__, PZ_INTERPOSE_3, PZ_INTERPOSE_2, )(__VA_ARGS__)

#define PZ_INTERPOSE_CHOICE(name, parameters, failure, choice, ...) choice
#define PZ_INTERPOSE_2(name, parameters) \
    PZ_INTERPOSE_3(name, parameters, PZ_INTERPOSED(name)::kUsualFailure)
#define PZ_INTERPOSE_3(name, parameters, failure)                                            \
    extern PZ_INTERPOSED(name) name##_call;                                                  \
    extern "C" PZ_INTERPOSED(name)::ResultType name(                                         \
        PZ_INTERPOSE_PARAMETERS_##parameters(name)) noexcept(pztest::is_noexcept(&::name)) { \
        return name##_call(PZ_INTERPOSE_ARGUMENTS_##parameters);                             \
    }                                                                                        \
    PZ_INTERPOSED(name) name##_call(#name, failure)

/// The type of `name_call`; a header declares such an object that a source defines.
#define PZ_INTERPOSED(name) decltype(pztest::interposed_as(&::name))

#define PZ_INTERPOSE_PARAMETER(name, n) PZ_INTERPOSED(name)::Parameter<n> p##n
#define PZ_INTERPOSE_PARAMETERS_0(name)
#define PZ_INTERPOSE_PARAMETERS_1(name) PZ_INTERPOSE_PARAMETER(name, 0)
#define PZ_INTERPOSE_PARAMETERS_2(name) \
    PZ_INTERPOSE_PARAMETERS_1(name), PZ_INTERPOSE_PARAMETER(name, 1)
#define PZ_INTERPOSE_PARAMETERS_3(name) \
    PZ_INTERPOSE_PARAMETERS_2(name), PZ_INTERPOSE_PARAMETER(name, 2)
#define PZ_INTERPOSE_PARAMETERS_4(name) \
    PZ_INTERPOSE_PARAMETERS_3(name), PZ_INTERPOSE_PARAMETER(name, 3)
#define PZ_INTERPOSE_PARAMETERS_5(name) \
    PZ_INTERPOSE_PARAMETERS_4(name), PZ_INTERPOSE_PARAMETER(name, 4)
#define PZ_INTERPOSE_PARAMETERS_6(name) \
    PZ_INTERPOSE_PARAMETERS_5(name), PZ_INTERPOSE_PARAMETER(name, 5)
#define PZ_INTERPOSE_ARGUMENTS_0
#define PZ_INTERPOSE_ARGUMENTS_1 p0
#define PZ_INTERPOSE_ARGUMENTS_2 PZ_INTERPOSE_ARGUMENTS_1, p1
#define PZ_INTERPOSE_ARGUMENTS_3 PZ_INTERPOSE_ARGUMENTS_2, p2
#define PZ_INTERPOSE_ARGUMENTS_4 PZ_INTERPOSE_ARGUMENTS_3, p3
#define PZ_INTERPOSE_ARGUMENTS_5 PZ_INTERPOSE_ARGUMENTS_4, p4
#define PZ_INTERPOSE_ARGUMENTS_6 PZ_INTERPOSE_ARGUMENTS_5, p5

namespace pztest {

template <typename Signature>
class Interposed;

/// The class for a function; never run.
template <typename Result, typename... Args>
Interposed<Result(Args...)> interposed_as(Result (*)(Args...));

template <typename Result, typename... Args>
constexpr bool is_noexcept(Result (*)(Args...)) {
    return false;
}
template <typename Result, typename... Args>
constexpr bool is_noexcept(Result (*)(Args...) noexcept) {
    return true;
}

template <typename Result>
constexpr Result usual_failure() {
    if constexpr (std::is_pointer_v<Result>) {
        return nullptr;
    } else {
        return static_cast<Result>(-1);
    }
}

template <typename Result, typename... Args>
class Interposed<Result(Args...)> {
public:
    using Function = Result (*)(Args...);
    using ResultType = Result;
    template <size_t n>
    using Parameter = std::tuple_element_t<n, std::tuple<Args...>>;

    /// What most functions of this result answer when they fail.
    using Failure = std::conditional_t<std::is_void_v<Result>, int, Result>;
    static constexpr Failure kUsualFailure = usual_failure<Failure>();

    /// `name` is the real function's; `failure` is what a failing call answers.
    explicit constexpr Interposed(const char* name, Failure failure = kUsualFailure)
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
            return static_cast<Result>(failure_);
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
    const Failure failure_;
    std::atomic<int> failures_{0};
    std::atomic<int> skip_{0};
    std::atomic<int> error_{0};
    std::atomic<int> calls_{0};
    std::atomic<Function> fake_{nullptr};
    std::atomic<Function> real_{nullptr};
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_INTERPOSED_H
