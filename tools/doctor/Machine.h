#ifndef TOOLS_DOCTOR_MACHINE_H
#define TOOLS_DOCTOR_MACHINE_H

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

/// The machine that is looked at: the one the program runs on, or the file tree of another one,
/// with its /proc if that has been saved with it.
///
/// Paths are those of the machine ("/temp"). In a file tree, links are followed as the machine
/// would follow them, so that none leads out of the tree.
///
/// Threads:  any.
/// Failures: silent; answered with nothing.
class Machine {
public:
    /// `root` is the folder that holds the file tree; "" or "/" is this machine.
    explicit Machine(std::string root = "");

    /// True for the machine that the program runs on.
    bool IsLive() const { return root_.empty(); }

    /// The folder of the file tree without a '/' at its end; "" for this machine.
    const std::string& Root() const { return root_; }

    /// Where the program finds `path`, all links followed. It need not exist.
    std::string Resolve(const std::string& path) const;

    /// What is at the end of all links; nothing when that does not exist.
    std::optional<struct stat> Stat(const std::string& path) const;

    /// Where a link points to, as it is written there; nothing when `path` is not a link.
    std::optional<std::string> LinkTarget(const std::string& path) const;

    /// At most `limit` bytes from the beginning of a file; nothing when it cannot be read.
    std::optional<std::string> Read(const std::string& path, size_t limit = 1U << 22) const;

    /// The names in a folder in ascending order, without "." and ".."; nothing when it cannot be
    /// read.
    std::optional<std::vector<std::string>> List(const std::string& path) const;

    /// The whole number that a file holds; nothing for a missing file or other text.
    std::optional<long long> Number(const std::string& path) const;

    /// True when /proc is there, from which the checks of the kernel read.
    bool HasProc() const { return Stat("/proc/self").has_value(); }

private:
    std::string root_;
};

#endif  // TOOLS_DOCTOR_MACHINE_H
