#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/RunCommand.h"
#include "support/TempDir.h"

using pztest::CommandResult;
using pztest::run_command;
using pztest::TempDir;
using pztest::write_file;

namespace {

/// The public headers as a program includes them.
std::vector<std::string> public_headers() {
    const std::filesystem::path root(PZ_ROOT "/src");
    std::vector<std::string> headers;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        const std::filesystem::path path = entry.path().lexically_relative(root);
        const bool isPrivate = path.string().find("/private/") != std::string::npos;
        if (path.extension() == ".h" && !isPrivate) headers.push_back(path.string());
    }
    std::sort(headers.begin(), headers.end());
    return headers;
}

CommandResult compile(const std::string& options, const std::string& source) {
    return run_command(PZ_COMPILER " -std=c++17 -fsyntax-only -I" PZ_ROOT "/src -Werror " +
                       options + " " + source + " 2>&1");
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

/// Tries all lines in the body of one function.
CommandResult compile_lines(const std::string& lines) {
    const TempDir dir;
    const std::string source = dir.File("program.cpp");
    write_file(source,
               "#include <Framework/Easy.h>\nusing namespace std::chrono_literals;\n"
               "void use(pz::Worker& worker, pz::GuardedFile& file) {\n" +
                   lines + "}\n");
    return compile("", source);
}

}  // namespace

TEST(headersTest, EveryHeaderCompilesAfterTheMacrosOfQt) {
    const std::string macros =
        "#define signals public\n#define slots\n#define emit\n#define forever for (;;)\n"
        "#define foreach(variable, container) for (variable : container)\n";
    const std::string stillThere =
        "#ifndef signals\n#error signals is gone\n#endif\n"
        "struct Object { signals : int changed; };\n";
    const TempDir dir;
    const std::vector<std::string> headers = public_headers();
    ASSERT_LT(50U, headers.size());
    std::string all = macros;
    for (const std::string& header : headers) all += "#include <" + header + ">\n";
    const std::string source = dir.File("program.cpp");
    write_file(source, all + stillThere);
    const CommandResult result = compile("", source);
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(headersTest, NoHeaderWarnsInAProgramThatAsksForManyWarnings) {
    const std::string warnings =
        "-Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Weffc++ "
        "-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wcast-qual "
        "-Wdouble-promotion -Wformat=2 -Wundef -Wredundant-decls";
    const CommandResult result = compile(warnings, PZ_ROOT "/tests/consumer/warnings.cpp");
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_EQ("", result.output);
}

TEST(headersTest, AMistakeIsToldInWords) {
    const CommandResult result = compile_lines(
        "worker.post([](int) {});\n"
        "worker.call([](int) {});\n"
        "file.update([](std::string bytes) { bytes += 'x'; });\n"
        "pz::Sender<std::string> out(\"texts\");\n");
    EXPECT_NE(0, result.status);
    for (const char* words :
         {"what is posted is called without arguments", "what is called takes no arguments",
          "the function takes a std::string&, not a copy that nobody sees",
          "values are trivially copyable, or derive from PZSerializable"}) {
        EXPECT_TRUE(contains(result.output, words)) << words << "\n" << result.output;
    }
}

TEST(headersTest, AnUpdateTakesEveryKindOfFunctionThatChangesTheBytes) {
    const CommandResult result = compile_lines(
        "file.update([](std::string& bytes) { bytes += 'x'; });\n"
        "file.update([](auto& bytes) { bytes += 'x'; });\n"
        "file.update([](auto&& bytes) { bytes += 'x'; return true; });\n"
        "file.update([](const std::string& bytes) { return !bytes.empty(); });\n"
        "file.update([&worker](std::string&) mutable noexcept { return worker.pending() == 0; });\n"
        "file.update(static_cast<void (*)(std::string&)>([](std::string&) {}));\n");
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(headersTest, WhatEndsWithItsStatementIsWarnedOf) {
    const std::vector<std::string> lines = {
        "pz::Framework(\"radio\", 1);\n",
        "pz::Worker(\"tuner\");\n",
        "pz::StopSignal();\n",
        "worker.every(1s, [] {});\n",
        "worker.stop(1s);\n",
        "pz::Receiver<int>(worker, \"numbers\", [](int) {});\n",
    };
    std::string all;
    for (const std::string& line : lines) all += line;
    const CommandResult result = compile_lines(all);
    EXPECT_NE(0, result.status);
    constexpr unsigned int kFirst = 4;  // of the lines in the program
    for (unsigned int i = 0; i < lines.size(); ++i) {
        const std::string place = "program.cpp:" + std::to_string(kFirst + i) + ":";
        EXPECT_TRUE(contains(result.output, place)) << lines[i] << result.output;
    }
}
