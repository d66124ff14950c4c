#ifndef PZ_FRAMEWORK_WRAPPER_PZ_STDLIB_H
#define PZ_FRAMEWORK_WRAPPER_PZ_STDLIB_H

#include <sys/types.h>

#include <Framework/PZApi.h>

/// @file
/// The C library's string, number, sleep and process calls in one calling style. Everything here is
/// re-entrant; any thread may call it. Sizes and counts are characters. Pointers must not be null,
/// unless an operation says otherwise. The copy helpers clear errno, return 0 and never print.
/// Texts must not overlap.

/// Copies `src` with its terminator. `dstSize` is not enforced: `dst` must be large enough.
PZ_API int pz_strcpy(char* dst, unsigned int dstSize, const char* src);

/// Zeroes all `dstSize` bytes of `dst`, then copies at most `count` characters, which must not
/// exceed `dstSize`. No terminator is added when `src` is that long.
PZ_API int pz_strncpy(char* dst, unsigned int dstSize, const char* src, unsigned int count);

/// Copies at most `count` wide characters, bounded despite the name; the rest up to `count` is
/// zeroed, and no terminator is added when `src` is that long.
PZ_API int pz_wcscpy(wchar_t* dst, unsigned int count, const wchar_t* src);

/// Zeroes all `dstCount` wide characters of `dst`, then copies at most `count`.
PZ_API int pz_wcsncpy(wchar_t* dst, unsigned int dstCount, const wchar_t* src, unsigned int count);

/// Appends at most `count` characters and a terminator; `count` does not bound the destination.
PZ_API int pz_strcat(char* dst, unsigned int count, const char* src);

/// The same with wide characters.
PZ_API int pz_wcscat(wchar_t* dst, unsigned int count, const wchar_t* src);

/// Characters before the terminator, at most `max`; 0 for null.
PZ_API unsigned int pz_wcsnlen(const wchar_t* s, unsigned int max);

/// Compares without regard to case, at most `n` characters: 0 when equal, else the first differing
/// character of `a` minus that of `b`, in lower case. 0x7FFFFFFF for null or `n` 0.
///
/// Not symmetric: a non-empty prefix `a` of `b` equals `b`; when `b` is a prefix of `a`, `a` is
/// greater.
PZ_API int pz_wcsnicmp(const wchar_t* a, const wchar_t* b, unsigned int n);

/// True for code points below 128.
PZ_API bool pz_iswascii(unsigned int c);

/// Writes `value` in `radix` 2 to 36 (digits 0-9, a-z) with a terminator; 0, or -1 with nothing
/// written for a null `buf` or another radix. Only radix 10 knows a minus sign; the others read
/// the 32 bits as unsigned. `bufSize` is not enforced: 34 characters always suffice.
PZ_API int pz__itoa(int value, char* buf, unsigned int bufSize, unsigned int radix);

/// The same with wide characters.
PZ_API int pz__itow(int value, wchar_t* buf, unsigned int bufSize, unsigned int radix);

/// The decimal number at the start of `s`, as wcstol reads it: 0 when there is none.
PZ_API long pz__wtoi(const wchar_t* s);

/// The same under a second name.
PZ_API long pz__wtol(const wchar_t* s);

/// Sleeps `ms` milliseconds with one nanosleep and returns its result: 0, or -1 with errno for an
/// interrupted sleep, which is not resumed.
PZ_API int pz_msleep(unsigned int ms);

/// Sleeps `s` seconds in the same way; above 4294967 seconds the milliseconds wrap.
PZ_API int pz_sleep(unsigned int s);

/// Writes all file systems to their disks, which takes long.
PZ_API void pz_sync();

/// The kernel's id of the process.
PZ_API pid_t pz_get_current_process_id();

/// The kernel's id of the calling thread.
PZ_API pid_t pz_get_current_thread_id();

/// Starts `program` (searched in PATH) as a child process and stores its id in `*pidOut`. False for
/// a null `program` or `pidOut`, and for a failed fork (reported). Wait for the child yourself.
///
/// Arguments are not passed on: the program gets its own name and one word without meaning. A
/// `program` of more than 15 characters is reported as an assertion, by the caller's process, and
/// started when that is printed: the call waits as long as the standard output does. A program that
/// cannot be executed ends the child with status 255 and a line on the standard error.
///
/// Any thread may call it, whatever the other threads do: until the program runs, the child makes
/// system calls only. Output that was not written yet stays the caller's.
PZ_API bool pz_create_process(const char* program, pid_t* pidOut, const char* arg, ...);

/// Formats into `dst`: at most `count` characters; the rest of its `count` characters is zeroed, so
/// a text that is cut has no terminator. Returns the number of characters stored, terminator not
/// counted; 0 for a null `dst` or `format`, and without memory (reported; `dst` is all zero then).
///
/// A conversion is %[flags][width][.precision][length]letter. The C library's formatting is the
/// model, with these letters:
///   d i   signed decimal                     o x X  unsigned octal and hexadecimal
///   u     unsigned decimal                   p      an address, in decimal
///   f F   floating point, never with an exponent; inf and nan in lower case
///   c     one wide character (wint_t or int)
///   s S   wide text, narrow text in UTF-8 with length h; a null pointer prints "(null)", and
///         bytes that are not UTF-8 print nothing and are reported
///   b     a truth value: "true" or "false"
///   %     a percent sign
/// Any other letter is copied as it stands, from its percent sign on, and takes no argument.
///
/// Flags:      '-' aligns to the left; '0' fills with zeros, after a sign or base prefix; '+' puts
///             a sign before d, i, f and F; '#' prefixes o, x and X with their base.
/// Width:      a number, or '*' for an int argument (a negative one aligns to the left).
/// Precision:  a number or '*': digits after the point of f and F (6 when left out), most
///             characters of s and S, after which nothing is read; without effect on the others.
///             A negative one counts as left out.
/// Length:     hh h l ll L j z t for the numbers, h and l for the texts.
/// Limits:     width and precision count as at most 4095.
///
/// The digits are those of the "C" locale, whatever the process has set.
PZ_API int pz_swprintf(wchar_t* dst, unsigned int count, const wchar_t* format, ...);

#endif  // PZ_FRAMEWORK_WRAPPER_PZ_STDLIB_H
