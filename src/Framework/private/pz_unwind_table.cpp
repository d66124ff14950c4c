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
    switch (encoding & 0x0FU) {
        case 0x00:  // as the machine's own
            return kWord;
        case 0x04:
        case 0x0C:
            return 8;
        case 0x03:
        case 0x0B:
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
            if (encoding == 0x50 || address_size(encoding) == 0) return false;
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
            case 1:
                return Advance(operand);
            case 2:
                return Save(operand, static_cast<intptr_t>(reader.TakeUnsigned()));
            case 3:
                return Restore(operand);
            default:
                return StepExtended(code, reader);
        }
    }

    bool StepExtended(Byte code, Reader& reader) {
        uintptr_t reg = 0;
        switch (code) {
            case 0x00:  // nothing
                return true;
            case 0x02:
                return Advance(reader.Take<uint8_t>());
            case 0x03:
                return Advance(reader.Take<uint16_t>());
            case 0x04:
                return Advance(reader.Take<uint32_t>());
            case 0x05:
                reg = reader.TakeUnsigned();
                return Save(reg, static_cast<intptr_t>(reader.TakeUnsigned()));
            case 0x06:
                return Restore(reader.TakeUnsigned());
            case 0x07:
                return Undefine(reader.TakeUnsigned());
            case 0x08:
                return Restore(reader.TakeUnsigned(), ST_PZ_UNWIND_RULES{});
            case 0x0A:
                return Remember();
            case 0x0B:
                return Recall();
            case 0x0C:
                rules_.cfaRegister = reader.TakeUnsigned();
                rules_.cfaOffset = static_cast<intptr_t>(reader.TakeUnsigned());
                rules_.cfaExpression = nullptr;
                return true;
            case 0x0D:
                rules_.cfaRegister = reader.TakeUnsigned();
                return true;
            case 0x0E:
                rules_.cfaOffset = static_cast<intptr_t>(reader.TakeUnsigned());
                return true;
            case 0x0F:
                rules_.cfaExpressionSize = reader.TakeUnsigned();
                rules_.cfaExpression = reader.At();
                reader.Skip(rules_.cfaExpressionSize);
                return true;
            case 0x10:  // expressions, for other registers only
            case 0x16:
                reg = reader.TakeUnsigned();
                reader.Skip(reader.TakeUnsigned());
                return !IsNeeded(reg);
            case 0x11:
                reg = reader.TakeUnsigned();
                return Save(reg, reader.TakeSigned());
            case 0x2E:  // size of the arguments on the stack
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
