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

/// The tables of a page's section: the first column and the one of that number.
Table tables_of(const std::string& page, const std::string& title, int column) {
    Table tables;
    bool isInside = false;
    for (const std::string& line : pztest::lines_of(pztest::read_file(PZ_ROOT "/docs/" + page))) {
        if (line.compare(0, 3, "## ") == 0) isInside = line == title;
        if (isInside && line.compare(0, 2, "| ") == 0) tables[cell(line, 0)] = cell(line, column);
    }
    return tables;
}

/// What docs/limits.md says for the kind of machine that this test runs on.
Table measured_before() {
    return tables_of("limits.md", "## Measured", sizeof(void*) == 4 ? 2 : 1);
}

}  // namespace

TEST(limitsTest, ThePageHoldsWhatIsMeasured) {
    const Table table = measured_before();
    const pztest::CommandResult measured = pztest::run_command("'" PZ_LIMITS "' --exact");
    ASSERT_EQ(0, measured.status);
    const auto lines = pztest::lines_of(measured.output);
    ASSERT_EQ(2U, lines.size()) << measured.output;
    for (const std::string& line : lines) {
        const std::string quantity = line.substr(0, line.find('\t'));
        const auto row = table.find(quantity);
        ASSERT_NE(table.end(), row) << "docs/limits.md has no row: " << quantity;
        EXPECT_EQ(row->second, line.substr(quantity.size() + 1)) << quantity;
    }
}

TEST(limitsTest, TheNumberOfWorkersFollowsFromTheNumberOfDescriptors) {
    const Table descriptors = tables_of("process.md", "## Descriptors", 1);
    // A row begins with its number.
    const int started = 4 + std::stoi(descriptors.at("`pz_FwInitialize`"));
    const int worker = std::stoi(descriptors.at("`PZWorker`"));
    const int wait = std::stoi(descriptors.at("a wait for events"));
    const int workers = std::stoi(
        measured_before().at("workers of a process with 1,024 descriptors, 4 of them its own"));
    EXPECT_LE(started + workers * worker, 1024 - wait);
    EXPECT_GT(started + (workers + 1) * worker, 1024 - wait);
}
