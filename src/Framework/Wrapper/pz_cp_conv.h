#ifndef PZ_FRAMEWORK_WRAPPER_PZ_CP_CONV_H
#define PZ_FRAMEWORK_WRAPPER_PZ_CP_CONV_H

#include <Framework/PZApi.h>

/// @file
/// Converts text between code pages and guesses the code page of unknown bytes.
///
/// Threads:   any thread may call anything; no call waits for another thread.
/// Keeps:     for each thread, the last three descriptors of iconv, which are closed when it ends;
///            for the process, a table of 1.5 KiB for each single-byte page that it converted from.
///            A program that converts nothing keeps nothing.
/// Ownership: nothing that is passed in is kept. Source and destination do not overlap.
/// Results:   the converters answer the number of units written, terminator not counted: bytes for
///            narrow targets, characters for XCP_WCHAR, 16-bit units for XCP_UTF16, XCP_UTF16BE
///            and XCP_UTF16LE. A result below 1 is a failure; so is converting an empty text.
/// Sizes:     a source length of -1 means up to the terminator. A size in bytes that does not fit
///            a positive 32-bit number is an invalid argument.
/// Failures:  reported. A failed conversion leaves an empty, terminated destination (the terminator
///            cut to the destination's size); invalid arguments leave it untouched.
/// Narrow:    a narrow target gets no terminator, although there must be room for one: pass a
///            zero-filled buffer.
/// States:    a stateful target (XCP_ISO2022_JP, _KR, _CN) is not returned to its initial state.
///            XCP_UTF16 begins with a byte order mark.

/// The code pages. The numbers are those of stored data and never change. The first two groups
/// partly name the same pages.
enum EN_XCP : int {
    // by script
    XCP_LATIN_ASCII = 0,
    XCP_ARABIC = 1,     ///< as XCP_CP1256
    XCP_CYRILLIC = 2,   ///< as XCP_CP1251
    XCP_LATIN_OEM = 3,  ///< as XCP_CP850
    XCP_THAI = 4,       ///< as XCP_CP874
    XCP_WESTERN = 5,    ///< as XCP_CP1252
    XCP_GREEK = 6,      ///< as XCP_CP1253
    XCP_TURKISH = 7,    ///< as XCP_CP1254

    // by number
    XCP_ASCII = 8,
    XCP_CP850 = 9,
    XCP_CP874 = 10,
    XCP_CP932 = 11,
    XCP_CP936 = 12,
    XCP_CP949 = 13,
    XCP_CP950 = 14,
    XCP_CP1251 = 15,
    XCP_CP1252 = 16,
    XCP_CP1253 = 17,
    XCP_CP1254 = 18,
    XCP_CP1256 = 19,

    // by name
    XCP_SJIS = 20,
    XCP_ISO646_US = 21,
    XCP_ISO8859_1 = 22,
    XCP_ISO8859_2 = 23,
    XCP_ISO8859_4 = 24,
    XCP_ISO8859_5 = 25,
    XCP_ISO8859_6 = 26,
    XCP_ISO8859_7 = 27,
    XCP_ISO8859_8 = 28,
    XCP_ISO8859_9 = 29,
    XCP_ISO8859_10 = 30,
    XCP_ISO8859_16 = 31,
    XCP_UTF8 = 32,
    /// The platform's wide characters, 32 bits each.
    XCP_WCHAR = 33,
    /// With a byte order mark.
    XCP_UTF16 = 34,
    /// Big endian.
    XCP_UTF16BE = 35,
    /// Little endian.
    XCP_UTF16LE = 36,
    XCP_GB18030 = 37,
    XCP_BIG5 = 38,
    XCP_EUC_JP = 39,
    XCP_EUC_KR = 40,
    XCP_KOI8_R = 41,
    XCP_KOI8_U = 42,
    XCP_WINDOWS_1250 = 43,
    XCP_WINDOWS_1251 = 44,
    XCP_WINDOWS_1256 = 45,
    XCP_ISO2022_JP = 46,
    XCP_ISO2022_KR = 47,
    XCP_ISO2022_CN = 48,

    // broadcast radio: sources only, and into XCP_UTF8 only
    XCP_RDS = 49,
    XCP_RDS_2017 = 50,
    XCP_RBDS_2017 = 51,

    XCP_NONE = 52  ///< no code page: nothing converts to or from it
};

/// Converts `src_len` bytes of `src` into at most `dst_size` bytes.
///
/// The radio sets (XCP_RDS, XCP_RDS_2017, XCP_RBDS_2017) convert to XCP_UTF8 only, any other
/// target is reported and answered with -1; they follow the rules of cp_conv_basic_rds.h, which
/// do not bound the output by `dst_size`.
PZ_API int pz_cp_conv(char* dst, unsigned int dst_size, EN_XCP to, const char* src,
                      unsigned int src_len, EN_XCP from);

/// Converts `src_len` bytes into at most `dst_count` wide characters, terminator included.
PZ_API int pz_mbtowc(wchar_t* dst, unsigned int dst_count, const char* src, unsigned int src_len,
                     EN_XCP from);

/// Converts `src_len` bytes into at most `dst_count` 16-bit units, terminator included. -1, without
/// a message, when `to` is not one of the three UTF-16 forms.
PZ_API int pz_mbtowc16(unsigned short* dst, unsigned int dst_count, EN_XCP to, const char* src,
                       unsigned int src_len, EN_XCP from);

/// Converts `src_len` wide characters into at most `dst_size` bytes.
PZ_API int pz_wctomb(char* dst, unsigned int dst_size, const wchar_t* src, int src_len, EN_XCP to);

/// Converts `src_len` 16-bit units, in the byte order of `from` (XCP_UTF16BE or XCP_UTF16LE), into
/// at most `dst_size` bytes.
PZ_API int pz_wc16tomb(char* dst, unsigned int dst_size, EN_XCP to, const unsigned short* src,
                       int src_len, EN_XCP from);

/// The likely code page of `size` bytes of `text`; XCP_NONE when there is none, or when it is not
/// supported, and, reported, for null, for no bytes, and when ICU fails.
///
/// The best match wins, unless it is less certain than `threshold` (0 to 100) and `hint` is among
/// the candidates: then the hint wins. XCP_NONE as the hint means no hint.
///
/// Uses the character-set detector of whatever ICU (libicui18n) the process has loaded; without one
/// it reports that and answers XCP_NONE.
PZ_API EN_XCP pz_cp_detect(const char* text, unsigned int size, EN_XCP hint, int threshold);

#endif  // PZ_FRAMEWORK_WRAPPER_PZ_CP_CONV_H
