#include <gtest/gtest.h>

#include <string>

#include "support/RunCommand.h"
#include "support/TempDir.h"

namespace {

/// What stands between the first line `open` and the next line "```".
std::string block_of(const std::string& text, const std::string& open) {
    const size_t at = text.find("\n" + open + "\n");
    if (at == std::string::npos) return "";
    const size_t start = at + open.size() + 2;
    return text.substr(start, text.find("\n```", start) + 1 - start);
}

}  // namespace

TEST(readmeTest, ItsProgramIsTheOneThatIsBuilt) {
    const std::string readme = pztest::read_file(PZ_ROOT "/README.md");
    const std::string program = pztest::read_file(PZ_ROOT "/examples/hello/main.cpp");
    ASSERT_FALSE(program.empty());
    EXPECT_EQ(program, block_of(readme, "```cpp"));
}

TEST(readmeTest, ItsProgramPrintsWhatItShows) {
    const std::string readme = pztest::read_file(PZ_ROOT "/README.md");
    const pztest::CommandResult hello = pztest::run_command(PZ_HELLO);
    EXPECT_EQ(0, hello.status);
    EXPECT_EQ(block_of(readme, "```text"), hello.output);
}
