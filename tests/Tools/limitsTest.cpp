#include <map>
#include <string>

#include <gtest/gtest.h>

#include "support/Document.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

namespace {

/// Values by quantity.
using Table = std::map<std::string, std::string>;

/// What stands between " | " in a row of a table.
std::string cell(const std::string& row, int number) {
    size_t at = 2;
    for (; number > 0; --number) at = row.find(" | ", at) + 3;
    return row.substr(at, row.find(" |", at) - at);
}

/// The first table of docs/limits.md, for the kind of machine that this test runs on.
Table page() {
    constexpr int kColumn = sizeof(void*) == 4 ? 2 : 1;
    Table table;
    for (const std::string& line : pztest::lines_of(pztest::read_file(PZ_ROOT "/docs/limits.md"))) {
        if (line == "## Fixed") break;
        if (line.compare(0, 2, "| ") == 0) table[cell(line, 0)] = cell(line, kColumn);
    }
    return table;
}

}  // namespace

TEST(limitsTest, ThePageHoldsWhatIsMeasured) {
    const Table table = page();
    const pztest::CommandResult measured = pztest::run_command("'" PZ_LIMITS "' --exact");
    ASSERT_EQ(0, measured.status);
    const auto lines = pztest::lines_of(measured.output);
    ASSERT_EQ(6U, lines.size()) << measured.output;
    for (const std::string& line : lines) {
        const std::string quantity = line.substr(0, line.find('\t'));
        const auto row = table.find(quantity);
        ASSERT_NE(table.end(), row) << "docs/limits.md has no row: " << quantity;
        EXPECT_EQ(row->second, line.substr(quantity.size() + 1)) << quantity;
    }
}

// The rest of the table is not the same on every machine, but follows from these rows.
TEST(limitsTest, TheNumberOfWorkersFollowsFromTheNumberOfDescriptors) {
    const Table table = page();
    const auto number = [&table](const char* quantity) { return std::stoi(table.at(quantity)); };
    const int started =
        4 + number("descriptors of a started process beside its own (and 1 with a log daemon)");
    const int workers = number("workers of a process with 1,024 descriptors, 4 of them its own");
    const int worker = number("descriptors of a worker that waits");
    EXPECT_LE(started + workers * worker, 1024 - 1);  // one for the wait for the start
    EXPECT_GT(started + (workers + 1) * worker, 1024 - 1);
}
