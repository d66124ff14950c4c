#ifndef PZ_FRAMEWORK_WRAPPER_PRIVATE_CP_CONV_TO_UTF8_H
#define PZ_FRAMEWORK_WRAPPER_PRIVATE_CP_CONV_TO_UTF8_H

/// The UTF-8 form of one source byte.
struct ST_UTF8_CHAR {
    int size;           ///< number of bytes, 1 to 3
    unsigned int code;  ///< the bytes in the low `size` bytes, first byte most significant
};

/// The characters of a single-byte set.
struct ST_UTF8_TABLE {
    ST_UTF8_CHAR chars[256];  ///< by source byte; [0] is never used: it ends the source
};

/// The converter of cp_conv_basic_rds.h, which says how it treats its arguments. An entry of
/// another size is reported; it ends the conversion without a terminator.
int cp_conv_to_utf8(char* dst, const char* src, unsigned int src_len, const ST_UTF8_TABLE& table);

#endif  // PZ_FRAMEWORK_WRAPPER_PRIVATE_CP_CONV_TO_UTF8_H
