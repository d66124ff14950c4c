#ifndef PZ_TESTS_SUPPORT_GOLDEN_H
#define PZ_TESTS_SUPPORT_GOLDEN_H

#include <string>
#include <utility>
#include <vector>

// Expectations that are too long for a test's source stand in files of tests/data, written by hand.

namespace pztest {

/// What stands for a name in a golden file, as "{name}" there.
using GoldenValues = std::vector<std::pair<std::string, std::string>>;

/// The text of the file `name` of tests/data, with the values in their places. A test without its
/// file ends.
std::string golden(const std::string& name, const GoldenValues& values = {});

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_GOLDEN_H
