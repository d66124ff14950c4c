#ifndef TOOLS_TOP_TABLEFINDER_H
#define TOOLS_TOP_TABLEFINDER_H

#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <vector>

#include "ProcessMemory.h"

/// A file that a process has mapped from its beginning on.
struct MappedFile {
    std::uint64_t address;
    std::string path;
};

/// The beginnings of mapped files in /proc/PID/maps.
std::vector<MappedFile> mapped_files(std::istream& maps);

/// Those that may hold the library: the program itself, first, then whatever is named like it.
std::vector<MappedFile> library_candidates(std::istream& maps, const std::string& program);

/// The address of the name in the dynamic symbol table of the program or library that is mapped at
/// `image`; nothing when it has none. Everything is looked up in the memory of the process, so that
/// a file that was replaced, deleted or lies in a container does not matter.
std::optional<std::uint64_t> find_symbol(const ProcessMemory& memory, std::uint64_t image,
                                         const char* name);

#endif  // TOOLS_TOP_TABLEFINDER_H
