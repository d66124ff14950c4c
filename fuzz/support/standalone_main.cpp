#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

// Feeds a fuzz target the files of the folders that are named, without libFuzzer: what was once
// found stays found, in every kind of build.

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

/// Number of files that were fed.
int feed_folder(const char* folder) {
    int files = 0;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        std::ifstream stream(entry.path(), std::ios::binary);
        const std::string input{std::istreambuf_iterator<char>(stream), {}};
        // Names the culprit should it end the process.
        std::fprintf(stderr, "%s\n", entry.path().c_str());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
        ++files;
    }
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FOLDER...\n", argv[0]);
        return 2;
    }
    LLVMFuzzerInitialize(&argc, &argv);
    for (int i = 1; i < argc; ++i) {
        if (feed_folder(argv[i]) > 0) continue;
        std::fprintf(stderr, "%s: no seeds\n", argv[i]);
        return 1;
    }
    return 0;
}
