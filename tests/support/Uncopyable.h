#ifndef PZ_TESTS_SUPPORT_UNCOPYABLE_H
#define PZ_TESTS_SUPPORT_UNCOPYABLE_H

namespace pztest {

/// The base of what is given back once, at the end of its scope. PZUncopyable is for the library:
/// what the tests stand on needs none of it.
class Uncopyable {
public:
    Uncopyable(const Uncopyable&) = delete;
    Uncopyable& operator=(const Uncopyable&) = delete;

protected:
    Uncopyable() = default;
    ~Uncopyable() = default;
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_UNCOPYABLE_H
