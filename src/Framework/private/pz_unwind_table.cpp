#include "pz_unwind_table.h"

#ifdef PZ_HAS_UNWIND_TABLE

#include <cstring>

extern "C" {
/// The bases of an entry of the unwind table; the last is the beginning of its function.
struct dwarf_eh_bases {
    void* tbase;
    void* dbase;
    void* func;
};
/// Of the compiler's run-time library: the entry (FDE) for the code at `pc`, or null.
const void* _Unwind_Find_FDE(void* pc, dwarf_eh_bases* bases);
}

namespace {

using Byte = unsigned char;

constexpr uintptr_t kWord = sizeof(void*);
constexpr unsigned int kWordBits = 8 * sizeof(void*);

/// How an address is written in a table. The upper bits say what it is relative to.
enum EN_ENCODING : Byte {
    en_ENCODED_WORD = 0x00,  // as the machine's own
    en_ENCODED_UNSIGNED_4 = 0x03,
    en_ENCODED_UNSIGNED_8 = 0x04,
    en_ENCODED_SIGNED_4 = 0x0B,
    en_ENCODED_SIGNED_8 = 0x0C,
    en_ENCODED_FORMAT = 0x0F,   // the bits of the above
    en_ENCODED_ALIGNED = 0x50,  // whole
};

/// The instructions of a table, DW_CFA_... in the format's own description: these in the upper two
/// bits, with the operand in the others.
enum EN_PACKED_INSTRUCTION : Byte { en_ADVANCE = 1, en_OFFSET = 2, en_RESTORE = 3 };

/// Those where the upper two bits are 0.
enum EN_INSTRUCTION : Byte {
    en_NOP,
    en_ADVANCE_1 = 0x02,
    en_ADVANCE_2 = 0x03,
    en_ADVANCE_4 = 0x04,
    en_OFFSET_EXTENDED = 0x05,
    en_RESTORE_EXTENDED = 0x06,
    en_UNDEFINED = 0x07,
    en_SAME_VALUE = 0x08,
    en_REMEMBER_STATE = 0x0A,
    en_RESTORE_STATE = 0x0B,
    en_DEF_CFA = 0x0C,
    en_DEF_CFA_REGISTER = 0x0D,
    en_DEF_CFA_OFFSET = 0x0E,
    en_DEF_CFA_EXPRESSION = 0x0F,
    en_EXPRESSION = 0x10,
    en_OFFSET_EXTENDED_SIGNED = 0x11,
    en_VALUE_EXPRESSION = 0x16,
    en_ARGUMENTS_SIZE = 0x2E,
};

/// Reads the parts of an entry one after the other.
class Reader {
public:
    Reader(const Byte* begin, const Byte* end) : at_(begin), end_(end) {}

    bool IsAtEnd() const { return at_ >= end_; }
    const Byte* At() const { return at_; }
    void Skip(uintptr_t bytes) { at_ += bytes; }

    template <typename T>
    T Take() {
        T value{};
        std::memcpy(&value, at_, sizeof value);
        at_ += sizeof value;
        return value;
    }

    /// A number in groups of seven bits, the lowest first.
    uintptr_t TakeUnsigned() {
        unsigned int shift = 0;
        return TakeGroups(shift);
    }
    intptr_t TakeSigned() {
        unsigned int shift = 0;
        uintptr_t value = TakeGroups(shift);
        const bool isNegative = (at_[-1] & 0x40U) != 0;
        if (isNegative && shift < kWordBits) value |= ~uintptr_t{0} << shift;
        return static_cast<intptr_t>(value);
    }

private:
    uintptr_t TakeGroups(unsigned int& shift) {
        uintptr_t value = 0;
        Byte byte = 0;
        do {
            byte = *at_++;
            if (shift < kWordBits) value |= static_cast<uintptr_t>(byte & 0x7FU) << shift;
            shift += 7;
        } while ((byte & 0x80U) != 0);
        return value;
    }

