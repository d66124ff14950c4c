#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Document.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

// The probes of the library against docs/probes.md.

namespace {

/// The arguments of the probes by name; of a probe at several places, each place's.
using Probes = std::map<std::string, std::set<std::vector<std::string>>>;

/// What stands behind a label of readelf's; "" for another line.
std::string value_of(const std::string& line, const std::string& label) {
    const size_t at = line.find(label + ": ");
    return at == std::string::npos ? "" : line.substr(at + label.size() + 2);
}

/// "4@r5 4@[r4, #8]" and the like, as the machine's assembler writes operands.
std::vector<std::string> arguments_of(const std::string& text) {
    const std::regex argument(R"(-?\d@(\[[^\]]*\]|\S+))");
    std::vector<std::string> arguments;
    for (std::sregex_iterator it(text.begin(), text.end(), argument), end; it != end; ++it) {
        arguments.push_back(it->str());
    }
    return arguments;
}

Probes probes_of_library() {
    Probes probes;
    std::string name;
    for (const std::string& line :
         pztest::lines_of(pztest::run_command("readelf -nW " PZ_LIBRARY).output)) {
        const std::string provider = value_of(line, "Provider");
        EXPECT_TRUE(provider.empty() || provider == "pzframework") << provider;
        if (!value_of(line, "Name").empty()) name = value_of(line, "Name");
        const std::string arguments = value_of(line, "Arguments");
        if (!arguments.empty()) probes[name].insert(arguments_of(arguments));
    }
    return probes;
}

/// The page's rows "| name | `argument`, ... | when |".
std::map<std::string, size_t> argument_counts_of_page() {
    std::map<std::string, size_t> counts;
    const std::regex row(R"(\| ([a-z_]+) \|([^|]*)\|[^|]+\|)");
    for (const std::string& line : pztest::lines_of(pztest::read_file(PZ_ROOT "/docs/probes.md"))) {
        std::smatch match;
        if (!std::regex_match(line, match, row)) continue;
        const std::string arguments = match[2];
        const std::regex code("`[a-z]+`");
        counts[match[1]] = static_cast<size_t>(
            std::distance(std::sregex_iterator(arguments.begin(), arguments.end(), code), {}));
    }
    return counts;
}

TEST(probesTest, HaveTheNamesAndArgumentsOfTheirPage) {
    std::map<std::string, size_t> counts;
    for (const auto& [name, places] : probes_of_library()) {
        for (const auto& arguments : places) {
            const auto [probe, isNew] = counts.try_emplace(name, arguments.size());
            EXPECT_EQ(probe->second, arguments.size()) << name << " differs from place to place";
        }
    }
#if __has_include(<sys/sdt.h>)
    EXPECT_EQ(argument_counts_of_page(), counts);
#else
    EXPECT_TRUE(counts.empty());
#endif
}

/// The kernel's probes read registers, constants, and memory at a register plus a constant.
TEST(probesTest, HaveArgumentsThatTheKernelCanRead) {
    const std::regex operand(
        R"(-?[1248]@(%\w+|\$-?\d+|-?\d*\(%\w+\)|[a-z]\w*|#-?\d+|\[\w+(,\s*#-?\d+)?\]))");
    for (const auto& [name, places] : probes_of_library()) {
        for (const auto& arguments : places) {
            for (const std::string& argument : arguments) {
                EXPECT_TRUE(std::regex_match(argument, operand)) << name << " " << argument;
            }
        }
    }
}

}  // namespace
