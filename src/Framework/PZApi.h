#ifndef PZ_FRAMEWORK_PZAPI_H
#define PZ_FRAMEWORK_PZAPI_H

/// @file
/// Attributes of the library's names.

/// Marks what the shared library exports; everything else stays hidden in it.
#define PZ_API __attribute__((visibility("default")))

/// Keeps a helper of an exported class out of the library's symbol table.
#define PZ_LOCAL __attribute__((visibility("hidden")))

/// Lets the compiler check a printf-style call. Counts from 1, `this` included.
#define PZ_PRINTF_FORMAT(formatIndex, firstArgument) \
    __attribute__((format(printf, formatIndex, firstArgument)))

#endif  // PZ_FRAMEWORK_PZAPI_H
