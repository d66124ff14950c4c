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

#include "pz_unwind_table.h"

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
// has changed. No row is kept for code outside the loaded objects.

namespace {

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
    ST_PZ_UNWIND_RULES rules{};
    if (dl_iterate_phdr(&holds_address, &pc) == 0 || !pz_find_unwind_rules(pc, rules)) return row;
    if (rules.isOutermost) {
        row.kind = ST_ROW::en_OUTERMOST;
        return row;
    }
    if (!rules.hasReturnAddress || rules.cfaExpression != nullptr) return row;
    if (rules.cfaRegister != kPzStackRegister && rules.cfaRegister != kPzFrameRegister) return row;
    const auto cfa = static_cast<uint64_t>(rules.cfaOffset);
    const auto rbp = static_cast<uint64_t>(rules.isFrameSaved ? -rules.frameOffset : 0);
    if (cfa % kWord != 0 || cfa / kWord > kMaxCfaWords) return row;
    if (rbp % kWord != 0 || rbp / kWord > kMaxRbpWords) return row;
    if (rules.isFrameSaved && rbp == 0) return row;
    row.kind = ST_ROW::en_FRAME;
    row.isFromRbp = rules.cfaRegister == kPzFrameRegister ? 1 : 0;
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
