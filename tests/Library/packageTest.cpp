#include <set>
#include <string>

#include <gtest/gtest.h>

#include <Framework/PZFramework.h>

#include "support/ChildProcess.h"
#include "support/Consumer.h"
#include "support/ElfFile.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

// The library's file as a device meets it: what it needs, how it is hardened, with and without ICU.

namespace {

/// What readelf prints about the library.
std::string readelf(const std::string& options) {
    const pztest::CommandResult result =
        pztest::run_command("LC_ALL=C readelf -W " + options + " " PZ_LIBRARY);
    EXPECT_EQ(0, result.status);
    EXPECT_NE("", result.output);
    return result.output;
}

/// The first line of `text` that holds `mark`; "" when there is none.
std::string line_with(const std::string& text, const std::string& mark) {
    const size_t at = text.find(mark);
    if (at == std::string::npos) return "";
    const size_t end = text.find('\n', at);
    const size_t before = text.rfind('\n', at);
    const size_t start = before == std::string::npos ? 0 : before + 1;
    return text.substr(start, end - start);
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

TEST(packageTest, TheLibraryNeedsTheCompilersAndTheCLibraryOnly) {
    std::set<std::string> needed = pztest::needed_by(PZ_LIBRARY);
    for (auto name = needed.begin(); name != needed.end();) {
        name = name->compare(0, 8, "ld-linux") == 0 ? needed.erase(name) : std::next(name);
    }
    EXPECT_EQ(pztest::read_list(PZ_ABI "/needed.txt"), needed);
}

TEST(packageTest, TheLibraryIsNamedByItsInterfaceVersion) {
    EXPECT_TRUE(contains(line_with(readelf("-d"), "(SONAME)"), "[libpzframework.so.1]"));
}

TEST(packageTest, TheLibrarysRelocationsAreReadOnlyAndDoneAtOnce) {
    EXPECT_NE("", line_with(readelf("-l"), "GNU_RELRO"));
    EXPECT_TRUE(contains(line_with(readelf("-d"), "(FLAGS)"), "BIND_NOW"));
    EXPECT_TRUE(contains(line_with(readelf("-d"), "(FLAGS_1)"), "NOW"));
}

TEST(packageTest, TheLibraryStaysMapped) {
    EXPECT_TRUE(contains(line_with(readelf("-d"), "(FLAGS_1)"), "NODELETE"));
}

TEST(packageTest, TheLibraryWantsNoExecutableStack) {
    const std::string stack = line_with(readelf("-l"), "GNU_STACK");
    EXPECT_TRUE(contains(stack, " RW "));
    EXPECT_FALSE(contains(stack, "RWE"));
}

TEST(packageTest, TheLibrarysCodeIsNeverRelocated) {
    EXPECT_FALSE(contains(readelf("-d"), "TEXTREL"));
}

TEST(packageTest, TheLibraryNamesNoFolderToSearchForOthers) {
    const std::string dynamic = readelf("-d");
    EXPECT_FALSE(contains(dynamic, "(RPATH)"));
    EXPECT_FALSE(contains(dynamic, "(RUNPATH)"));
}

TEST(packageTest, AProcessWithoutIcuUsesAllButDetection) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        EXPECT_NE(0, pz_FwInitialize("no_icu", 1));
        PZString text("\xCC\xC5\xD3", XCP_KOI8_R);
        EXPECT_STREQ("\xD0\xBB\xD0\xB5\xD1\x81", text.ToTCHAR());
        EXPECT_STREQ(L"\x43B\x435\x441", text.ToWCHAR());
        PZString radio("\x80\x82", XCP_RDS);
        EXPECT_STREQ("\xC3\xA1\xC3\xA9", radio.ToTCHAR());
        PZWorker worker(1, 4000, 1);
        EXPECT_EQ(0, worker.Start("no_icu_worker"));
        worker.End(0);
        EXPECT_EQ(XCP_NONE, pz_cp_detect(pztest::kKoi8, sizeof pztest::kKoi8 - 1, XCP_NONE, 0));
        pz_FwFinalize();
        const std::string maps = pztest::read_file("/proc/self/maps");
        EXPECT_TRUE(contains(maps, "libpzframework.so"));
        EXPECT_FALSE(contains(maps, "libicu"));
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.status) << child.output;
}

TEST(packageTest, AProgramInTheSourceTreeDetectsNothingWithoutIcu) {
    EXPECT_TRUE(pztest::has_library(pztest::needed_by(PZ_DETECT), "libpzframework.so.1"));
    pztest::expect_no_detection(PZ_DETECT);
}

#ifdef PZ_DETECT_ICU
TEST(packageTest, AProgramInTheSourceTreeDetectsWithItsIcuTarget) {
    pztest::expect_detection_with_icu(PZ_DETECT_ICU);
}
#endif
