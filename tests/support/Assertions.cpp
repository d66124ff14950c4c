#include "support/Assertions.h"

namespace pztest {

unsigned int assertions_of(const std::string& output, const std::string& file) {
    const std::string rules = "#########\n#########\n";
    const std::string head = "\033[49m" + rules + "ASSERT Failed! - src/Framework/" + file + "(";
    const std::string tail = ")\n" + rules + "\033[0m";
    unsigned int found = 0;
    for (size_t at = output.find(head); at != std::string::npos; at = output.find(head, at + 1)) {
        const size_t line = at + head.size();
        const size_t end = output.find_first_not_of("0123456789", line);
        if (end == line || end == std::string::npos) continue;
        if (output.compare(end, tail.size(), tail) != 0) continue;
        const size_t next = output.find("ASSERT Failed!", end);
        if (output.find("[error] dumpDirectly()@PZCallStack.cpp(", end) < next) ++found;
    }
    return found;
}

}  // namespace pztest
