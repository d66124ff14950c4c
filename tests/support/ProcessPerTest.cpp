#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"

// The main function of tests that leave their process unfit for another test: each runs in a
// process of its own, whatever their order. For executables that link pz_process_per_test.

namespace {

/// The full names of the tests that the command line asks for.
std::vector<std::string> selected_tests() {
    const pztest::ChildResult list = pztest::run_in_child([] {
        GTEST_FLAG_SET(list_tests, true);
        return RUN_ALL_TESTS();
    });
    if (!list.exited || list.status != 0) std::abort();
    std::vector<std::string> names;
    std::string suite;  // its name with the '.'
    std::istringstream lines(list.output);
    for (std::string line; std::getline(lines, line);) {
        line.erase(std::min(line.find("  # "), line.size()));  // a parameter
        if (line.compare(0, 2, "  ") == 0) {
            names.push_back(suite + line.substr(2));
        } else if (!line.empty() && line.back() == '.') {
            suite = line;
        }
    }
    return names;
}

bool passes(const std::string& name) {
    pztest::ChildProcess child([&name] {
        GTEST_FLAG_SET(filter, name);
        GTEST_FLAG_SET(repeat, 1);
        return RUN_ALL_TESTS();
    });
    return child.Wait() == 0;
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const int rounds = GTEST_FLAG_GET(repeat);
    if (GTEST_FLAG_GET(list_tests)) return RUN_ALL_TESTS();
    const std::vector<std::string> names = selected_tests();
    if (names.size() <= 1 && rounds == 1) return RUN_ALL_TESTS();

    std::vector<std::string> failed;
    for (int round = 0; round != rounds; ++round) {  // -1: for ever
        for (const std::string& name : names) {
            if (!passes(name)) failed.push_back(name);
        }
    }
    for (const std::string& name : failed) std::printf("[  FAILED  ] %s\n", name.c_str());
    return failed.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}
