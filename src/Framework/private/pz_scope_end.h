/** @file
 * What must be done at the end of a scope, on every path out of it.
 */
#ifndef PZ_FRAMEWORK_PRIVATE_PZ_SCOPE_END_H
#define PZ_FRAMEWORK_PRIVATE_PZ_SCOPE_END_H

#include <utility>

/// Runs a function at the end of its scope, also when an exception or a cancelled thread leaves it.
/// The function must not throw.
template <typename Function>
class PZScopeEnd {
public:
    explicit PZScopeEnd(Function function) : function_(std::move(function)) {}
    ~PZScopeEnd() { function_(); }
    PZScopeEnd(const PZScopeEnd&) = delete;
    PZScopeEnd& operator=(const PZScopeEnd&) = delete;

private:
    Function function_;
};

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_SCOPE_END_H
