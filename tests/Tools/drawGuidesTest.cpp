// scripts/draw-guides draws pictures of docs/. What they show is held by the tests of the classes.

#include <string>

#include <gtest/gtest.h>

#include "support/RunCommand.h"
#include "support/TempDir.h"

using pztest::read_file;
using pztest::run_command;

TEST(drawGuidesTest, ThePicturesAreThoseOfTheirDescriptions) {
    const pztest::TempDir folder;
    ASSERT_EQ(0, run_command(PZ_ROOT "/scripts/draw-guides " + folder.Path()).status);
    for (const char* picture :
         {"lock-map.svg", "timer-drift.svg", "message-pass.svg", "queue-and-guard.svg"}) {
        const std::string drawn = read_file(folder.File(picture));
        EXPECT_NE("", drawn) << picture;
        EXPECT_TRUE(read_file(PZ_ROOT "/docs/" + std::string(picture)) == drawn) << picture;
        EXPECT_NE(std::string::npos, drawn.find("prefers-color-scheme: dark")) << picture;
    }
}

TEST(drawGuidesTest, SaysThatItCannotWrite) {
    const auto result = run_command(PZ_ROOT "/scripts/draw-guides /nowhere 2>&1");
    EXPECT_NE(0, result.status);
    EXPECT_NE(std::string::npos, result.output.find("/nowhere/lock-map.svg"));
}
