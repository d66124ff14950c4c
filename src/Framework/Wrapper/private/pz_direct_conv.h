#ifndef PZ_FRAMEWORK_WRAPPER_PRIVATE_PZ_DIRECT_CONV_H
#define PZ_FRAMEWORK_WRAPPER_PRIVATE_PZ_DIRECT_CONV_H

#include <Framework/Wrapper/pz_cp_conv.h>

// Conversion without iconv, of texts that iconv would convert, too, and with the same result:
// between UTF-8, wide characters and 16-bit units by their definitions, and between these and the
// pages of one byte a character by tables that were made by asking iconv for every byte.
//
// Everything else is iconv's: text that is not valid, text that does not fit, other pages.

/// Converts `size` bytes into at most `room` bytes and answers the number of bytes written; -1 when
/// iconv has to convert the text, from its start. What stands in `dst` then is part of what iconv
/// writes there.
///
/// Any thread may call it; it never waits for another one.
int pz_convert_directly(char* dst, int room, EN_XCP to, const char* src, int size,
                        EN_XCP from) noexcept;

/// To be called when iconv has converted a text between the two pages: it has their converters. A
/// page of one byte a character is asked for its table then, so that its next texts need no iconv.
/// When that does not succeed, iconv goes on to convert the page.
void pz_learn_from_iconv(EN_XCP to, EN_XCP from);

#endif  // PZ_FRAMEWORK_WRAPPER_PRIVATE_PZ_DIRECT_CONV_H
