#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "support/Document.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

// scripts/new-application makes a project of its own, which is built against the installed library
// with the commands that the script prints, tested, run, ended by SIGTERM, and packaged.

using pztest::CommandResult;
using pztest::read_file;
using pztest::run_command;
using pztest::TempDir;

namespace {

constexpr char kScript[] = PZ_ROOT "/scripts/new-application ";

CommandResult run_script(const std::string& arguments) {
    return run_command(kScript + arguments + " 2>&1");
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

/// An application "my-radio", beside the library as it is installed.
class newApplicationTest : public testing::Test {
protected:
    void SetUp() override {
        Succeed(PZ_CMAKE " --install " PZ_BUILD " --prefix " + prefix());
        made = run_script("my-radio " + quoted());
        ASSERT_EQ(0, made.status) << made.output;
    }

    /// The output of a command that must succeed.
    std::string Succeed(const std::string& command) const {
        const CommandResult result =
            run_command("export " + Environment() + "; { " + command + "; } 2>&1");
        EXPECT_EQ(0, result.status) << command << "\n" << result.output;
        return result.output;
    }

    /// Where CMake and the package's build find the library.
    std::string Environment() const {
        return "CMAKE_PREFIX_PATH=" + prefix() +
               " CMAKE_GENERATOR='" PZ_GENERATOR "' CXX=" PZ_COMPILER " LD_LIBRARY_PATH=" +
               prefix() + "/" PZ_LIBDIR;
    }

    std::string prefix() const { return dir.File("prefix"); }
    std::string folder() const { return dir.File("the radio"); }  // a blank is quoted
    std::string quoted() const { return "'" + folder() + "'"; }

    const TempDir dir;
    CommandResult made;
};

}  // namespace

TEST(newApplicationScriptTest, PrintsItsManual) {
    for (const char* option : {"--help", "-h"}) {
        const CommandResult result = run_script(option);
        EXPECT_EQ(0, result.status);
        EXPECT_TRUE(contains(result.output, "new-application NAME FOLDER")) << result.output;
    }
    EXPECT_EQ(2, run_script("").status);
    EXPECT_EQ(2, run_script("--no-such-option").status);
    EXPECT_EQ(2, run_script("only-a-name").status);
}

TEST(newApplicationScriptTest, RefusesNamesThatNoApplicationMayHave) {
    const TempDir dir;
    for (const char* name : {"''", "x", "Radio", "9radio", "my_radio", "radio-", "../x", "'a b'",
                             "sixteen-letters-", "sixteenlettersxx", "units", "test", "'a;b'"}) {
        const CommandResult result = run_script(std::string(name) + " " + dir.File("new"));
        EXPECT_EQ(2, result.status) << name;
        EXPECT_TRUE(contains(result.output, "not a name")) << result.output;
    }
    EXPECT_TRUE(std::filesystem::is_empty(dir.Path()));
}

TEST(newApplicationScriptTest, RefusesAFolderThatExistsOrHasNoPlace) {
    const TempDir dir;
    pztest::write_file(dir.File("file"), "kept");
    std::filesystem::create_symlink("/nowhere", dir.File("link"));
    for (const std::string& folder :
         {dir.Path(), dir.File("file"), dir.File("link"), dir.File("none/new")}) {
        const CommandResult result = run_script("radio " + folder);
        EXPECT_EQ(2, result.status) << folder;
    }
    EXPECT_EQ("kept", read_file(dir.File("file")));
    EXPECT_EQ(2, run_script("radio " + dir.File("new") + " more").status);
    EXPECT_FALSE(std::filesystem::exists(dir.File("new")));
}

TEST(newApplicationScriptTest, LeavesNoNameOfTheTemplate) {
    const TempDir dir;
    const CommandResult result = run_command("DEBFULLNAME='A & B' DEBEMAIL=ab@example.org " +
                                             std::string(kScript) + "radio " + dir.File("new"));
    ASSERT_EQ(0, result.status);
    EXPECT_EQ(3U, pztest::lines_of(result.output).size()) << result.output;
    EXPECT_EQ("", run_command("grep -r -e pz-template -e 'Your Name' " + dir.File("new")).output);
    EXPECT_EQ("",
              run_command("find " + dir.Path() + " -name '*pz-template*' -o -name '.new*'").output);
    EXPECT_TRUE(std::filesystem::exists(dir.File("new/debian/radio.service")));
    EXPECT_TRUE(contains(read_file(dir.File("new/debian/control")),
                         "Maintainer: A & B <ab@example.org>\n"));
}

TEST_F(newApplicationTest, ItsNextCommandsConfigureBuildAndRunIt) {
    const std::vector<std::string> commands = pztest::lines_of(made.output);
    ASSERT_EQ(3U, commands.size());
    Succeed(commands[0]);
    Succeed(commands[1]);
    Succeed("ctest --test-dir " + quoted() + "/build --no-tests=error");

    // It finds its settings, tells what it does, and ends in order.
    std::filesystem::create_directory(dir.File("run"));
    pztest::write_file(dir.File("run/settings"), "period_ms=20\n");
    const std::string command = commands[2].substr(0, commands[2].find("  #"));
    const std::string output = Succeed(
        "cd " + dir.File("run") + "; " + command +
        " & pid=$!; until grep -q '^[0-9]' status; do kill -0 $pid || exit 1; sleep 0.01; done; "
        "kill -TERM $pid; wait $pid");
    EXPECT_FALSE(contains(output, "[error]")) << output;
    EXPECT_TRUE(contains(read_file(dir.File("run/status")), " polls\n"));
    const std::vector<std::string> log = pztest::lines_of(read_file(dir.File("run/my-radio.log")));
    ASSERT_EQ(2U, log.size());
    EXPECT_TRUE(contains(log[0], " started, polls every 20 ms"));
    EXPECT_TRUE(contains(log[1], " ends after "));
}

TEST_F(newApplicationTest, ItsServiceFileIsValid) {
    if (run_command("command -v systemd-analyze").status != 0) return;  // not on this machine
    const std::string service = dir.File("my-radio.service");
    // The program of the service is to exist.
    Succeed("sed 's|/usr/bin/my-radio|/bin/true|' " + quoted() + "/debian/my-radio.service >" +
            service);
    EXPECT_EQ("", Succeed("systemd-analyze verify --man=no " + service));
    EXPECT_TRUE(contains(read_file(service), "\nRuntimeDirectory=my-radio\n"));
}

TEST_F(newApplicationTest, IsBuiltAsADebianPackage) {
    if (run_command("command -v dh_installsysusers").status != 0) return;  // no debhelper here
    // The library is no package here: what it belongs to is said by hand, where it lies as well.
    pztest::write_file(folder() + "/debian/shlibs.local", "libpzframework 1 libpzframework1\n");
    Succeed("cd " + quoted() +
            " && DEB_BUILD_OPTIONS=nocheck dpkg-buildpackage -d -b -us -uc --no-sign");
    const std::string package = dir.Path() + "/my-radio_1.0.0_*.deb";
    const std::string files = Succeed("dpkg-deb -c " + package);
    for (const char* file : {"./usr/bin/my-radio\n", "/systemd/system/my-radio.service\n",
                             "./usr/lib/sysusers.d/my-radio.conf\n"}) {
        EXPECT_TRUE(contains(files, file)) << file << files;
    }
    EXPECT_TRUE(contains(Succeed("dpkg-deb -f " + package + " Depends"), "libpzframework1"));
    // The program works once it is unpacked.
    const std::string root = dir.File("root");
    Succeed("dpkg-deb -x " + package + " " + root);
    EXPECT_TRUE(contains(Succeed("cd " + dir.Path() + " && { " + root +
                                 "/usr/bin/my-radio & pid=$!; until grep -q started my-radio.log; "
                                 "do sleep 0.01; done; kill -TERM $pid; wait $pid; } && "
                                 "cat my-radio.log"),
                         " ends after "));
}