    const Byte* at_;
    const Byte* end_;
};

/// What the entries of several functions have in common (CIE).
struct ST_COMMON {
    uintptr_t codeUnit;
    intptr_t dataUnit;
    uintptr_t addressSize;  // of a code address in an entry
    const Byte* program;    // the first instructions
    const Byte* end;
};

/// Size of an encoded address; 0 for encodings that no compiler uses for this machine.
uintptr_t address_size(Byte encoding) {
    switch (encoding & en_ENCODED_FORMAT) {
        case en_ENCODED_WORD:
            return kWord;
        case en_ENCODED_UNSIGNED_8:
        case en_ENCODED_SIGNED_8:
            return 8;
        case en_ENCODED_UNSIGNED_4:
        case en_ENCODED_SIGNED_4:
            return 4;
        default:
            return 0;
    }
}

/// False for what is not understood, a signal frame among it.
bool read_common(const Byte* begin, ST_COMMON& common) {
    Reader length(begin, begin);
    const auto size = length.Take<uint32_t>();
    if (size == 0 || size == 0xFFFFFFFF) return false;
    common.end = begin + sizeof size + size;

    Reader reader(length.At() + sizeof(uint32_t), common.end);  // without its identifying 0
    const Byte version = reader.Take<Byte>();
    if (version != 1 && version != 3) return false;
    const auto* const augmentation = reinterpret_cast<const char*>(reader.At());
    reader.Skip(std::strlen(augmentation) + 1);
    common.codeUnit = reader.TakeUnsigned();
    common.dataUnit = reader.TakeSigned();
    const uintptr_t returnAddress = version == 1 ? reader.Take<Byte>() : reader.TakeUnsigned();
    if (returnAddress != kPzReturnAddress || augmentation[0] != 'z') return false;

    const uintptr_t augmentationSize = reader.TakeUnsigned();
    common.program = reader.At() + augmentationSize;
    common.addressSize = kWord;
    for (const char* letter = augmentation + 1; *letter != '\0'; ++letter) {
        if (*letter == 'R') {
            common.addressSize = address_size(reader.Take<Byte>());
        } else if (*letter == 'L') {
            reader.Skip(1);
        } else if (*letter == 'P') {
            const Byte encoding = reader.Take<Byte>();
            if (encoding == en_ENCODED_ALIGNED || address_size(encoding) == 0) return false;
            reader.Skip(address_size(encoding));
        } else {
            return false;
        }
    }
    return common.addressSize != 0;
}

/// Follows the instructions of an entry up to an address. Registers that the walk does not need are
/// passed over.
class Program {
public:
    Program(const ST_COMMON& common, uintptr_t function, uintptr_t pc)
        : common_(common), location_(function), pc_(pc), rules_{} {}

    const ST_PZ_UNWIND_RULES& Rules() const { return rules_; }

    /// False for what is not understood.
    bool Run(const Byte* begin, const Byte* end) {
        Reader reader(begin, end);
        while (!reader.IsAtEnd() && location_ <= pc_) {
            if (!Step(reader)) return false;
        }
        return true;
    }

    /// What is restored later is what holds now.
    void KeepAsInitial() { initial_ = rules_; }

private:
    static constexpr int kMaxRemembered = 8;

    bool Step(Reader& reader) {
        const Byte code = reader.Take<Byte>();
        const uintptr_t operand = code & 0x3FU;
        switch (code >> 6U) {
            case en_ADVANCE:
                return Advance(operand);
            case en_OFFSET:
                return Save(operand, static_cast<intptr_t>(reader.TakeUnsigned()));
            case en_RESTORE:
                return Restore(operand);
            default:
                return StepExtended(code, reader);
        }
    }

