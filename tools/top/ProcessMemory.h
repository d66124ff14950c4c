#ifndef TOOLS_TOP_PROCESSMEMORY_H
#define TOOLS_TOP_PROCESSMEMORY_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <type_traits>

/// The memory of another process, which may be of another width, hostile, or gone at any moment.
class ProcessMemory {
public:
    virtual ~ProcessMemory() = default;

    /// Copies `size` bytes; false, with any part of them copied, when not all can be read.
    virtual bool Read(std::uint64_t address, void* to, std::size_t size) const = 0;
};

/// What is at the address, as plain data; nothing when it cannot be read.
template <typename T>
std::optional<T> read_as(const ProcessMemory& memory, std::uint64_t address) {
    static_assert(std::is_trivially_copyable_v<T>);
    T value = {};
    if (!memory.Read(address, &value, sizeof value)) return {};
    return value;
}

/// The memory of a process of this machine, as far as the kernel lets this one read it.
class LiveMemory : public ProcessMemory {
public:
    explicit LiveMemory(pid_t pid) : pid_(pid) {}

    bool Read(std::uint64_t address, void* to, std::size_t size) const override;

private:
    const pid_t pid_;
};

#endif  // TOOLS_TOP_PROCESSMEMORY_H
