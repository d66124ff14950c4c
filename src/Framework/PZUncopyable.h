#ifndef PZ_FRAMEWORK_PZUNCOPYABLE_H
#define PZ_FRAMEWORK_PZUNCOPYABLE_H

/// Base of classes whose objects are not copied.
class PZUncopyable {
public:
    PZUncopyable(const PZUncopyable&) = delete;
    PZUncopyable& operator=(const PZUncopyable&) = delete;

protected:
    PZUncopyable() = default;
    ~PZUncopyable() = default;
};

#endif  // PZ_FRAMEWORK_PZUNCOPYABLE_H
