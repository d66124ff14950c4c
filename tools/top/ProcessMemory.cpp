#include "ProcessMemory.h"

#include <sys/uio.h>

bool LiveMemory::Read(std::uint64_t address, void* to, std::size_t size) const {
    const auto place = static_cast<std::uintptr_t>(address);
    if (place != address) return false;  // a 64-bit process, and this one is not
    const iovec own = {to, size};
    const iovec other = {reinterpret_cast<void*>(place), size};
    return process_vm_readv(pid_, &own, 1, &other, 1, 0) == static_cast<ssize_t>(size);
}
