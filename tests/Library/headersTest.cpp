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

}  // namespace

TEST(headersTest, EveryHeaderCompilesBehindTheMacrosOfQt) {
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

TEST(headersTest, NoneWarnsInAProgramThatAsksForManyWarnings) {
    const std::string warnings =
        "-Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Weffc++ "
        "-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wcast-qual "
        "-Wdouble-promotion -Wformat=2 -Wundef -Wredundant-decls";
    const CommandResult result = compile(warnings, PZ_ROOT "/tests/consumer/warnings.cpp");
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_EQ("", result.output);
}
