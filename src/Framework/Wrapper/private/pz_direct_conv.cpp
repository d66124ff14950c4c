#include "pz_direct_conv.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "pz_kept_iconv.h"

namespace {

// The compiler leaves a reader or writer in memory, and halves the speed, unless it inlines it.
#define PZ_INLINE inline __attribute__((always_inline))

using Byte = unsigned char;

constexpr int kIconvs = -1;  // as a result: the text is for iconv

constexpr bool kIsLittleEndian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

constexpr EN_XCP kNativeUtf16 = kIsLittleEndian ? XCP_UTF16LE : XCP_UTF16BE;
constexpr EN_XCP kOtherUtf16 = kIsLittleEndian ? XCP_UTF16BE : XCP_UTF16LE;

constexpr uint32_t kLastCharacter = 0x10FFFF;
constexpr uint32_t kFirstBeyond16 = 0x10000;
constexpr uint32_t kHighSurrogates = 0xD800;
constexpr uint32_t kLowSurrogates = 0xDC00;
constexpr uint32_t kAfterSurrogates = 0xE000;

constexpr bool is_surrogate(uint32_t c) {
    return c >= kHighSurrogates && c < kAfterSurrogates;
}

// ---- pages of one byte a character ----

constexpr bool has_one_byte_characters(EN_XCP page) {
    return (page >= XCP_LATIN_ASCII && page <= XCP_CP874) ||
           (page >= XCP_CP1251 && page <= XCP_CP1256) ||
           (page >= XCP_ISO646_US && page <= XCP_ISO8859_16) ||
           (page >= XCP_KOI8_R && page <= XCP_WINDOWS_1256);
}

/// A character in UTF-8. Three bytes are enough for the first 65,536 characters.
struct ST_UTF8 {
    Byte bytes[3];
    Byte size;  // 0: the byte is not a character
};
static_assert(sizeof(ST_UTF8) == 4, "stored by one instruction");

constexpr uint16_t kNoCharacter = 0xFFFF;  // not a character in any page

/// What iconv makes of each byte of a page. A byte is not a character here when iconv refuses it,
/// or makes anything but one character below kNoCharacter of it.
struct ST_PAGE {
    uint16_t character[256];
    ST_UTF8 utf8[256];
};

/// The pages that were asked for. They are made once and left.
std::atomic<const ST_PAGE*> pages[XCP_NONE];

const ST_PAGE* known_page(EN_XCP page) {
    return has_one_byte_characters(page) ? pages[page].load(std::memory_order_acquire) : nullptr;
}

/// What iconv makes of a character; kNoCharacter when the page has none.
uint16_t ask(PZKeptIconv& converter, Byte byte) {
    const char src = static_cast<char>(byte);
    converter.Reset();
    uint32_t characters[4] = {};
    const ST_ICONV_RESULT answer =
        converter.Convert(reinterpret_cast<char*>(characters), sizeof characters, &src, 1);
    const bool isOne = answer.result == 0 && answer.written == sizeof characters[0];
    return isOne && characters[0] < kNoCharacter ? static_cast<uint16_t>(characters[0])
                                                 : kNoCharacter;
}

ST_UTF8 utf8_of(uint16_t character) {
    const auto tail = [](unsigned int bits) { return static_cast<Byte>(0x80U | (bits & 0x3FU)); };
    const unsigned int c = character;
    if (c == kNoCharacter || is_surrogate(c)) return {};
    if (c < 0x80) return {{static_cast<Byte>(c)}, 1};
    if (c < 0x800) return {{static_cast<Byte>(0xC0U | c >> 6U), tail(c)}, 2};
    return {{static_cast<Byte>(0xE0U | c >> 12U), tail(c >> 6U), tail(c)}, 3};
}

void learn_page(EN_XCP page) {
    if (!has_one_byte_characters(page) || known_page(page) != nullptr) return;
    PZKeptIconv converter(XCP_WCHAR, page);
    if (!converter.IsOpen()) return;
    std::unique_ptr<ST_PAGE> learnt(new (std::nothrow) ST_PAGE);
    if (learnt == nullptr) return;
    for (unsigned int byte = 0; byte < 256; ++byte) {
        const uint16_t character = ask(converter, static_cast<Byte>(byte));
        learnt->character[byte] = character;
        learnt->utf8[byte] = utf8_of(character);
    }
    converter.Close();
    const ST_PAGE* none = nullptr;  // another thread may have been faster: its table is the same
    if (pages[page].compare_exchange_strong(none, learnt.get(), std::memory_order_release,
                                            std::memory_order_relaxed)) {
        static_cast<void>(learnt.release());
    }
}

// ---- blocks: bytes of UTF-8 that are looked at together ----

constexpr size_t kBlock = 48;
constexpr size_t kStep = 16;               // bytes that are widened together
constexpr size_t kReach = kBlock + kStep;  // from the beginning of a block on, more is not touched

#ifdef __SSE2__

/// One bit for each of kStep bytes, the lowest for the first one: set beyond ASCII.
PZ_INLINE uint64_t letters_of_step(const Byte* bytes) {
    const __m128i step = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
    return static_cast<unsigned int>(_mm_movemask_epi8(step));
}

#else

PZ_INLINE uint64_t letters_of_step(const Byte* bytes) {
    const auto half = [bytes](size_t at) {
        uint64_t word = 0;
        std::memcpy(&word, bytes + at, sizeof word);
        if (!kIsLittleEndian) word = __builtin_bswap64(word);
        // The highest bit of every byte, gathered in the highest byte of a product.
        return (word >> 7U & 0x0101010101010101U) * 0x0102040810204080U >> 56U;
    };
    return half(0) | half(kStep / 2) << kStep / 2;
}

#endif

/// The same of a block, and one bit more for its end.
PZ_INLINE uint64_t letters_of(const Byte* block) {
    static_assert(kBlock == 3 * kStep);
    return letters_of_step(block) | letters_of_step(block + kStep) << kStep |
           letters_of_step(block + 2 * kStep) << 2 * kStep | uint64_t{1} << kBlock;
}

/// The next kStep bytes, of which those that are ASCII become characters.
template <typename Unit>
PZ_INLINE void widen_step(Unit* units, const Byte* bytes) {
    Byte step[kStep];
    std::memcpy(step, bytes, sizeof step);
    for (size_t i = 0; i < kStep; ++i) units[i] = step[i];  // by a few wide instructions
}

/// Up to kBlock bytes of ASCII. Writes whole steps.
template <typename Unit>
PZ_INLINE void widen_ascii(Unit* units, const Byte* bytes, size_t count) {
    for (size_t i = 0; i < count; i += kStep) widen_step(units + i, bytes + i);
}

// ---- the forms whose converters iconv has to load ----

/// Set when iconv has converted a text from or to the form. Where its converter is not installed,
/// it goes on to refuse.
std::atomic<bool> has_utf16be{false};
std::atomic<bool> has_utf16le{false};

constexpr std::atomic<bool>* flag_of(EN_XCP page) {
    if (page == XCP_UTF16BE) return &has_utf16be;
    return page == XCP_UTF16LE ? &has_utf16le : nullptr;
}

bool may_be_missing(EN_XCP page) {
    const std::atomic<bool>* const flag = flag_of(page);
    return flag != nullptr && !flag->load(std::memory_order_relaxed);
}

void learn_form(EN_XCP page) {
    std::atomic<bool>* const flag = flag_of(page);
    if (flag != nullptr) flag->store(true, std::memory_order_relaxed);
}

// ---- readers: Take gives the next character, or answers false where iconv must decide ----

class Utf8Reader {
public:
    Utf8Reader(const char* src, size_t size)
        : at_(reinterpret_cast<const Byte*>(src)), end_(at_ + size) {}

