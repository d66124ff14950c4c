#include "pz_interrupted_stack.h"

#ifdef PZ_HAS_INTERRUPTED_STACK

#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>

#include "pz_unwind_table.h"

#ifdef __arm__
/// Of the C library: the sorted unwind table of the object that holds `pc`, or 0.
extern "C" uintptr_t __gnu_Unwind_Find_exidx(uintptr_t pc, int* count);
#endif

namespace {

using Word = uintptr_t;

constexpr Word kWord = sizeof(Word);

/// Memory that may not be there.
class Memory {
public:
    /// False when it cannot be read. `T` must not reach into a third page.
    template <typename T>
    bool Read(Word address, T& value) {
        if (!IsReadable(address) || !IsReadable(address + sizeof value - 1)) return false;
        std::memcpy(&value, reinterpret_cast<const void*>(address), sizeof value);
        return true;
    }

private:
    static constexpr Word kPage = 4096;  // none is smaller
    static constexpr Word kNoPage = 1;

    bool IsReadable(Word address) {
        const Word page = address & ~(kPage - 1);
        if (page == known_[0] || page == known_[1]) return true;
        // The kernel reads a signal mask there before it refuses what it is to do with it. An
        // address of 0 would be none.
        constexpr int kNothing = ~0;
        constexpr size_t kMaskSize = 8;
        if (syscall(SYS_rt_sigprocmask, kNothing, page + kMaskSize, nullptr, kMaskSize) == -1 &&
            errno == EFAULT) {
            return false;
        }
        known_[1] = known_[0];
        known_[0] = page;
        return true;
    }

