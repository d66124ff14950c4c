#include "support/Consumer.h"

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "support/ElfFile.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

// A user's project outside this tree, which takes the library in every way that it offers. The
// builds of the library that some ways need stay in the build folder and are only brought up to
// date by the next run.

using pztest::CommandResult;
using pztest::needed_by;
using pztest::read_file;
using pztest::run_command;
using pztest::TempDir;

namespace {

constexpr char kOnlyTheLibrary[] =
    " -DPZ_BUILD_TESTS=OFF -DPZ_BUILD_EXAMPLES=OFF -DPZ_BUILD_BENCHMARKS=OFF -DPZ_BUILD_TOOLS=OFF";

void expect_success(const std::string& command) {
    const CommandResult result = run_command("{ " + command + "; } 2>&1");
    ASSERT_EQ(0, result.status) << command << "\n" << result.output;
}

/// Runs CMake over `source` in `build` and builds everything. What has been compiled in another
/// folder, with this library, is taken from the compiler's cache where there is one.
void build_with_cmake(const std::string& source, const std::string& build,
                      const std::string& options) {
    expect_success("export CCACHE_NOHASHDIR=1; " PZ_CMAKE " -S " + source + " -B " + build +
                   " " PZ_CONFIGURE " " + options + " && " PZ_CMAKE " --build " + build);
}

void install(const std::string& build, const std::string& prefix) {
    expect_success(PZ_CMAKE " --install " + build + " --prefix " + prefix);
}

/// Where the static library is built, and a copy of the shared one for `way`.
std::string kept_folder(const std::string& name) {
    return std::string(PZ_BUILD "/consumers/") + name;
}

bool exists(const std::string& path) {
    return std::ifstream(path).good();
}

/// What the README says that its program prints.
std::string expected_greeting() {
    const std::string readme = read_file(PZ_ROOT "/README.md");
    const std::string kOpen = "\n```text\n";
    const size_t start = readme.find(kOpen) + kOpen.size();
    return readme.substr(start, readme.find("```", start) - start);
}

/// The programs in `folder` run and need the shared library, or hold the static one.
void expect_consumers_work(const std::string& folder, bool shared) {
    const CommandResult hello = run_command(folder + "/hello");
    EXPECT_EQ(0, hello.status);
    EXPECT_EQ(expected_greeting(), hello.output);
    for (const std::string program : {"/hello", "/detect"}) {
        EXPECT_EQ(shared, pztest::has_library(needed_by(folder + program), "libpzframework.so.1"));
    }
    // pz-top finds the process by this name, in the library or in the program that holds it.
    const std::string symbols = run_command("readelf -W --dyn-syms " + folder + "/hello").output;
    EXPECT_EQ(!shared, symbols.find(" pz_inspection\n") != std::string::npos) << symbols;
    pztest::expect_no_detection(folder + "/detect");
#ifdef PZ_WITH_ICU
    pztest::expect_detection_with_icu(folder + "/detect_icu");
#else
    EXPECT_FALSE(exists(folder + "/detect_icu"));
#endif
}

/// Compiles the consumers by hand, with what pkg-config answers.
void build_with_pkg_config(const TempDir& dir, const std::string& prefix,
                           const std::string& options) {
    const std::string folder = prefix + "/" PZ_LIBDIR;
    const auto compile = [&](const std::string& source, const std::string& package,
                             const std::string& program) {
        expect_success("flags=$(PKG_CONFIG_PATH=" + folder + "/pkgconfig pkg-config --cflags " +
                       options + " --libs " + package +
                       ") && " PZ_COMPILER " -std=c++17 -Wl,--as-needed " PZ_ROOT + source +
                       " $flags -Wl,-rpath," + folder + " -o " + dir.File(program));
    };
    compile("/examples/hello/main.cpp", "pzframework", "hello");
    compile("/tests/consumer/detect.cpp", "pzframework", "detect");
#ifdef PZ_WITH_ICU
    compile("/tests/consumer/detect.cpp", "pzframework-icu", "detect_icu");
#endif
}

/// The library, installed into a folder of its own.
class consumerTest : public testing::Test {
protected:
    std::string prefix() const { return dir.File("prefix"); }
    std::string libraries() const { return prefix() + "/" PZ_LIBDIR; }

