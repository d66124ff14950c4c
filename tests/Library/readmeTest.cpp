#include <string>

#include <gtest/gtest.h>

#include "support/Document.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

TEST(readmeTest, ItsProgramIsTheOneThatIsBuilt) {
    const std::string readme = pztest::read_file(PZ_ROOT "/README.md");
    const std::string program = pztest::read_file(PZ_ROOT "/examples/hello/main.cpp");
    ASSERT_FALSE(program.empty());
    EXPECT_EQ(program, pztest::block_of(readme, "cpp main.cpp"));
}

TEST(readmeTest, ItsProgramPrintsWhatItShows) {
    const std::string readme = pztest::read_file(PZ_ROOT "/README.md");
    const pztest::CommandResult hello = pztest::run_command(PZ_HELLO);
    EXPECT_EQ(0, hello.status);
    EXPECT_EQ(pztest::block_of(readme, "text"), hello.output);
}
