#ifndef SCAN_FILERECORD_H
#define SCAN_FILERECORD_H

#include <string>

#include <Framework/Wrapper/pz_cp_conv.h>

/// What the scan found out about one file.
struct FileRecord {
    std::string path;  ///< bytes, in whatever encoding the file system holds
    unsigned long long size = 0;
    EN_XCP page = XCP_NONE;  ///< XCP_NONE: not a text, or not recognised
    std::string title;       ///< the first line, in UTF-8 without control characters
    unsigned int crc = 0;    ///< CRC-32 of the whole file
    bool hasCrc = false;
    std::string remark;  ///< why something is missing; empty when nothing is
};

#endif  // SCAN_FILERECORD_H
