#ifndef PZ_TESTS_SUPPORT_OPENDESCRIPTORS_H
#define PZ_TESTS_SUPPORT_OPENDESCRIPTORS_H

#include <sys/types.h>
#include <unistd.h>

#include <map>
#include <string>

// The descriptors that a process has open, queues among them, as the kernel shows them.

namespace pztest {

/// Number, and what it is open to: "pipe:[123]", "socket:[4]", "anon_inode:[eventfd]", a path ...
/// Nothing for a process that has ended.
std::map<int, std::string> descriptors_of(pid_t pid = ::getpid());

/// What one of this process's is open to; "" when it is closed.
std::string target_of(int fd);

/// How many descriptors this process has open.
int open_descriptors();

/// How many are open to what the kernel names so, without the numbers of pipes and sockets.
using Descriptors = std::map<std::string, int>;

/// The open descriptors of this process; with `onlyInherited` those that a program started now
/// would get.
Descriptors open_descriptors_by_kind(bool onlyInherited = false);

/// What is open in `after` and was not before.
Descriptors added(const Descriptors& before, Descriptors after);

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_OPENDESCRIPTORS_H
