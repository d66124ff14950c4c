#ifndef TOOLS_TOP_WATCHER_H
#define TOOLS_TOP_WATCHER_H

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "Table.h"
#include "View.h"

// Exit statuses of the program.
constexpr int kExitDone = 0;
constexpr int kExitNothing = 1;  // no such process, or none that uses the library
constexpr int kExitUsage = 2;
constexpr int kExitNotAllowed = 3;

/// Something that is looked at again and again.
class Watcher {
public:
    virtual ~Watcher() = default;

    /// Looks once more: kExitDone, or what the program is to end with; the reason is in Problem.
    virtual int Look() = 0;

    /// What the last two looks tell.
    virtual std::vector<Line> Table(SortKey key) const = 0;
    virtual std::string Json() const = 0;

    const std::string& Problem() const { return problem_; }

protected:
    std::string problem_;
};

/// Looks at all processes that use the library.
std::unique_ptr<Watcher> watch_machine();

/// Looks at one process.
std::unique_ptr<Watcher> watch_process(pid_t pid);

/// The process of that name or number; 0, with the exit status and the reason, when there is none
/// or more than one.
pid_t find_process(const std::string& nameOrNumber, int& status, std::string& problem);

#endif  // TOOLS_TOP_WATCHER_H