    bool IsAtEnd() const { return at_ == end_; }

    size_t Left() const { return static_cast<size_t>(end_ - at_); }
    bool HasBlock() const { return Left() >= kReach; }

    /// Puts the characters that begin in the next block into `units`: their number of units, or
    /// kIconvs. There must be kReach bytes, and room for as many units.
    template <typename Unit, typename Writer>
    PZ_INLINE int TakeBlock(Unit* units) {
        const uint64_t letters = letters_of(at_);
        const Byte* const begin = at_;
        Unit* out = units;
        do {
            if (*at_ < 0x80) {
                const auto run = static_cast<size_t>(__builtin_ctzll(letters >> (at_ - begin)));
                widen_ascii(out, at_, run);
                out += run;
                at_ += run;
                if (at_ == begin + kBlock) break;
            }
            uint32_t c = 0;
            if (!TakeLetter<true>(c)) return kIconvs;
            Writer writer(reinterpret_cast<char*>(out), 2 * sizeof(Unit));
            writer.Put(c);
            out += static_cast<size_t>(writer.Written()) / sizeof(Unit);
        } while (at_ < begin + kBlock);
        return static_cast<int>(out - units);
    }

    template <typename Unit>
    PZ_INLINE bool TakeAscii(Unit& unit) {
        if (IsAtEnd() || *at_ >= 0x80) return false;
        unit = *at_++;
        return true;
    }

