// A log that rotates by renaming and keeps to its size.
#include <cstdio>
#include <filesystem>

#include <Framework/Easy/RotatingLog.h>

int main() {
    constexpr std::size_t kSize = 1024;  // bytes of a file; or 1_KiB, with pz::literals
    {
        pz::RotatingLog log("easy_log.dir", "app", kSize, 3);
        if (!log) return 1;
        for (unsigned int khz = 87500; khz <= 108000; khz += 100) log.line("tuned to %u kHz", khz);
    }
    std::uintmax_t size = 0;
    unsigned int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator("easy_log.dir")) {
        size += entry.file_size();
        ++files;
    }
    std::printf("%u files, %s\n", files, size <= 4 * kSize ? "not above 4 KiB" : "too large");
    std::filesystem::remove_all("easy_log.dir");
}
