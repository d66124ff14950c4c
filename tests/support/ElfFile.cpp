#include "support/ElfFile.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include "support/RunCommand.h"

namespace pztest {

std::set<std::string> needed_by(const std::string& path) {
    const std::string kMark = "Shared library: [";
    std::istringstream lines(run_command("LC_ALL=C readelf -d " + path).output);
    std::set<std::string> names;
    for (std::string line; std::getline(lines, line);) {
        const size_t at = line.find(kMark);
        if (line.find("(NEEDED)") == std::string::npos || at == std::string::npos) continue;
        const size_t start = at + kMark.size();
        names.insert(line.substr(start, line.find(']', start) - start));
    }
    return names;
}

bool has_library(const std::set<std::string>& names, const std::string& start) {
    return std::any_of(names.begin(), names.end(), [&start](const std::string& name) {
        return name.compare(0, start.size(), start) == 0;
    });
}

std::set<std::string> read_list(const std::string& path) {
    std::ifstream list(path);
    std::set<std::string> lines;
    for (std::string line; std::getline(list, line);) {
        if (!line.empty() && line[0] != '#') lines.insert(line);
    }
    return lines;
}

}  // namespace pztest