    void ExpectCMakeFindsTheLibrary(bool shared) const {
        build_with_cmake(PZ_CONSUMERS, dir.File("build"), "-DCMAKE_PREFIX_PATH=" + prefix());
        expect_consumers_work(dir.File("build"), shared);
    }

    void ExpectPkgConfigFindsTheLibrary(bool shared) const {
        build_with_pkg_config(dir, prefix(), shared ? "" : "--static");
        expect_consumers_work(dir.Path(), shared);
    }

    const TempDir dir;
};

/// The shared library of this build.
class sharedConsumerTest : public consumerTest {
protected:
    void SetUp() override { install(PZ_BUILD, prefix()); }
};

}  // namespace

TEST_F(sharedConsumerTest, FindsTheLibraryWithCMake) {
    ExpectCMakeFindsTheLibrary(true);
}

TEST_F(sharedConsumerTest, FindsTheLibraryWithPkgConfig) {
    ExpectPkgConfigFindsTheLibrary(true);
}

TEST_F(sharedConsumerTest, IsRefusedAnotherInterfaceVersion) {
    pztest::write_file(dir.File("CMakeLists.txt"),
                       "cmake_minimum_required(VERSION 3.25)\n"
                       "project(consumer LANGUAGES CXX)\n"
                       "find_package(PZFramework 2 CONFIG REQUIRED)\n");
    const CommandResult result =
        run_command(PZ_CMAKE " -S " + dir.Path() + " -B " + dir.File("build") +
                    " " PZ_CONFIGURE " -DCMAKE_PREFIX_PATH=" + prefix() + " 2>&1");
    EXPECT_NE(0, result.status);
    EXPECT_NE(std::string::npos, result.output.find("version: 1.0.0")) << result.output;
}

TEST_F(sharedConsumerTest, IsGivenLicenceDocumentationAndExamples) {
    for (const std::string file :
         {"LICENSE", "README.md", "CHANGELOG.md", "docs/threads-and-locks.md", "docs/deployment.md",
          "examples/hello/main.cpp", "examples/textconv/CMakeLists.txt"}) {
        EXPECT_EQ(read_file(PZ_ROOT "/" + file), read_file(prefix() + "/" PZ_DOCDIR "/" + file));
        EXPECT_NE("", read_file(prefix() + "/" PZ_DOCDIR "/" + file)) << file;
    }
    EXPECT_EQ(0,
              run_command("test -x " + prefix() + "/" PZ_DOCDIR "/examples/twoprocess/run").status);
}

TEST_F(sharedConsumerTest, IsGivenTheLibraryUnderItsThreeNames) {
    for (const std::string name :
         {"libpzframework.so", "libpzframework.so.1", "libpzframework.so." PZ_VERSION}) {
        EXPECT_TRUE(exists(libraries() + "/" + name)) << name;
    }
}

/// The static library, built beside this build.
class staticConsumerTest : public consumerTest {
protected:
    void SetUp() override {
        build_with_cmake(PZ_ROOT, kept_folder("static"),
                         std::string("-DBUILD_SHARED_LIBS=OFF") + kOnlyTheLibrary);
        install(kept_folder("static"), prefix());
    }
};

TEST_F(staticConsumerTest, FindsTheLibraryWithCMake) {
    ExpectCMakeFindsTheLibrary(false);
}

TEST_F(staticConsumerTest, FindsTheLibraryWithPkgConfig) {
    ExpectPkgConfigFindsTheLibrary(false);
}

TEST(sourceConsumerTest, AddsTheLibrarysFolder) {
    const std::string build = kept_folder("add_subdirectory");
    build_with_cmake(PZ_CONSUMERS, build, "-DPZ_WAY=add_subdirectory");
    expect_consumers_work(build, true);
}

TEST(sourceConsumerTest, FetchesTheLibrary) {
    const std::string build = kept_folder("FetchContent");
    build_with_cmake(PZ_CONSUMERS, build, "-DPZ_WAY=FetchContent -DBUILD_SHARED_LIBS=OFF");
    expect_consumers_work(build, false);
}