    Word known_[2] = {kNoPage, kNoPage};  // of the stack, and of code
};

#ifdef __i386__

struct ST_FRAME {
    Word pc;
    Word stack;
    Word frame;
};

ST_FRAME frame_of(const ucontext_t& context) {
    const greg_t* const registers = context.uc_mcontext.gregs;
    return {static_cast<Word>(registers[REG_EIP]), static_cast<Word>(registers[REG_ESP]),
            static_cast<Word>(registers[REG_EBP])};
}

/// Whether the instruction before this address is a call.
bool follows_call(Memory& memory, Word address) {
    unsigned char code[7];
    if (!memory.Read(address - sizeof code, code)) return false;
    if (code[2] == 0xE8) return true;
    constexpr size_t kLengths[] = {2, 3, 4, 6, 7};  // by a register, or by memory
    for (const size_t length : kLengths) {
        const unsigned char* const call = code + sizeof code - length;
        if (call[0] == 0xFF && (call[1] & 0x38U) == 0x10) return true;
    }
    return false;
}

/// The CFA in a linkage table: ((eip & a) >= b) << c, and a constant, above the stack pointer.
bool evaluate(const ST_PZ_UNWIND_RULES& rules, const ST_FRAME& from, Word& cfa) {
    constexpr unsigned char kExpression[] = {0x74, 0x04, 0x78, 0x00, 0x3F, 0x1A,
                                             0x3B, 0x2A, 0x32, 0x24, 0x22};
    if (rules.cfaExpressionSize != sizeof kExpression) return false;
    for (size_t i = 0; i < sizeof kExpression; ++i) {
        constexpr size_t kBound = 6;  // 9, 10 or 11
        const bool isSame = rules.cfaExpression[i] == kExpression[i];
        if (!isSame && (i != kBound || (rules.cfaExpression[i] & 0xF0U) != 0x30)) return false;
    }
    const Word bound = rules.cfaExpression[6] & 0x0FU;
    cfa = from.stack + kWord + (((from.pc & 15) >= bound ? 1U : 0U) << 2U);
    return true;
}

/// Whether a call returns to this address.
bool is_return_address(Memory& memory, Word address) {
    ST_PZ_UNWIND_RULES rules{};
    return follows_call(memory, address) && pz_find_unwind_rules(address - 1, rules);
}

bool find_cfa(const ST_PZ_UNWIND_RULES& rules, const ST_FRAME& frame, Word& cfa) {
    if (rules.cfaExpression != nullptr) return evaluate(rules, frame, cfa);
    const bool isFromFrame = rules.cfaRegister == kPzFrameRegister;
    if (!isFromFrame && rules.cfaRegister != kPzStackRegister) return false;
    cfa = (isFromFrame ? frame.frame : frame.stack) + static_cast<Word>(rules.cfaOffset);
    return cfa > frame.stack;  // no stack grows the other way
}

/// From a frame to its caller's, by the tables.
bool follow(Memory& memory, const ST_PZ_UNWIND_RULES& rules, ST_FRAME& frame) {
    ST_FRAME caller = frame;
    if (!find_cfa(rules, frame, caller.stack) || !rules.hasReturnAddress) return false;
    if (rules.isFrameSaved &&
        !memory.Read(caller.stack + static_cast<Word>(rules.frameOffset), caller.frame)) {
        return false;
    }
    if (!memory.Read(caller.stack - kWord, caller.pc)) return false;
    if (!is_return_address(memory, caller.pc)) return false;
    frame = caller;
    return true;
}

/// Code that was written by hand (memcpy) says nothing of a register that it keeps on the stack for
/// a few instructions: its return address is not far.
bool search(Memory& memory, ST_FRAME& frame) {
    constexpr Word kWords = 8;
    for (Word i = 0; i < kWords; ++i) {
        Word address = 0;
        if (!memory.Read(frame.stack + i * kWord, address)) return false;
        if (!is_return_address(memory, address)) continue;
        frame.pc = address;
        frame.stack += (i + 1) * kWord;
        return true;
    }
    return false;
}

/// From a frame to its caller's. False when there is none, or it is not certain.
bool step(Memory& memory, ST_FRAME& frame, bool isInterrupted) {
    ST_PZ_UNWIND_RULES rules{};
    // A call may be the last instruction of its function: the byte before belongs to it.
    const bool isKnown = pz_find_unwind_rules(isInterrupted ? frame.pc : frame.pc - 1, rules);
    if (!isKnown) return isInterrupted && search(memory, frame);
    return !rules.isOutermost && (follow(memory, rules, frame) || search(memory, frame));
}

void* address_of(const ST_FRAME& frame) {
    return reinterpret_cast<void*>(frame.pc);
}

#endif  // __i386__

#ifdef __arm__

constexpr Word kThumb = 1;  // in an address: the kind of the instructions that stand there
constexpr Word kSp = 13;
constexpr Word kLr = 14;
constexpr Word kPc = 15;

/// r0 to r15. The address in r15 tells the kind of its instructions.
struct ST_FRAME {
    Word registers[16];
};

ST_FRAME frame_of(const ucontext_t& context) {
    constexpr Word kThumbState = 0x20;
    ST_FRAME frame{};
    std::memcpy(frame.registers, &context.uc_mcontext.arm_r0, sizeof frame.registers);
    if ((context.uc_mcontext.arm_cpsr & kThumbState) != 0) frame.registers[kPc] |= kThumb;
    return frame;
}

/// Whether the instruction before this address is a call.
bool follows_call(Memory& memory, Word address) {
    if ((address & kThumb) == 0) {
        Word call = 0;
        if (address % kWord != 0 || !memory.Read(address - kWord, call)) return false;
        return (call & 0x0F000000U) == 0x0B000000 ||  // bl
               (call & 0xFE000000U) == 0xFA000000 ||  // blx to an address
               (call & 0x0FFFFFF0U) == 0x012FFF30;    // blx by a register
    }
    uint16_t call[2];
    if (!memory.Read(address - kThumb - sizeof call, call)) return false;
    return (call[1] & 0xFF87U) == 0x4780 ||  // blx by a register; else bl or blx to an address
           ((call[0] & 0xF800U) == 0xF000 && (call[1] & 0xC000U) == 0xC000);
}

struct ST_ENTRY {
    Word begin;
    Word data;
};

const ST_ENTRY* table_for(Word pc, int& count) {
    return reinterpret_cast<const ST_ENTRY*>(__gnu_Unwind_Find_exidx(pc, &count));
}

/// Whether a call returns to this address.
bool is_return_address(Memory& memory, Word address) {
    int count = 0;
    return follows_call(memory, address) && table_for(address, count) != nullptr;
}

/// A relative address of 31 bits.
Word target_of(const Word& place) {
    const auto twice = static_cast<int32_t>(place << 1U);
    return reinterpret_cast<Word>(&place) + static_cast<Word>(twice / 2);
}

/// What the table says of a function: how to undo what its beginning did, the last first.
struct ST_FUNCTION {
    void Add(Word word, unsigned int bytes) {
        while (bytes-- > 0 && size < sizeof steps) {
            steps[size++] = static_cast<unsigned char>(word >> (8 * bytes));
        }
    }

