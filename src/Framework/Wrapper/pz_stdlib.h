#ifndef PZ_FRAMEWORK_WRAPPER_PZ_STDLIB_H
#define PZ_FRAMEWORK_WRAPPER_PZ_STDLIB_H

#include <sys/types.h>

#include <Framework/PZApi.h>

// The C library's string, number, sleep and process calls behind one calling style. Everything
// here is re-entrant; any thread may call it. The copy helpers return 0, and never print.

/// Copies `src` with its terminator. `dstSize` is not enforced: `dst` must be large enough.
PZ_API int pz_strcpy(char* dst, unsigned int dstSize, const char* src);

/// Zeroes all `dstSize` bytes of `dst`, then copies at most `count` characters (at most `dstSize`
/// is the caller's duty; no terminator is added when `src` is that long).
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

/// Compares without regard to case, at most `n` characters; 0x7FFFFFFF for null or `n` 0.
///
/// Not symmetric: `a` that is a prefix of `b` compares equal; `b` that is a prefix of `a` does not.
PZ_API int pz_wcsnicmp(const wchar_t* a, const wchar_t* b, unsigned int n);

/// True for code points below 128.
PZ_API bool pz_iswascii(unsigned int c);

/// Writes `value` in `radix` 2 to 36 (digits 0-9, a-z) with a terminator; 0, or -1 with nothing
/// written for a null `buf` or another radix. Only radix 10 knows a minus sign; the others read
/// the 32 bits as unsigned. `bufSize` is not enforced: 34 characters always suffice.
PZ_API int pz__itoa(int value, char* buf, unsigned int bufSize, unsigned int radix);

/// The same with wide characters.
PZ_API int pz__itow(int value, wchar_t* buf, unsigned int bufSize, unsigned int radix);

/// The decimal number at the start of `s`, as wcstol reads it.
PZ_API long pz__wtoi(const wchar_t* s);
PZ_API long pz__wtol(const wchar_t* s);

/// Sleeps `ms` milliseconds: the result of one nanosleep; an interrupted sleep is not resumed.
PZ_API int pz_msleep(unsigned int ms);

/// Sleeps `s` seconds, the same way; the milliseconds wrap above 4294967 seconds.
PZ_API int pz_sleep(unsigned int s);

/// Writes the file systems' buffers to the disks.
PZ_API void pz_sync();

PZ_API pid_t pz_get_current_process_id();

/// The kernel's id of the calling thread.
PZ_API pid_t pz_get_current_thread_id();

/// Starts `program` (searched in PATH) as a child process and stores its id in `*pidOut`. False
/// for a null argument or a failed fork. The program gets no usable arguments: `arg` and what
/// follows are not passed on; callers pass the program only. A program that cannot be executed
/// ends the child with status 255. The caller waits for the child.
PZ_API bool pz_create_process(const char* program, pid_t* pidOut, const char* arg, ...);

/// Formats into `dst`, at most `count` wide characters; the rest of `dst` is zeroed.
PZ_API int pz_swprintf(wchar_t* dst, unsigned int count, const wchar_t* format, ...);

#endif  // PZ_FRAMEWORK_WRAPPER_PZ_STDLIB_H
