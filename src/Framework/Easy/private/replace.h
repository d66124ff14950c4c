#ifndef PZ_FRAMEWORK_EASY_PRIVATE_REPLACE_H
#define PZ_FRAMEWORK_EASY_PRIVATE_REPLACE_H

#include <utility>

namespace pz::detail {

/// Moves `from` to `to`, once `end` has ended what is there. Moved to itself, it stays as it is.
template <typename Core, typename End>
void replace(Core& to, Core& from, End end) {
    if (&to == &from) return;
    end();
    to = std::move(from);
}

}  // namespace pz::detail

#endif  // PZ_FRAMEWORK_EASY_PRIVATE_REPLACE_H
