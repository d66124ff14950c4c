// scripts/check-includes holds the sources to the list of allowed includes, and draws that list.

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "support/RunCommand.h"
#include "support/TempDir.h"

using pztest::read_file;
using pztest::run_command;
using pztest::write_file;

namespace {

const std::string kScript = PZ_ROOT "/scripts/check-includes";

/// A small tree of two areas with its own list.
class CheckIncludesTest : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(Root() + "/scripts");
        std::filesystem::create_directories(Root() + "/src/Framework/Lower");
        std::filesystem::create_directories(Root() + "/src/Framework/Upper/private");
        List("Lower:\nUpper: Lower\n");
        Source("Lower/Base.h", "#include <string>\n");
        Source("Upper/private/Roof.cpp", "#include <Framework/Lower/Base.h>\n");
    }

    void List(const std::string& text) { write_file(Root() + "/scripts/area-includes.txt", text); }
    void Source(const std::string& name, const std::string& text) {
        write_file(Root() + "/src/Framework/" + name, text);
    }
    pztest::CommandResult Check() { return run_command(kScript + " --root " + Root() + " 2>&1"); }
    void ExpectComplaint(const std::string& line) {
        const auto result = Check();
        EXPECT_EQ(1, result.status);
        EXPECT_EQ(line + "\n", result.output);
    }
    const std::string& Root() const { return folder_.Path(); }

private:
    pztest::TempDir folder_;
};

TEST_F(CheckIncludesTest, TheSourcesIncludeWhatTheListAllows) {
    const auto result = run_command(kScript + " 2>&1");
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("includes: as listed\n", result.output);
}

TEST_F(CheckIncludesTest, ThePictureIsThatOfTheList) {
    const std::string picture = Root() + "/areas.svg";
    ASSERT_EQ(0, run_command(kScript + " --draw " + picture).status);
    EXPECT_EQ(read_file(PZ_ROOT "/docs/areas.svg"), read_file(picture));
}

TEST_F(CheckIncludesTest, AcceptsAnIncludeOfTheList) {
    const auto result = Check();
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("includes: as listed\n", result.output);
}

TEST_F(CheckIncludesTest, NamesThePlaceOfAnIncludeThatIsNotAllowed) {
    Source("Lower/Base.h", "#include <string>\n#include \"Framework/Upper/Roof.h\"\n");
    ExpectComplaint(Root() + "/src/Framework/Lower/Base.h:2: Lower must not include Upper");
}

TEST_F(CheckIncludesTest, NamesAnAreaThatTheListDoesNotKnow) {
    std::filesystem::create_directories(Root() + "/src/Framework/Annexe");
    Source("Annexe/Shed.h", "#include <Framework/Lower/Base.h>\n");
    ExpectComplaint(Root() + "/src/Framework/Annexe/Shed.h:1: Annexe must not include Lower");
}

TEST_F(CheckIncludesTest, NamesAnEntryThatNoSourceNeeds) {
    Source("Upper/private/Roof.cpp", "\n");
    ExpectComplaint("nothing in Upper includes Lower: take it off the list");
}

TEST_F(CheckIncludesTest, AsksForTheReasonOfAnIncludeFromAbove) {
    List("Lower: Upper\nUpper: Lower\n");
    Source("Lower/Base.h", "#include <Framework/Upper/Roof.h>\n");
    ExpectComplaint("Lower includes Upper, which is above it, without a reason");

    List("Lower:\n  Upper - the roof keeps the rain out\nUpper: Lower\n");
    EXPECT_EQ(0, Check().status);
}

}  // namespace