    PZ_INLINE bool Take(uint32_t& c) {
        c = *at_;
        if (c >= 0x80) return TakeLetter<false>(c);
        ++at_;
        return true;
    }

private:
    /// A character beyond ASCII. `kIsWhole`: the text goes on for four bytes at least.
    template <bool kIsWhole>
    PZ_INLINE bool TakeLetter(uint32_t& c) {
        const auto has = [this](int bytes) { return kIsWhole || end_ - at_ >= bytes; };
        const auto tail = [this](int i) { return at_[i] ^ 0x80U; };  // below 0x40 for a tail
        const uint32_t lead = *at_;
        if (lead < 0xE0) {
            if (!has(2)) return false;
            c = (lead & 0x1FU) << 6U | tail(1);
            const bool isValid = tail(1) < 0x40 && lead >= 0xC2;
            at_ += 2;
            return isValid;
        }
        if (lead < 0xF0) {
            if (!has(3) || (tail(1) | tail(2)) >= 0x40) return false;
            c = (lead & 0x0FU) << 12U | tail(1) << 6U | tail(2);
            at_ += 3;
            return c >= 0x800 && !is_surrogate(c);
        }
        if (lead > 0xF4 || !has(4) || (tail(1) | tail(2) | tail(3)) >= 0x40) return false;
        c = (lead & 0x07U) << 18U | tail(1) << 12U | tail(2) << 6U | tail(3);
        at_ += 4;
        return c >= kFirstBeyond16 && c <= kLastCharacter;
    }

    const Byte* at_;
    const Byte* const end_;
};

/// Of wide characters.
class WideReader {
public:
    WideReader(const char* src, size_t size) : at_(src), end_(src + size) {}

    bool IsAtEnd() const { return at_ == end_; }

    PZ_INLINE bool Take(uint32_t& c) {
        if (end_ - at_ < static_cast<ptrdiff_t>(sizeof c)) return false;
        std::memcpy(&c, at_, sizeof c);
        at_ += sizeof c;
        return c <= kLastCharacter && !is_surrogate(c);
    }

private:
    const char* at_;
    const char* const end_;
};

/// Of 16-bit units, in the order of the machine's bytes or in the other one.
template <bool kIsSwapped>
class Utf16Reader {
public:
    Utf16Reader(const char* src, size_t size) : at_(src), end_(src + size) {}

    bool IsAtEnd() const { return at_ == end_; }

    PZ_INLINE bool Take(uint32_t& c) {
        if (!TakeUnit(c)) return false;
        if (!is_surrogate(c)) return true;
        uint32_t low = 0;
        if (c >= kLowSurrogates || !TakeUnit(low)) return false;
        if (low < kLowSurrogates || low >= kAfterSurrogates) return false;
        c = kFirstBeyond16 + ((c - kHighSurrogates) << 10U) + (low - kLowSurrogates);
        return true;
    }

private:
    PZ_INLINE bool TakeUnit(uint32_t& c) {
        uint16_t unit = 0;
        if (end_ - at_ < static_cast<ptrdiff_t>(sizeof unit)) return false;
        std::memcpy(&unit, at_, sizeof unit);
        at_ += sizeof unit;
        c = kIsSwapped ? __builtin_bswap16(unit) : unit;
        return true;
    }

    const char* at_;
    const char* const end_;
};

class PageReader {
public:
    PageReader(const ST_PAGE& page, const char* src, size_t size)
        : page_(page), at_(reinterpret_cast<const Byte*>(src)), end_(at_ + size) {}

    bool IsAtEnd() const { return at_ == end_; }

    PZ_INLINE bool Take(uint32_t& c) {
        c = page_.character[*at_++];
        return c != kNoCharacter;
    }

private:
    const ST_PAGE& page_;
    const Byte* at_;
    const Byte* const end_;
};

// ---- writers: Put adds a character, or answers false where it does not fit ----

class Utf8Writer {
public:
    Utf8Writer(char* dst, size_t room)
        : begin_(reinterpret_cast<Byte*>(dst)), at_(begin_), end_(begin_ + room) {}

