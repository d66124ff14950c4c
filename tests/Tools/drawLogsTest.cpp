// scripts/draw-logs draws the picture of docs/files-and-logs.md. What it shows is held by
// PZLSysFileOutTest.

#include <string>

#include <gtest/gtest.h>

#include "support/RunCommand.h"
#include "support/TempDir.h"

using pztest::read_file;
using pztest::run_command;

TEST(drawLogsTest, ThePictureIsThatOfItsDescription) {
    const pztest::TempDir folder;
    const std::string picture = folder.Path() + "/log-generations.svg";
    ASSERT_EQ(0, run_command(PZ_ROOT "/scripts/draw-logs " + picture).status);
    EXPECT_EQ(read_file(PZ_ROOT "/docs/log-generations.svg"), read_file(picture));
}

TEST(drawLogsTest, SaysThatItCannotWrite) {
    const auto result = run_command(PZ_ROOT "/scripts/draw-logs /nowhere/picture.svg 2>&1");
    EXPECT_NE(0, result.status);
    EXPECT_NE(std::string::npos, result.output.find("/nowhere/picture.svg"));
}