    Word begin;
    unsigned int size;
    unsigned char steps[64];
};

/// False for a function that has no table, or no caller.
bool find_function(Word pc, ST_FUNCTION& function) {
    constexpr Word kCannotUnwind = 1;
    constexpr Word kCompact = 0x80000000;
    int count = 0;
    const ST_ENTRY* entry = table_for(pc, count);
    if (entry == nullptr || count == 0 || pc < target_of(entry->begin)) return false;
    while (count > 1) {
        const int half = count / 2;
        if (target_of(entry[half].begin) <= pc) entry += half;
        count -= half;
    }
    if (entry->data == kCannotUnwind) return false;
    function.begin = target_of(entry->begin);
    function.size = 0;

    const Word* data = &entry->data;
    unsigned int bytes = 3;
    Word more = 0;
    if ((*data & kCompact) == 0) data = reinterpret_cast<const Word*>(target_of(*data));
    if ((*data & kCompact) == 0) {
        ++data;  // after the address of the language's own routine
        more = *data >> 24U;
    } else if ((*data >> 24U & 0x0FU) != 0) {
        bytes = 2;
        more = *data >> 16U & 0xFFU;
    }
    function.Add(*data, bytes);
    while (more-- > 0) function.Add(*++data, kWord);
    return function.size < sizeof function.steps;
}

/// Undoes the steps of a function, but for the first `skipped` ones.
class Undoing {
public:
    Undoing(Memory& memory, const ST_FUNCTION& function, const ST_FRAME& frame)
        : memory_(memory), at_(function.steps), end_(at_ + function.size), frame_(frame) {}

    /// False when they are not understood, or lead away from the stack.
    bool Run(int skipped) {
        frame_.registers[kPc] = 0;
        const ST_FRAME before = frame_;
        while (at_ != end_ && *at_ != kFinish) {
            if (!Step()) return false;
            if (++count_ <= skipped) frame_ = before;
        }
        if (frame_.registers[kPc] == 0) frame_.registers[kPc] = frame_.registers[kLr];
        return frame_.registers[kSp] >= before.registers[kSp];
    }
    int Count() const { return count_; }
    const ST_FRAME& Frame() const { return frame_; }

private:
    static constexpr unsigned char kFinish = 0xB0;

    Word Next() { return at_ != end_ ? *at_++ : 0; }

    bool Step() {
        Word& sp = frame_.registers[kSp];
        const Word code = Next();
        if (code < 0x80) {
            const Word bytes = ((code & 0x3FU) + 1) * kWord;
            sp += code < 0x40 ? bytes : -bytes;
            return true;
        }
        switch (code >> 4U) {
            case 0x8: {  // pop some of r4 to r15
                const Word high = code & 0x0FU;
                return Pop(high << 12U | Next() << 4U);
            }
            case 0x9:  // sp was kept in a register, neither sp nor pc
                sp = frame_.registers[code & 0x0FU];
                return code != 0x9D && code != 0x9F;
            case 0xA: {  // pop r4 and up, with or without lr
                const Word low = (2U << (code & 7U)) - 1;
                return Pop(low << 4U | (code & 8U) << (kLr - 3));
            }
            default:
                return StepRare(code);
        }
    }