    int Written() const { return static_cast<int>(at_ - begin_); }

    PZ_INLINE bool Put(uint32_t c) {
        if (c < 0x80) {
            if (at_ == end_) return false;
            *at_++ = static_cast<Byte>(c);
            return true;
        }
        if (c < 0x800) {
            if (end_ - at_ < 2) return false;
            *at_++ = static_cast<Byte>(0xC0U | c >> 6U);
            PutTail(c);
            return true;
        }
        if (c < kFirstBeyond16) {
            if (end_ - at_ < 3) return false;
            *at_++ = static_cast<Byte>(0xE0U | c >> 12U);
        } else {
            if (end_ - at_ < 4) return false;
            *at_++ = static_cast<Byte>(0xF0U | c >> 18U);
            PutTail(c >> 12U);
        }
        PutTail(c >> 6U);
        PutTail(c);
        return true;
    }

private:
    void PutTail(uint32_t bits) { *at_++ = static_cast<Byte>(0x80U | (bits & 0x3FU)); }

    Byte* const begin_;
    Byte* at_;
    Byte* const end_;
};

/// Of wide characters.
class WideWriter {
public:
    WideWriter(char* dst, size_t room) : begin_(dst), at_(dst), end_(dst + room) {}

    int Written() const { return static_cast<int>(at_ - begin_); }

    PZ_INLINE bool Put(uint32_t c) {
        if (end_ - at_ < static_cast<ptrdiff_t>(sizeof c)) return false;
        std::memcpy(at_, &c, sizeof c);
        at_ += sizeof c;
        return true;
    }

private:
    char* const begin_;
    char* at_;
    char* const end_;
};

/// Of 16-bit units.
template <bool kIsSwapped>
class Utf16Writer {
public:
    Utf16Writer(char* dst, size_t room) : begin_(dst), at_(dst), end_(dst + room) {}

    int Written() const { return static_cast<int>(at_ - begin_); }

    PZ_INLINE bool Put(uint32_t c) {
        if (c < kFirstBeyond16) {
            if (end_ - at_ < 2) return false;
            PutUnit(c);
            return true;
        }
        if (end_ - at_ < 4) return false;
        c -= kFirstBeyond16;
        PutUnit(kHighSurrogates + (c >> 10U));
        PutUnit(kLowSurrogates + (c & 0x3FFU));
        return true;
    }

private:
    void PutUnit(uint32_t c) {
        auto unit = static_cast<uint16_t>(c);
        if (kIsSwapped) unit = __builtin_bswap16(unit);
        std::memcpy(at_, &unit, sizeof unit);
        at_ += sizeof unit;
    }

    char* const begin_;
    char* at_;
    char* const end_;
};

// ---- the way from each form to each other one ----

template <typename Reader, typename Writer>
int copy_characters(Reader reader, Writer writer) {
    while (!reader.IsAtEnd()) {
        uint32_t c = 0;
        if (!reader.Take(c) || !writer.Put(c)) return kIconvs;
    }
    return writer.Written();
}

struct ST_ROOM {
    char* begin;
    size_t size;
};

/// A short text into a destination that has room for as many units as the text has bytes.
template <typename Unit, typename Writer>
int widen_short(Utf8Reader reader, char* dst) {
    char* at = dst;
    for (;;) {
        Unit unit = 0;
        while (reader.TakeAscii(unit)) {  // a loop of its own: one jump a character
            std::memcpy(at, &unit, sizeof unit);
            at += sizeof unit;
        }
        if (reader.IsAtEnd()) return static_cast<int>(at - dst);
        uint32_t c = 0;
        if (!reader.Take(c)) return kIconvs;
        Writer writer(at, 2 * sizeof(Unit));
        writer.Put(c);
        at += writer.Written();
    }
}

/// The rest of a text, in units of the machine's own byte order.
template <typename Unit, typename Writer>
__attribute__((noinline)) int copy_rest(Utf8Reader reader, ST_ROOM dst) {
    return reader.Left() * sizeof(Unit) <= dst.size
               ? widen_short<Unit, Writer>(reader, dst.begin)
               : copy_characters(reader, Writer(dst.begin, dst.size));
}

/// Units on their way into a destination, which gets those that count and no more: after them
/// others may be left.
template <typename Unit>
class Chunk {
public:
    bool IsFull() const { return count_ >= kSize; }
    bool IsOver(ST_ROOM dst) const { return count_ * sizeof(Unit) > dst.size; }

