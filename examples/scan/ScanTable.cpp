#include "ScanTable.h"

#include <cstdio>

#include "FirstLine.h"
#include "common/CodePageNames.h"

namespace {

void print_row(const FileRecord& record) {
    char crc[16] = "-";
    if (record.hasCrc) std::snprintf(crc, sizeof crc, "%08x", record.crc);
    const char* const page = code_page_name(record.page);
    std::printf("%11llu  %-12s  %-8s  %s\n", record.size, page != nullptr ? page : "-", crc,
                printable(record.path).c_str());
    if (!record.title.empty()) std::printf("%39s%s\n", "", record.title.c_str());
    if (!record.remark.empty()) std::printf("%39s(%s)\n", "", record.remark.c_str());
}

}  // namespace

void print_table(const Catalogue& catalogue) {
    std::printf("%11s  %-12s  %-8s  %s\n", "bytes", "code page", "CRC-32", "file, first line");
    unsigned long long bytes = 0;
    unsigned int remarks = 0;
    for (const FileRecord& record : catalogue.Records()) {
        print_row(record);
        bytes += record.size;
        if (!record.remark.empty()) ++remarks;
    }
    for (const std::string& problem : catalogue.Problems()) {
        std::printf("%s\n", printable(problem).c_str());
    }
    std::printf("%zu files, %llu bytes; %u with a remark, %zu other lines\n",
                catalogue.Records().size(), bytes, remarks, catalogue.Problems().size());
}