    bool StepRare(Word code) {
        constexpr Word kPopLow = 0xB1;       // some of r0 to r3
        constexpr Word kRaiseByMuch = 0xB2;  // sp, by more than a step in one byte can
        constexpr Word kLeastRaised = 0x204;
        Word& sp = frame_.registers[kSp];
        if (code == kPopLow) return Pop(Next() & 0x0FU);
        if (code == kRaiseByMuch) {
            Word words = 0;
            Word byte = 0x80;
            for (Word shift = 0; (byte & 0x80U) != 0 && shift < 32; shift += 7) {
                byte = Next();
                words |= (byte & 0x7FU) << shift;
            }
            sp += kLeastRaised + words * kWord;
            return true;
        }
        return PassDoubles(code);
    }

    /// Registers for floating-point numbers, which are not needed: 0xB3, 0xC8 and 0xC9 name them in
    /// a byte of their own, 0xB8 to 0xBF and 0xD0 to 0xD7 count them from d8 on. Those below 0xC0
    /// were stored with one word more.
    bool PassDoubles(Word code) {
        constexpr Word kDouble = 8;
        const bool isListed = code == 0xB3 || code == 0xC8 || code == 0xC9;
        if (!isListed && code < 0xB8) return false;
        if (!isListed && code >= 0xC0 && code >> 3U != 0xD0U >> 3U) return false;
        const Word last = isListed ? Next() & 0x0FU : code & 7U;
        frame_.registers[kSp] += (last + 1) * kDouble + (code < 0xC0 ? kWord : 0);
        return true;
    }

    bool Pop(Word registers) {
        if (registers == 0 || (registers & 1U << kSp) != 0) return false;
        for (Word i = 0; i <= kPc; ++i) {
            if ((registers >> i & 1U) == 0) continue;
            if (!memory_.Read(frame_.registers[kSp], frame_.registers[i])) return false;
            frame_.registers[kSp] += kWord;
        }
        return true;
    }

