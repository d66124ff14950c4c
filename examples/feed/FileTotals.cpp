#include "FileTotals.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr int kMinNameWidth = 5;  // "total"

void print_row(int nameWidth, const FileTotals& row, const char* note) {
    std::printf("%-*s %12llu %9llu %9llu %9llu %10.1f%s\n", nameWidth, row.path.c_str(), row.bytes,
                row.lines, row.words, row.messages, row.milliseconds, note);
}

}  // namespace

void print_summary(const std::vector<FileTotals>& files, const FrameworkTimes& times) {
    int width = kMinNameWidth;
    for (const FileTotals& file : files)
        width = std::max(width, static_cast<int>(file.path.size()));

    std::printf("%-*s %12s %9s %9s %9s %10s  %s\n", width, "file", "bytes", "lines", "words",
                "messages", "ms", "checksum");
    FileTotals total;
    total.path = "total";
    unsigned int rows = 0;
    for (const FileTotals& file : files) {
        if (!file.begun) continue;
        char note[64];
        std::snprintf(note, sizeof note, "     %05u%s", file.checksum,
                      file.complete ? "" : "  (incomplete)");
        print_row(width, file, note);
        total.bytes += file.bytes;
        total.lines += file.lines;
        total.words += file.words;
        total.messages += file.messages;
        total.milliseconds += file.milliseconds;
        ++rows;
    }
    if (rows > 1) print_row(width, total, "");
    std::printf("framework started in %.2f ms, stopped in %.2f ms\n", times.start, times.stop);
}
