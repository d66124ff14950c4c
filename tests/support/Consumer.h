#ifndef PZ_TESTS_SUPPORT_CONSUMER_H
#define PZ_TESTS_SUPPORT_CONSUMER_H

#include <string>

#include <gtest/gtest.h>

#include <Framework/Wrapper/pz_cp_conv.h>

#include "support/ElfFile.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

// What the programs of tests/consumer must do.

namespace pztest {

inline const char kKoi8[] =  // Russian for "All happy families are alike" in KOI8-R, three times
    "\xF7\xD3\xC5 \xD3\xDE\xC1\xD3\xD4\xCC\xC9\xD7\xD9\xC5 \xD3\xC5\xCD\xD8\xC9 "
    "\xD0\xCF\xC8\xCF\xD6\xC9 \xC4\xD2\xD5\xC7 \xCE\xC1 \xC4\xD2\xD5\xC7\xC1. "
    "\xF7\xD3\xC5 \xD3\xDE\xC1\xD3\xD4\xCC\xC9\xD7\xD9\xC5 \xD3\xC5\xCD\xD8\xC9 "
    "\xD0\xCF\xC8\xCF\xD6\xC9 \xC4\xD2\xD5\xC7 \xCE\xC1 \xC4\xD2\xD5\xC7\xC1. "
    "\xF7\xD3\xC5 \xD3\xDE\xC1\xD3\xD4\xCC\xC9\xD7\xD9\xC5 \xD3\xC5\xCD\xD8\xC9 "
    "\xD0\xCF\xC8\xCF\xD6\xC9 \xC4\xD2\xD5\xC7 \xCE\xC1 \xC4\xD2\xD5\xC7\xC1.\n";

/// The code page that a consumer detects.
inline int detected_by(const std::string& program) {
    const TempDir dir;
    write_file(dir.File("text"), kKoi8);
    return run_command(PZ_EMULATOR + program + " <" + dir.File("text")).status;
}

inline void expect_detection_with_icu(const std::string& program) {
    EXPECT_TRUE(has_library(needed_by(program), "libicui18n.so."));
    EXPECT_EQ(XCP_KOI8_R, detected_by(program));
}

inline void expect_no_detection(const std::string& program) {
    EXPECT_FALSE(has_library(needed_by(program), "libicu"));
    EXPECT_EQ(XCP_NONE, detected_by(program));
}

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_CONSUMER_H