    Memory& memory_;
    const unsigned char* at_;
    const unsigned char* const end_;
    ST_FRAME frame_;
    int count_ = 0;
};

/// Whether an instruction of a function's beginning is one that a step undoes.
bool is_begun_by_thumb(Word code) {
    return (code & 0xFE00U) == 0xB400 ||  // push
           (code & 0xFF80U) == 0xB080 ||  // sub sp
           (code & 0xFF00U) == 0xAF00 ||  // add r7, sp
           (code & 0xFF78U) == 0x4668;    // mov from sp
}
bool is_begun_by_wide_thumb(Word code) {
    constexpr Word kOnStack[] = {0xE92D, 0xF84D, 0xE96D,  // push, str, strd
                                 0xF1AD, 0xF2AD, 0xF5AD,  // sub sp, of each kind
                                 0xED2D};                 // vpush
    for (const Word known : kOnStack) {
        if (code == known) return true;
    }
    return false;
}
bool is_begun_by_arm(Word code) {
    return (code & 0x0FFF0000U) == 0x092D0000 ||  // push
           (code & 0x0FFF0000U) == 0x052D0000 ||  // str
           (code & 0x0FFFF000U) == 0x024DD000 ||  // sub sp
           (code & 0x0FFFF000U) == 0x028DB000 ||  // add fp, sp
           (code & 0x0FBF0000U) == 0x0D2D0000;    // vpush
}

/// How many steps the function has done before `pc`; more than any has where its beginning is over.
int count_begun(Memory& memory, const ST_FUNCTION& function, Word pc) {
    constexpr Word kLongest = 48;
    constexpr int kAll = 1000;
    if (pc - kThumb - function.begin >= kLongest) return kAll;
    int count = 0;
    if ((pc & kThumb) == 0) {
        for (Word at = function.begin; at < pc; at += kWord) {
            Word code = 0;
            if (!memory.Read(at, code)) return kAll;
            count += is_begun_by_arm(code) ? 1 : 0;
        }
        return count;
    }
    for (Word at = function.begin & ~kThumb; at < pc - kThumb;) {
        uint16_t code = 0;
        if (!memory.Read(at, code)) return kAll;
        const bool isWide = code >= 0xE800;
        count += (isWide ? is_begun_by_wide_thumb(code) : is_begun_by_thumb(code)) ? 1 : 0;
        at += isWide ? kWord : kWord / 2;
    }
    return count;
}

bool follow(Memory& memory, const ST_FUNCTION& function, int skipped, ST_FRAME& frame) {
    Undoing undoing(memory, function, frame);
    if (!undoing.Run(skipped)) return false;
    if (!is_return_address(memory, undoing.Frame().registers[kPc])) return false;
    frame = undoing.Frame();
    return true;
}

/// Whether this may be the frame of a caller: it can be followed further.
bool is_caller(Memory& memory, ST_FRAME frame) {
    const Word pc = frame.registers[kPc];
    ST_FUNCTION function{};
    return is_return_address(memory, pc) && find_function((pc & ~kThumb) - 1, function) &&
           follow(memory, function, 0, frame);
}

/// The tables tell of calls, and a signal may come in the midst of a function's beginning or end:
/// some of its steps are not done yet then, or undone already.
bool follow_interrupted(Memory& memory, const ST_FUNCTION& function, ST_FRAME& frame) {
    Undoing all(memory, function, frame);
    all.Run(0);
    const int begun = count_begun(memory, function, frame.registers[kPc]);
    const int first = begun < all.Count() ? all.Count() - begun : 0;
    for (const bool isFollowed : {true, false}) {
        for (int i = -1; i <= all.Count(); ++i) {
            ST_FRAME caller = frame;
            if (!follow(memory, function, i == -1 ? first : i, caller)) continue;
            if (isFollowed && !is_caller(memory, caller)) continue;
            frame = caller;
            return true;
        }
    }
    return false;
}

/// Most functions of the C library have no table. The return address may still be in a register, or
/// it stands on the stack: it is the first there that can be one, but for what an earlier call has
/// left there.
bool search(Memory& memory, ST_FRAME& frame, bool isInterrupted) {
    constexpr Word kWords = 512;
    ST_FRAME caller = frame;
    caller.registers[kPc] = frame.registers[kLr];
    if (isInterrupted && is_caller(memory, caller)) {
        frame = caller;
        return true;
    }
    Word& sp = caller.registers[kSp];
    for (Word i = 0; i < kWords; ++i) {
        if (!memory.Read(sp, caller.registers[kPc])) return false;
        sp += kWord;
        if (!is_caller(memory, caller)) continue;
        frame = caller;
        return true;
    }
    return false;
}

/// From a frame to its caller's. False when there is none, or it is not found.
bool step(Memory& memory, ST_FRAME& frame, bool isInterrupted) {
    ST_FUNCTION function{};
    const Word pc = frame.registers[kPc] & ~kThumb;
    // A call may be the last instruction of its function: what stands before belongs to it.
    if (!find_function(isInterrupted ? pc : pc - 1, function)) {
        return search(memory, frame, isInterrupted);
    }
    if (isInterrupted) return follow_interrupted(memory, function, frame);
    const Word sp = frame.registers[kSp];
    return follow(memory, function, 0, frame) && frame.registers[kSp] > sp;
}

void* address_of(const ST_FRAME& frame) {
    return reinterpret_cast<void*>(frame.registers[kPc] & ~kThumb);
}

#endif  // __arm__

}  // namespace

int pz_take_interrupted_stack(const void* context, void** addresses, int size) {
    Memory memory;
    ST_FRAME frame = frame_of(*static_cast<const ucontext_t*>(context));
    int count = 0;
    do {
        addresses[count++] = address_of(frame);
    } while (count < size && step(memory, frame, count == 1));
    return count;
}

#endif  // PZ_HAS_INTERRUPTED_STACK
