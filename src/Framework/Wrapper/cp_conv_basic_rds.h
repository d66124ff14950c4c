#ifndef PZ_FRAMEWORK_WRAPPER_CP_CONV_BASIC_RDS_H
#define PZ_FRAMEWORK_WRAPPER_CP_CONV_BASIC_RDS_H

#include <Framework/PZApi.h>

/// @file
/// Broadcast radio text (programme service names, radio text) to UTF-8. pz_cp_conv reaches these
/// with XCP_RDS, XCP_RDS_2017 and XCP_RBDS_2017.
///
/// Threads:     any thread may call these; the tables are constant.
/// Source:      `src_len` bytes, or up to the first zero byte. Every byte has a character.
/// Destination: `dst_size` is not enforced. One byte becomes 1 to 3 bytes, and a single zero byte
///              is written at twice the length of the output, not directly after it. Pass a
///              zero-filled buffer of at least 2 x output + 1 bytes; 6 x (src_len + 1) bytes always
///              suffice.
/// Results:     the number of UTF-8 bytes written, terminator not counted. 0 for an empty source,
///              which writes one zero byte, and for a null pointer, which is reported.

/// The basic RDS set: control characters are spaces; arrows, Greek letters and fractions.
PZ_API int cp_conv_basic_rds_to_utf8(char* dst, unsigned int dst_size, const char* src,
                                     unsigned int src_len);

/// The RDS set of the 2017 tables: more Latin letters in their place.
PZ_API int cp_conv_basic_rds_2017_to_utf8(char* dst, unsigned int dst_size, const char* src,
                                          unsigned int src_len);

/// The RBDS set of the 2017 tables: as RDS 2017, but 0x24, 0x5C and 0x5E as in the basic set.
PZ_API int cp_conv_basic_rbds_2017_to_utf8(char* dst, unsigned int dst_size, const char* src,
                                           unsigned int src_len);

#endif  // PZ_FRAMEWORK_WRAPPER_CP_CONV_BASIC_RDS_H
