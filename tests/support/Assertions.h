#ifndef PZ_TESTS_SUPPORT_ASSERTIONS_H
#define PZ_TESTS_SUPPORT_ASSERTIONS_H

#include <string>

namespace pztest {

/// How many assertions of the source `file`, named from src/Framework on, have failed in `output`.
/// Each is the whole banner with a line number, and lines of the call stack after it.
unsigned int assertions_of(const std::string& output, const std::string& file);

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_ASSERTIONS_H