    /// Where to put at most kReach units.
    Unit* End() { return units_ + count_; }
    void Add(size_t units) { count_ += units; }

    /// Moves its units to the beginning of `dst`, which shrinks to what follows them.
    void MoveTo(ST_ROOM& dst) {
        const size_t bytes = count_ * sizeof(Unit);
        std::memcpy(dst.begin, units_, bytes);
        dst.begin += bytes;
        dst.size -= bytes;
        count_ = 0;
    }

private:
    static constexpr size_t kSize = 256;

    Unit units_[kSize + kReach];
    size_t count_ = 0;
};

/// A text in which ASCII is frequent, into units of the machine's own byte order.
template <typename Unit, typename Writer>
int widen(Utf8Reader reader, ST_ROOM dst) {
    char* const begin = dst.begin;
    Chunk<Unit> chunk;
    while (reader.HasBlock()) {
        const int count = reader.template TakeBlock<Unit, Writer>(chunk.End());
        if (count < 0) return kIconvs;
        chunk.Add(static_cast<size_t>(count));
        if (!chunk.IsFull()) continue;
        if (chunk.IsOver(dst)) return kIconvs;
        chunk.MoveTo(dst);
    }
    // cppcheck-suppress uninitvar ; its units are written before they count
    if (chunk.IsOver(dst)) return kIconvs;
    chunk.MoveTo(dst);
    const int rest = copy_rest<Unit, Writer>(reader, dst);
    return rest < 0 ? kIconvs : static_cast<int>(dst.begin - begin) + rest;
}

template <typename Reader>
int copy_from(Reader reader, EN_XCP to, ST_ROOM dst) {
    switch (to) {
        case XCP_UTF8:
            return copy_characters(reader, Utf8Writer(dst.begin, dst.size));
        case XCP_WCHAR:
            return copy_characters(reader, WideWriter(dst.begin, dst.size));
        case XCP_UTF16LE:
            return copy_characters(reader, Utf16Writer<!kIsLittleEndian>(dst.begin, dst.size));
        case XCP_UTF16BE:
            return copy_characters(reader, Utf16Writer<kIsLittleEndian>(dst.begin, dst.size));
        default:
            return kIconvs;
    }
}

template <typename Unit, typename Writer>
int copy_native(Utf8Reader reader, ST_ROOM dst) {
    return reader.HasBlock() ? widen<Unit, Writer>(reader, dst)
                             : copy_rest<Unit, Writer>(reader, dst);
}

int copy_from_utf8(Utf8Reader reader, EN_XCP to, ST_ROOM dst) {
    switch (to) {
        case XCP_WCHAR:
            return copy_native<uint32_t, WideWriter>(reader, dst);
        case kNativeUtf16:
            return copy_native<uint16_t, Utf16Writer<false>>(reader, dst);
        case kOtherUtf16:
            return copy_characters(reader, Utf16Writer<true>(dst.begin, dst.size));
        default:
            return kIconvs;
    }
}

}  // namespace

int pz_convert_directly(char* dst, int room, EN_XCP to, const char* src, int size,
                        EN_XCP from) noexcept {
    // Iconv takes a page into itself for no conversion, and refuses some.
    if (room < 0 || from == to || may_be_missing(from) || may_be_missing(to)) return kIconvs;
    const ST_ROOM out = {dst, static_cast<size_t>(room)};
    const auto in = static_cast<size_t>(size);
    switch (from) {
        case XCP_UTF8:
            return copy_from_utf8(Utf8Reader(src, in), to, out);
        case XCP_WCHAR:
            return copy_from(WideReader(src, in), to, out);
        case XCP_UTF16LE:
            return copy_from(Utf16Reader<!kIsLittleEndian>(src, in), to, out);
        case XCP_UTF16BE:
            return copy_from(Utf16Reader<kIsLittleEndian>(src, in), to, out);
        default:
            break;
    }
    const ST_PAGE* const page = known_page(from);
    return page != nullptr ? copy_from(PageReader(*page, src, in), to, out) : kIconvs;
}

void pz_learn_from_iconv(EN_XCP to, EN_XCP from) {
    learn_form(to);
    learn_form(from);
    learn_page(from);
}
