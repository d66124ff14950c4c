#ifndef PZ_FRAMEWORK_WRAPPER_PRIVATE_PZ_ICONV_NAMES_H
#define PZ_FRAMEWORK_WRAPPER_PRIVATE_PZ_ICONV_NAMES_H

#include <iterator>

#include <Framework/Wrapper/pz_cp_conv.h>

// The names for iconv_open, by EN_XCP. The last four are unusable on purpose, so that iconv_open
// refuses them; the radio sets have converters of their own.
// clang-format off
inline constexpr char kIconvNames[][13] = {
    /*  0 */ "ASCII",       "CP1256",       "CP1251",       "CP850",
    /*  4 */ "CP874",       "CP1252",       "CP1253",       "CP1254",
    /*  8 */ "ASCII",       "CP850",        "CP874",        "CP932",
    /* 12 */ "CP936",       "CP949",        "CP950",        "CP1251",
    /* 16 */ "CP1252",      "CP1253",       "CP1254",       "CP1256",
    /* 20 */ "SJIS",        "ISO646-US",    "ISO8859-1",    "ISO8859-2",
    /* 24 */ "ISO8859-4",   "ISO8859-5",    "ISO8859-6",    "ISO8859-7",
    /* 28 */ "ISO8859-8",   "ISO8859-9",    "ISO8859-10",   "ISO8859-16",
    /* 32 */ "UTF-8",       "WCHAR_T",      "UTF-16",       "UTF-16BE",
    /* 36 */ "UTF-16LE",    "GB18030",      "BIG-5",        "EUC-JP",
    /* 40 */ "EUC-KR",      "KOI8-R",       "KOI8-U",       "WINDOWS-1250",
    /* 44 */ "WINDOWS-1251", "WINDOWS-1256", "ISO-2022-JP", "ISO-2022-KR",
    /* 48 */ "ISO-2022-CN", "_____error",   "_____error",   "_____error",
    /* 52 */ "_____error",
};
// clang-format on
static_assert(std::size(kIconvNames) == XCP_NONE + 1, "kIconvNames follows EN_XCP");

#endif  // PZ_FRAMEWORK_WRAPPER_PRIVATE_PZ_ICONV_NAMES_H
