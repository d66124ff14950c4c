#include "pz_callers.h"

#if defined(__x86_64__) && defined(__LP64__) && !defined(__SANITIZE_ADDRESS__) && \
    !defined(__SANITIZE_THREAD__)
#define PZ_HAS_CALLERS
#endif

#ifdef PZ_HAS_CALLERS

#include <link.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

// Why this gives what backtrace() gives
//
// The C library's unwinder looks up, for each return address, the unwind table's row of the byte
// before it, and takes from that row where the caller's frame begins (the CFA), its return address
// and its registers. The row depends on the address alone. What a row says is read here once for an
// address, by the same rules from the same table, and kept. A row is kept only where it consists of
//
//     CFA             = rsp or rbp, plus a constant
//     return address  = at CFA - 8, or none: the outermost frame
//     caller's rsp    = CFA
//     caller's rbp    = unchanged, or saved at CFA - a constant
//
// With rsp and rbp known in one frame, such a row gives both in its caller's, so the walk needs no
// other register: its state is that of the C library's unwinder, by induction from the frame in
// which both were read. As soon as a frame needs anything else (a signal frame, an expression,
// another register, code without a table) the walk gives up, and the caller asks backtrace().
//
// A kept row is true as long as the object that holds the code stays loaded. Only a frame on the
// walking thread's own stack makes a row, and its object cannot be unloaded before that walk is
// over. The number of unloaded objects is compared before every walk: all rows are dropped when it
// has changed. Code that is no part of a loaded object is never kept.

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

constexpr uint64_t kRbp = 6;
constexpr uint64_t kRsp = 7;
constexpr uint64_t kReturnAddress = 16;
constexpr uint64_t kWord = 8;

// ---- a row, packed into one word: read and written whole by any thread ----

// Table of 2048 rows, 16 KiB: the place is told by the lower bits of the return address, the rest
// stands in the row.
constexpr unsigned int kPlaceBits = 11;
constexpr size_t kPlaces = size_t{1} << kPlaceBits;
constexpr unsigned int kTagBits = 47 - kPlaceBits;

constexpr uint64_t kMaxCfaWords = 0xFFF;  // frames of up to 32 KiB
constexpr uint64_t kMaxRbpWords = 0xFF;

struct ST_ROW {
    enum EN_KIND : uint64_t {
        en_NONE = 0,       // not known yet
        en_FRAME = 1,      // as the fields say
        en_OUTERMOST = 2,  // there is no caller
        en_OTHER = 3       // needs more than a row can say
    };

    uint64_t kind : 2;
    uint64_t isFromRbp : 1;  // the CFA; else from rsp
    uint64_t cfaWords : 12;  // the constant of the CFA
    uint64_t rbpWords : 8;   // rbp is saved that many words below the CFA; 0: unchanged
    uint64_t tag : kTagBits;
    uint64_t unused : 64 - 2 - 1 - 12 - 8 - kTagBits;
};
static_assert(sizeof(ST_ROW) == sizeof(uint64_t));

std::atomic<uint64_t> rows[kPlaces];
std::atomic<unsigned long long> unloadsOfRows{0};
std::atomic<bool> isForkedChild{false};

uint64_t word_of(const ST_ROW& row) {
    uint64_t word = 0;
    std::memcpy(&word, &row, sizeof word);
    return word;
}

ST_ROW row_of(uint64_t word) {
    ST_ROW row{};
    std::memcpy(&row, &word, sizeof row);
    return row;
}

// ---- reading the unwind table ----

/// Reads the parts of an entry one after the other.
class Reader {
public:
    Reader(const Byte* begin, const Byte* end) : at_(begin), end_(end) {}

    bool IsAtEnd() const { return at_ >= end_; }
    const Byte* At() const { return at_; }
    void Skip(uint64_t bytes) { at_ += bytes; }

    template <typename T>
    T Take() {
        T value{};
        std::memcpy(&value, at_, sizeof value);
        at_ += sizeof value;
        return value;
    }

    /// A number in groups of seven bits, the lowest first.
    uint64_t TakeUnsigned() {
        unsigned int shift = 0;
        return TakeGroups(shift);
    }
    int64_t TakeSigned() {
        unsigned int shift = 0;
        uint64_t value = TakeGroups(shift);
        const bool isNegative = (at_[-1] & 0x40U) != 0;
        if (isNegative && shift < 64) value |= ~uint64_t{0} << shift;
        return static_cast<int64_t>(value);
    }

private:
    uint64_t TakeGroups(unsigned int& shift) {
        uint64_t value = 0;
        Byte byte = 0;
        do {
            byte = *at_++;
            if (shift < 64) value |= static_cast<uint64_t>(byte & 0x7FU) << shift;
            shift += 7;
        } while ((byte & 0x80U) != 0);
        return value;
    }

