#ifndef PZ_FRAMEWORK_PRIVATE_PZ_PROBES_H
#define PZ_FRAMEWORK_PRIVATE_PZ_PROBES_H

/// PZ_PROBE(name, arguments...): a place where a tracer may look into the running library.
///
/// A note in the file tells tracers where the place is and in which registers or memory its
/// arguments are. While nobody looks it is one nop: hand over only values that are at hand. Their
/// meaning is a promise to users, see docs/probes.md. Where the build finds no <sys/sdt.h>, nothing
/// is left of it.
#if __has_include(<sys/sdt.h>)

#define SDT_USE_VARIADIC
#include <sys/sdt.h>

#ifdef __clang__  // warns where the macros of that header are used
#pragma clang diagnostic ignored "-Wgnu-zero-variadic-macro-arguments"
#endif

// A macro, because the assembler makes the note.
#define PZ_PROBE(name, ...) STAP_PROBEV(pzframework, name, __VA_ARGS__)

#else

/// For arguments that nobody asks for.
template <typename... Arguments>
constexpr void pz_no_probe(const Arguments&... /*arguments*/) noexcept {}

#define PZ_PROBE(name, ...) pz_no_probe(__VA_ARGS__)

#endif

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_PROBES_H
