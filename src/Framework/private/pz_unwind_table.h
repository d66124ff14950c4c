#ifndef PZ_FRAMEWORK_PRIVATE_PZ_UNWIND_TABLE_H
#define PZ_FRAMEWORK_PRIVATE_PZ_UNWIND_TABLE_H

#include <cstdint>

// The unwind tables of x86, where "frame" is ebp or rbp, and "stack" is esp or rsp.
#if (defined(__x86_64__) && defined(__LP64__)) || defined(__i386__)
#define PZ_HAS_UNWIND_TABLE

#ifdef __i386__
constexpr uintptr_t kPzStackRegister = 4;
constexpr uintptr_t kPzFrameRegister = 5;
constexpr uintptr_t kPzReturnAddress = 8;
#else
constexpr uintptr_t kPzFrameRegister = 6;
constexpr uintptr_t kPzStackRegister = 7;
constexpr uintptr_t kPzReturnAddress = 16;
#endif

/// How to get from a frame to its caller's. The caller's stack register is the CFA.
struct ST_PZ_UNWIND_RULES {
    uintptr_t cfaRegister;               // the CFA: this register,
    intptr_t cfaOffset;                  // and this many bytes;
    const unsigned char* cfaExpression;  // or, when not null, what this expression gives
    uintptr_t cfaExpressionSize;
    bool isFrameSaved;      // the caller's frame register; else it is unchanged
    intptr_t frameOffset;   // where it is saved, from the CFA
    bool hasReturnAddress;  // in the word before the CFA
    bool isOutermost;       // there is none
};

/// The rules for the instruction at `pc`; for a return address, ask for the byte before it. False
/// when there are none, or they need what is not told here: those of a signal's frame among them.
///
/// Any thread, also in a signal handler, as far as the compiler's run-time library lets it.
bool pz_find_unwind_rules(uintptr_t pc, ST_PZ_UNWIND_RULES& rules);

#endif

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_UNWIND_TABLE_H