    bool StepExtended(Byte code, Reader& reader) {
        uintptr_t reg = 0;
        switch (code) {
            case en_NOP:
                return true;
            case en_ADVANCE_1:
                return Advance(reader.Take<uint8_t>());
            case en_ADVANCE_2:
                return Advance(reader.Take<uint16_t>());
            case en_ADVANCE_4:
                return Advance(reader.Take<uint32_t>());
            case en_OFFSET_EXTENDED:
                reg = reader.TakeUnsigned();
                return Save(reg, static_cast<intptr_t>(reader.TakeUnsigned()));
            case en_RESTORE_EXTENDED:
                return Restore(reader.TakeUnsigned());
            case en_UNDEFINED:
                return Undefine(reader.TakeUnsigned());
            case en_SAME_VALUE:
                return Restore(reader.TakeUnsigned(), ST_PZ_UNWIND_RULES{});
            case en_REMEMBER_STATE:
                return Remember();
            case en_RESTORE_STATE:
                return Recall();
            case en_DEF_CFA:
                rules_.cfaRegister = reader.TakeUnsigned();
                rules_.cfaOffset = static_cast<intptr_t>(reader.TakeUnsigned());
                rules_.cfaExpression = nullptr;
                return true;
            case en_DEF_CFA_REGISTER:
                rules_.cfaRegister = reader.TakeUnsigned();
                return true;
            case en_DEF_CFA_OFFSET:
                rules_.cfaOffset = static_cast<intptr_t>(reader.TakeUnsigned());
                return true;
            case en_DEF_CFA_EXPRESSION:
                rules_.cfaExpressionSize = reader.TakeUnsigned();
                rules_.cfaExpression = reader.At();
                reader.Skip(rules_.cfaExpressionSize);
                return true;
            case en_EXPRESSION:  // for other registers only
            case en_VALUE_EXPRESSION:
                reg = reader.TakeUnsigned();
                reader.Skip(reader.TakeUnsigned());
                return !IsNeeded(reg);
            case en_OFFSET_EXTENDED_SIGNED:
                reg = reader.TakeUnsigned();
                return Save(reg, reader.TakeSigned());
            case en_ARGUMENTS_SIZE:
                reader.TakeUnsigned();
                return true;
            default:
                return false;
        }
    }

    static bool IsNeeded(uintptr_t reg) {
        return reg == kPzFrameRegister || reg == kPzStackRegister || reg == kPzReturnAddress;
    }

    bool Advance(uintptr_t units) {
        location_ += units * common_.codeUnit;
        return true;
    }

    bool Save(uintptr_t reg, intptr_t units) {
        const intptr_t offset = units * common_.dataUnit;
        if (reg == kPzFrameRegister) {
            rules_.isFrameSaved = true;
            rules_.frameOffset = offset;
        } else if (reg == kPzReturnAddress) {
            rules_.hasReturnAddress = true;
            return offset == -static_cast<intptr_t>(kWord);
        }
        return reg != kPzStackRegister;
    }

    bool Restore(uintptr_t reg) { return Restore(reg, initial_); }
    bool Restore(uintptr_t reg, const ST_PZ_UNWIND_RULES& from) {
        if (reg == kPzFrameRegister) {
            rules_.isFrameSaved = from.isFrameSaved;
            rules_.frameOffset = from.frameOffset;
        }
        return reg != kPzReturnAddress && reg != kPzStackRegister;
    }

    bool Undefine(uintptr_t reg) {
        if (reg == kPzReturnAddress) rules_.isOutermost = true;
        return reg != kPzFrameRegister && reg != kPzStackRegister;
    }

    bool Remember() {
        if (remembered_ == kMaxRemembered) return false;
        stack_[remembered_++] = rules_;
        return true;
    }

    bool Recall() {
        if (remembered_ == 0) return false;
        rules_ = stack_[--remembered_];
        return true;
    }

    const ST_COMMON& common_;
    uintptr_t location_;
    const uintptr_t pc_;
    ST_PZ_UNWIND_RULES rules_;
    ST_PZ_UNWIND_RULES initial_{};
    ST_PZ_UNWIND_RULES stack_[kMaxRemembered]{};
    int remembered_ = 0;
};

}  // namespace

bool pz_find_unwind_rules(uintptr_t pc, ST_PZ_UNWIND_RULES& rules) {
    dwarf_eh_bases bases{};
    const auto* const entry = static_cast<const Byte*>(_Unwind_Find_FDE(
        reinterpret_cast<void*>(pc), &bases));  // NOLINT(performance-no-int-to-ptr)
    if (entry == nullptr) return false;
    Reader head(entry, entry);
    const auto size = head.Take<uint32_t>();
    if (size == 0 || size == 0xFFFFFFFF) return false;
    const Byte* const end = entry + sizeof size + size;
    const Byte* const link = head.At();  // counted backwards from here
    ST_COMMON common{};
    if (!read_common(link - head.Take<int32_t>(), common)) return false;

    head.Skip(2 * common.addressSize);  // begin and length of the function
    const uintptr_t augmentationSize = head.TakeUnsigned();
    const Byte* const program = head.At() + augmentationSize;
    Program run(common, reinterpret_cast<uintptr_t>(bases.func), pc);
    if (!run.Run(common.program, common.end)) return false;
    run.KeepAsInitial();
    if (!run.Run(program, end)) return false;
    rules = run.Rules();
    return true;
}

#endif  // PZ_HAS_UNWIND_TABLE
