#ifndef PZ_TESTS_SUPPORT_ELFFILE_H
#define PZ_TESTS_SUPPORT_ELFFILE_H

#include <set>
#include <string>

namespace pztest {

/// The libraries that a program or library lists as needed, by their SONAMEs.
std::set<std::string> needed_by(const std::string& path);

/// True when a name in `names` begins with `start`.
bool has_library(const std::set<std::string>& names, const std::string& start);

/// The lines of a checked-in list; empty lines and those that begin with '#' are left out.
std::set<std::string> read_list(const std::string& path);

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_ELFFILE_H