    const Byte* at_;
    const Byte* end_;
};

/// What the entries of several functions have in common (CIE).
struct ST_COMMON {
    uint64_t codeUnit;
    int64_t dataUnit;
    uint64_t addressSize;  // of a code address in an entry
    const Byte* program;   // the first instructions
    const Byte* end;
};

/// Size of an encoded address; 0 for encodings that no compiler uses for this machine.
uint64_t address_size(Byte encoding) {
    switch (encoding & 0x0FU) {
        case 0x00:  // as the machine's own
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
    const uint64_t returnAddress = version == 1 ? reader.Take<Byte>() : reader.TakeUnsigned();
    if (returnAddress != kReturnAddress || augmentation[0] != 'z') return false;

    const uint64_t augmentationSize = reader.TakeUnsigned();
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

struct ST_RULES {
    uint64_t cfaRegister;
    int64_t cfaOffset;
    bool isRbpSaved;
    int64_t rbpOffset;      // from the CFA
    bool hasReturnAddress;  // at the CFA - 8
    bool isOutermost;       // there is none
};

/// Follows the instructions of an entry up to an address. Registers that the walk does not need are
/// passed over.
class Program {
public:
    Program(const ST_COMMON& common, uint64_t function, uint64_t pc)
        : common_(common), location_(function), pc_(pc), rules_{} {}

    const ST_RULES& Rules() const { return rules_; }

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
        const uint64_t operand = code & 0x3FU;
        switch (code >> 6U) {
            case 1:
                return Advance(operand);
            case 2:
                return Save(operand, static_cast<int64_t>(reader.TakeUnsigned()));
            case 3:
                return Restore(operand);
            default:
                return StepExtended(code, reader);
        }
    }

    bool StepExtended(Byte code, Reader& reader) {
        uint64_t reg = 0;
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
                return Save(reg, static_cast<int64_t>(reader.TakeUnsigned()));
            case 0x06:
                return Restore(reader.TakeUnsigned());
            case 0x07:
                return Undefine(reader.TakeUnsigned());
            case 0x08:
                return Restore(reader.TakeUnsigned(), ST_RULES{});
            case 0x0A:
                return Remember();
            case 0x0B:
                return Recall();
            case 0x0C:
                rules_.cfaRegister = reader.TakeUnsigned();
                rules_.cfaOffset = static_cast<int64_t>(reader.TakeUnsigned());
                return true;
            case 0x0D:
                rules_.cfaRegister = reader.TakeUnsigned();
                return true;
            case 0x0E:
                rules_.cfaOffset = static_cast<int64_t>(reader.TakeUnsigned());
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

    static bool IsNeeded(uint64_t reg) {
        return reg == kRbp || reg == kRsp || reg == kReturnAddress;
    }

    bool Advance(uint64_t units) {
        location_ += units * common_.codeUnit;
        return true;
    }

    bool Save(uint64_t reg, int64_t units) {
        const int64_t offset = units * common_.dataUnit;
        if (reg == kRbp) {
            rules_.isRbpSaved = true;
            rules_.rbpOffset = offset;
        } else if (reg == kReturnAddress) {
            rules_.hasReturnAddress = true;
            return offset == -static_cast<int64_t>(kWord);
        }
        return reg != kRsp;
    }

    bool Restore(uint64_t reg) { return Restore(reg, initial_); }
    bool Restore(uint64_t reg, const ST_RULES& from) {
        if (reg == kRbp) {
            rules_.isRbpSaved = from.isRbpSaved;
            rules_.rbpOffset = from.rbpOffset;
        }
        return reg != kReturnAddress && reg != kRsp;
    }

    bool Undefine(uint64_t reg) {
        if (reg == kReturnAddress) rules_.isOutermost = true;
        return reg != kRbp && reg != kRsp;
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
    uint64_t location_;
    const uint64_t pc_;
    ST_RULES rules_;
    ST_RULES initial_{};
    ST_RULES stack_[kMaxRemembered];
    int remembered_ = 0;
};

/// The rules that hold at `pc`. False when they are not understood.
bool find_rules(uint64_t pc, ST_RULES& rules) {
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
    const uint64_t augmentationSize = head.TakeUnsigned();
    const Byte* const program = head.At() + augmentationSize;
    Program run(common, reinterpret_cast<uint64_t>(bases.func), pc);
    if (!run.Run(common.program, common.end)) return false;
    run.KeepAsInitial();
    if (!run.Run(program, end)) return false;
    rules = run.Rules();
    return true;
}

// ---- loaded objects ----

int take_unloads(dl_phdr_info* info, size_t /*size*/, void* unloads) {
    *static_cast<unsigned long long*>(unloads) = info->dlpi_subs;
    return 1;  // every object tells the same
}

unsigned long long count_unloads() {
    unsigned long long unloads = 0;
    dl_iterate_phdr(&take_unloads, &unloads);
    return unloads;
}

int holds_address(dl_phdr_info* info, size_t /*size*/, void* address) {
    const uint64_t wanted = *static_cast<const uint64_t*>(address);
    for (unsigned int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& part = info->dlpi_phdr[i];
        if (part.p_type == PT_LOAD && wanted - info->dlpi_addr - part.p_vaddr < part.p_memsz) {
            return 1;
        }
    }
    return 0;
}

/// Drops all rows when an object was unloaded since they were made.
void drop_outdated_rows() {
    const unsigned long long unloads = count_unloads();
    if (unloadsOfRows.load(std::memory_order_acquire) == unloads) return;
    for (std::atomic<uint64_t>& row : rows) row.store(0, std::memory_order_relaxed);
    unloadsOfRows.store(unloads, std::memory_order_release);
}

// ---- rows ----

ST_ROW make_row(uint64_t pc) {
    ST_ROW row{};
    row.kind = ST_ROW::en_OTHER;
    ST_RULES rules{};
    if (dl_iterate_phdr(&holds_address, &pc) == 0 || !find_rules(pc, rules)) return row;
    if (rules.isOutermost) {
        row.kind = ST_ROW::en_OUTERMOST;
        return row;
    }
    if (!rules.hasReturnAddress) return row;
    if (rules.cfaRegister != kRsp && rules.cfaRegister != kRbp) return row;
    const auto cfa = static_cast<uint64_t>(rules.cfaOffset);
    const auto rbp = static_cast<uint64_t>(rules.isRbpSaved ? -rules.rbpOffset : 0);
    if (cfa % kWord != 0 || cfa / kWord > kMaxCfaWords) return row;
    if (rbp % kWord != 0 || rbp / kWord > kMaxRbpWords) return row;
    if (rules.isRbpSaved && rbp == 0) return row;
    row.kind = ST_ROW::en_FRAME;
    row.isFromRbp = rules.cfaRegister == kRbp ? 1 : 0;
    row.cfaWords = cfa / kWord & kMaxCfaWords;
    row.rbpWords = rbp / kWord & kMaxRbpWords;
    return row;
}

/// The row for the code that goes on at `address`.
ST_ROW row_for(uint64_t address) {
    const uint64_t tag = address >> kPlaceBits;
    std::atomic<uint64_t>& place = rows[address % kPlaces];
    ST_ROW row = row_of(place.load(std::memory_order_relaxed));
    if (row.kind != ST_ROW::en_NONE && row.tag == tag) return row;
    row = make_row(address - 1);  // the call itself: what follows may belong to another function
    row.tag = tag & ((uint64_t{1} << kTagBits) - 1);
    if (row.tag == tag) place.store(word_of(row), std::memory_order_relaxed);
    return row;
}

uint64_t word_at(uint64_t address) {
    uint64_t word = 0;
    std::memcpy(&word, reinterpret_cast<const void*>(address), sizeof word);
    return word;
}

// The fork may have come while another thread held the list of loaded objects.
const bool isToldOfForks = pthread_atfork(nullptr, nullptr, [] { isForkedChild = true; }) == 0;

}  // namespace

// A call of its own: the first address is the one that it returns to.
[[gnu::noinline]] int pz_take_callers(void** addresses, int size) {
    uint64_t pc = 0;
    uint64_t rsp = 0;
    uint64_t rbp = 0;
    __asm__ volatile(
        "movq %%rsp, %%rcx\n\t"
        "movq %%rbp, %%rdx\n\t"
        "leaq 0f(%%rip), %%rax\n"
        "0:"
        : "=a"(pc), "=c"(rsp), "=d"(rbp));
    if (!isToldOfForks || isForkedChild.load(std::memory_order_relaxed)) return -1;
    drop_outdated_rows();

    int count = 0;
    while (count < size) {
        const ST_ROW row = row_for(pc);
        if (row.kind == ST_ROW::en_OUTERMOST) break;
        if (row.kind != ST_ROW::en_FRAME) return -1;
        const uint64_t cfa = (row.isFromRbp != 0 ? rbp : rsp) + row.cfaWords * kWord;
        if (cfa <= rsp) return -1;  // no stack grows this way
        if (row.rbpWords != 0) rbp = word_at(cfa - row.rbpWords * kWord);
        pc = word_at(cfa - kWord);
        rsp = cfa;
        if (pc == 0) return -1;
        addresses[count++] = reinterpret_cast<void*>(pc);
    }
    return count;
}

#else

int pz_take_callers(void** /*addresses*/, int /*size*/) {
    return -1;
}

#endif  // PZ_HAS_CALLERS
