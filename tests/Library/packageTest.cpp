#include <Framework/PZFramework.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

#include "support/ChildProcess.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

// The library as a program of a user meets it: what it needs, installed and linked.

using pztest::CommandResult;
using pztest::read_file;
using pztest::run_command;
using pztest::TempDir;
using pztest::write_file;

namespace {

/// The libraries that a program or library lists as needed.
std::set<std::string> needed_by(const std::string& path) {
    const std::string kMark = "Shared library: [";
    std::istringstream lines(run_command("LC_ALL=C readelf -d " + path).output);
    std::set<std::string> names;
    for (std::string line; std::getline(lines, line);) {
        const size_t at = line.find(kMark);
        if (line.find("(NEEDED)") == std::string::npos || at == std::string::npos) continue;
        const size_t start = at + kMark.size();
        names.insert(line.substr(start, line.find(']', start) - start));
    }
    return names;
}

bool has_library(const std::set<std::string>& names, const std::string& start) {
    return std::any_of(names.begin(), names.end(), [&start](const std::string& name) {
        return name.compare(0, start.size(), start) == 0;
    });
}

const char kKoi8[] =  // Russian for "All happy families are alike" in KOI8-R, three times
    "\xF7\xD3\xC5 \xD3\xDE\xC1\xD3\xD4\xCC\xC9\xD7\xD9\xC5 \xD3\xC5\xCD\xD8\xC9 "
    "\xD0\xCF\xC8\xCF\xD6\xC9 \xC4\xD2\xD5\xC7 \xCE\xC1 \xC4\xD2\xD5\xC7\xC1. "
    "\xF7\xD3\xC5 \xD3\xDE\xC1\xD3\xD4\xCC\xC9\xD7\xD9\xC5 \xD3\xC5\xCD\xD8\xC9 "
    "\xD0\xCF\xC8\xCF\xD6\xC9 \xC4\xD2\xD5\xC7 \xCE\xC1 \xC4\xD2\xD5\xC7\xC1. "
    "\xF7\xD3\xC5 \xD3\xDE\xC1\xD3\xD4\xCC\xC9\xD7\xD9\xC5 \xD3\xC5\xCD\xD8\xC9 "
    "\xD0\xCF\xC8\xCF\xD6\xC9 \xC4\xD2\xD5\xC7 \xCE\xC1 \xC4\xD2\xD5\xC7\xC1.\n";

/// The code page that a consumer detects.
int detected_by(const std::string& program) {
    const TempDir dir;
    write_file(dir.File("text"), kKoi8);
    return run_command(program + " <" + dir.File("text")).status;
}

#ifdef PZ_ICU_CONSUMER
void expect_detection_with_icu(const std::string& program) {
    EXPECT_TRUE(has_library(needed_by(program), "libicui18n.so."));
    EXPECT_EQ(XCP_KOI8_R, detected_by(program));
}
#endif

void expect_no_detection(const std::string& program) {
    EXPECT_TRUE(has_library(needed_by(program), "libpzframework.so."));
    EXPECT_FALSE(has_library(needed_by(program), "libicu"));
    EXPECT_EQ(XCP_NONE, detected_by(program));
}

/// The library, installed into a folder of its own.
class installedPackageTest : public testing::Test {
protected:
    void SetUp() override {
        const CommandResult result =
            run_command(PZ_CMAKE " --install " PZ_BUILD " --prefix " + prefix() + " 2>&1");
        ASSERT_EQ(0, result.status) << result.output;
    }

    std::string prefix() const { return dir.File("prefix"); }
    std::string library_folder() const { return prefix() + "/" PZ_LIBDIR; }

    const TempDir dir;
};

}  // namespace

TEST(packageTest, TheLibraryNeedsTheCompilersAndTheCLibraryOnly) {
    std::set<std::string> needed = needed_by(PZ_LIBRARY);
    // The loader itself, where it serves the thread-local storage.
    for (auto name = needed.begin(); name != needed.end();) {
        name = name->compare(0, 8, "ld-linux") == 0 ? needed.erase(name) : std::next(name);
    }
    EXPECT_EQ((std::set<std::string>{"libc.so.6", "libgcc_s.so.1", "libstdc++.so.6"}), needed);
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
        EXPECT_EQ(XCP_NONE, pz_cp_detect(kKoi8, sizeof kKoi8 - 1, XCP_NONE, 0));
        pz_FwFinalize();
        const std::string maps = read_file("/proc/self/maps");
        EXPECT_NE(std::string::npos, maps.find("libpzframework.so"));
        EXPECT_EQ(std::string::npos, maps.find("libicu"));
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.status) << child.output;
}

TEST(packageTest, AProgramInTheSourceTreeDetectsNothingWithoutIcu) {
    expect_no_detection(PZ_CONSUMER);
}

#ifdef PZ_ICU_CONSUMER
TEST(packageTest, AProgramInTheSourceTreeDetectsWithItsIcuTarget) {
    expect_detection_with_icu(PZ_ICU_CONSUMER);
}
#endif

TEST_F(installedPackageTest, ServesPrograms) {
    const std::string build = dir.File("build");
    const CommandResult result =
        run_command("{ " PZ_CMAKE " -S " PZ_CONSUMER_SOURCE " -B " + build +
                    " -DCMAKE_BUILD_TYPE=Debug -DCMAKE_PREFIX_PATH=" + prefix() +
                    " " PZ_CONFIGURE " && " PZ_CMAKE " --build " + build + "; } 2>&1");
    ASSERT_EQ(0, result.status) << result.output;
    expect_no_detection(build + "/consumer");
#ifdef PZ_ICU_CONSUMER
    expect_detection_with_icu(build + "/icu_consumer");
#else
    EXPECT_EQ("", read_file(build + "/icu_consumer"));
#endif
}

#ifdef PZ_ICU_CONSUMER
TEST_F(installedPackageTest, ServesProgramsThatAskPkgConfig) {
    for (const std::string package : {"pzframework", "pzframework-icu"}) {
        const std::string program = dir.File(package);
        const CommandResult result =
            run_command("{ flags=$(PKG_CONFIG_PATH=" + library_folder() +
                        "/pkgconfig pkg-config --cflags --libs " + package +
                        ") && " PZ_COMPILER " -std=c++17 -Wl,--as-needed " PZ_CONSUMER_SOURCE
                        "/main.cpp $flags -Wl,-rpath," +
                        library_folder() + " -o " + program + "; } 2>&1");
        ASSERT_EQ(0, result.status) << result.output;
        if (package == "pzframework") {
            expect_no_detection(program);
        } else {
            expect_detection_with_icu(program);
        }
    }
}
#endif
