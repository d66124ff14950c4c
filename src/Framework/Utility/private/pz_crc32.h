#ifndef PZ_FRAMEWORK_UTILITY_PRIVATE_PZ_CRC32_H
#define PZ_FRAMEWORK_UTILITY_PRIVATE_PZ_CRC32_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#include <immintrin.h>
#define PZ_CRC32_BY_CARRYLESS_MULTIPLICATION
#elif defined(__arm__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#ifdef HWCAP2_CRC32
#define PZ_CRC32_BY_INSTRUCTION
#endif
#endif

/// @file
/// Ways to feed bytes to the register of the CRC-32 of IEEE 802.3. Each gives the same register for
/// the same bytes; feed() takes the fastest that the processor has.
///
/// The register and the bytes are polynomials over one bit, reflected: bit 0 is the coefficient of
/// the highest power. A byte string stands for the polynomial whose highest power is bit 0 of its
/// first byte.

namespace pz_crc32 {

constexpr uint32_t kPolynomial = 0xEDB88320;  // reflected, without its highest power

/// The register after one more power of x.
constexpr uint32_t shifted(uint32_t reg) {
    return (reg & 1U) != 0 ? (reg >> 1U) ^ kPolynomial : reg >> 1U;
}

// ---- by tables: eight bytes a step ----

using Tables = std::array<std::array<uint32_t, 256>, 8>;

/// Table n: what a byte leaves in the register after n more bytes, all 0.
inline Tables make_tables() noexcept {
    Tables tables{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t reg = byte;
        for (int bit = 0; bit < 8; ++bit) reg = shifted(reg);
        tables[0][byte] = reg;
    }
    for (size_t n = 1; n < tables.size(); ++n) {
        for (size_t byte = 0; byte < 256; ++byte) {
            const uint32_t before = tables[n - 1][byte];
            tables[n][byte] = (before >> 8U) ^ tables[0][before & 0xFFU];
        }
    }
    return tables;
}

/// 8 KiB, made by the first checksum that needs them: in the library's file they would be a
/// fiftieth of it. Twice that, for sixteen bytes a step, would push half of a small processor's
/// first cache out for little.
inline const Tables& tables() noexcept {
    static const Tables made = make_tables();
    return made;
}

inline uint32_t word_at(const unsigned char* data) {
    uint32_t word = 0;
    std::memcpy(&word, data, sizeof word);
    return word;
}

inline uint32_t feed_by_tables(uint32_t reg, const unsigned char* data, size_t length) {
    const Tables& table = tables();
    for (; length >= 8; data += 8, length -= 8) {
        const uint32_t first = word_at(data) ^ reg;
        const uint32_t second = word_at(data + 4);
        reg = table[7][first & 0xFFU] ^ table[6][first >> 8U & 0xFFU] ^
              table[5][first >> 16U & 0xFFU] ^ table[4][first >> 24U] ^ table[3][second & 0xFFU] ^
              table[2][second >> 8U & 0xFFU] ^ table[1][second >> 16U & 0xFFU] ^
              table[0][second >> 24U];
    }
    for (; length > 0; ++data, --length) reg = table[0][(reg ^ *data) & 0xFFU] ^ (reg >> 8U);
    return reg;
}

#ifdef PZ_CRC32_BY_CARRYLESS_MULTIPLICATION

// ---- by carry-less multiplication: 64 or 128 bytes a step ----

/// x to the power of n, modulo the polynomial.
constexpr uint32_t power_of_x(unsigned int n) {
    uint32_t power = 0x80000000;  // x to the power of 0
    for (; n > 0; --n) power = shifted(power);
    return power;
}

/// The factor that moves 64 coefficients up by n powers. A product of two reflected factors is one
/// power too high (its bit 127 is never set), so the factor is one too low.
constexpr int64_t up_by(unsigned int n) {
    return static_cast<int64_t>(static_cast<uint64_t>(power_of_x(n - 1)) << 32U);
}

/// The factor that makes of 64 coefficients the 96 of the same polynomial moved up by 96 powers,
/// the highest of them in bit 0.
constexpr int64_t kUpBy96 = static_cast<int64_t>(static_cast<uint64_t>(power_of_x(96)) << 1U);

/// All 33 coefficients of the polynomial.
constexpr int64_t kWholePolynomial =
    static_cast<int64_t>(static_cast<uint64_t>(kPolynomial) << 1U | 1U);

/// x to the power of 96 divided by the polynomial, without the last of the 65 coefficients: the
/// upper 64 coefficients of its product with the upper 64 of a dividend of 96 are the quotient of
/// that dividend.
constexpr int64_t make_reciprocal() {
    uint64_t quotient = 1;        // reflected as well: the highest power comes first
    uint32_t rest = kPolynomial;  // of x to the power of 32
    for (unsigned int bit = 1; bit < 64; ++bit) {
        quotient |= static_cast<uint64_t>(rest & 1U) << bit;
        rest = shifted(rest);
    }
    return static_cast<int64_t>(quotient);
}
constexpr int64_t kReciprocal = make_reciprocal();

#define PZ_CRC32_TARGET __attribute__((target("pclmul,sse2")))

PZ_CRC32_TARGET inline __m128i block_at(const unsigned char* data) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(data));
}

/// `block` moved up by `distance` bits. Its first half lies 64 powers higher than the second.
template <unsigned int distance>
PZ_CRC32_TARGET inline __m128i moved(__m128i block) {
    const __m128i factors = _mm_set_epi64x(up_by(distance), up_by(distance + 64));
    return _mm_xor_si128(_mm_clmulepi64_si128(block, factors, 0x00),
                         _mm_clmulepi64_si128(block, factors, 0x11));
}

/// The register that a block leaves: the block moved up by 32 powers, modulo the polynomial.
PZ_CRC32_TARGET inline uint32_t reduced(__m128i block) {
    const __m128i divisor = _mm_set_epi64x(kWholePolynomial, kReciprocal);
    const __m128i dividend = _mm_xor_si128(
        _mm_clmulepi64_si128(block, _mm_set_epi64x(0, kUpBy96), 0x00), _mm_srli_si128(block, 8));
    const __m128i quotient = _mm_clmulepi64_si128(dividend, divisor, 0x00);
    const __m128i multiple = _mm_clmulepi64_si128(quotient, divisor, 0x10);
    const __m128i rest = _mm_xor_si128(dividend, multiple);
    return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(rest, 8)));
}

/// The register after `block`, in which the earlier bytes are summed up, and the bytes after it.
PZ_CRC32_TARGET inline uint32_t feed_after(__m128i block, const unsigned char* data,
                                           size_t length) {
    for (; length >= 16; data += 16, length -= 16) {
        block = _mm_xor_si128(moved<128>(block), block_at(data));
    }
    return feed_by_tables(reduced(block), data, length);
}

/// For 16 bytes and more.
PZ_CRC32_TARGET inline uint32_t feed_by_multiplication(uint32_t reg, const unsigned char* data,
                                                       size_t length) {
    const __m128i first = _mm_xor_si128(block_at(data), _mm_cvtsi32_si128(static_cast<int>(reg)));
    if (length < 64) return feed_after(first, data + 16, length - 16);

    // Four sums side by side: the processor multiplies for one while the others wait.
    __m128i a = first;
    __m128i b = block_at(data + 16);
    __m128i c = block_at(data + 32);
    __m128i d = block_at(data + 48);
    for (data += 64, length -= 64; length >= 64; data += 64, length -= 64) {
        a = _mm_xor_si128(moved<512>(a), block_at(data));
        b = _mm_xor_si128(moved<512>(b), block_at(data + 16));
        c = _mm_xor_si128(moved<512>(c), block_at(data + 32));
        d = _mm_xor_si128(moved<512>(d), block_at(data + 48));
    }
    const __m128i ab = _mm_xor_si128(moved<384>(a), moved<256>(b));
    const __m128i cd = _mm_xor_si128(moved<128>(c), d);
    return feed_after(_mm_xor_si128(ab, cd), data, length);
}

#undef PZ_CRC32_TARGET
#define PZ_CRC32_TARGET __attribute__((target("vpclmulqdq,pclmul,avx2")))

/// Two blocks, the first in the lower half.
PZ_CRC32_TARGET inline __m256i two_blocks_at(const unsigned char* data) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data));
}

template <unsigned int distance>
PZ_CRC32_TARGET inline __m256i both_moved(__m256i blocks) {
    const __m256i factors = _mm256_set_epi64x(up_by(distance), up_by(distance + 64),
                                              up_by(distance), up_by(distance + 64));
    return _mm256_xor_si256(_mm256_clmulepi64_epi128(blocks, factors, 0x00),
                            _mm256_clmulepi64_epi128(blocks, factors, 0x11));
}

/// For 128 bytes and more.
PZ_CRC32_TARGET inline uint32_t feed_by_wide_multiplication(uint32_t reg, const unsigned char* data,
                                                            size_t length) {
    __m256i a = _mm256_xor_si256(two_blocks_at(data),
                                 _mm256_zextsi128_si256(_mm_cvtsi32_si128(static_cast<int>(reg))));
    __m256i b = two_blocks_at(data + 32);
    __m256i c = two_blocks_at(data + 64);
    __m256i d = two_blocks_at(data + 96);
    for (data += 128, length -= 128; length >= 128; data += 128, length -= 128) {
        a = _mm256_xor_si256(both_moved<1024>(a), two_blocks_at(data));
        b = _mm256_xor_si256(both_moved<1024>(b), two_blocks_at(data + 32));
        c = _mm256_xor_si256(both_moved<1024>(c), two_blocks_at(data + 64));
        d = _mm256_xor_si256(both_moved<1024>(d), two_blocks_at(data + 96));
    }
    const __m256i ab = _mm256_xor_si256(both_moved<768>(a), both_moved<512>(b));
    const __m256i cd = _mm256_xor_si256(both_moved<256>(c), d);
    const __m256i both = _mm256_xor_si256(ab, cd);
    const __m128i block =
        _mm_xor_si128(moved<128>(_mm256_castsi256_si128(both)), _mm256_extracti128_si256(both, 1));
    return feed_after(block, data, length);
}

#undef PZ_CRC32_TARGET

/// What the processor multiplies with.
struct ST_MULTIPLIERS {
    bool hasNarrow;
    bool hasWide;
};

/// Asked by hand: __builtin_cpu_supports brings a list of all processors, a hundredth of the
/// library's size.
__attribute__((target("xsave"))) inline ST_MULTIPLIERS find_multipliers() noexcept {
    constexpr unsigned int kPclmul = 1U << 1U;       // leaf 1, ecx
    constexpr unsigned int kOsxsave = 1U << 27U;     // leaf 1, ecx
    constexpr unsigned int kAvx2 = 1U << 5U;         // leaf 7, ebx
    constexpr unsigned int kWidePclmul = 1U << 10U;  // leaf 7, ecx
    constexpr unsigned int kWideState = 6;           // the system keeps the wide registers
    unsigned int eax = 0;
    unsigned int ebx = 0;
    unsigned int ecx = 0;
    unsigned int edx = 0;
    if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0) return {false, false};
    const bool hasNarrow = (ecx & kPclmul) != 0;
    const bool hasState = (ecx & kOsxsave) != 0 && (_xgetbv(0) & kWideState) == kWideState;
    const bool hasWide = hasState && __get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) != 0 &&
                         (ebx & kAvx2) != 0 && (ecx & kWidePclmul) != 0;
    return {hasNarrow, hasNarrow && hasWide};
}

/// What runs before this is set takes the tables.
inline const ST_MULTIPLIERS multipliers = find_multipliers();

#endif  // PZ_CRC32_BY_CARRYLESS_MULTIPLICATION

#ifdef PZ_CRC32_BY_INSTRUCTION

// ---- by the processor's own instruction: four bytes a step ----

#ifdef __ARM_FP
#define PZ_CRC32_TARGET __attribute__((target("arch=armv8-a+crc+simd")))
#else
#define PZ_CRC32_TARGET __attribute__((target("arch=armv8-a+crc")))
#endif

/// What runs before this is set takes the tables.
inline const bool hasInstruction = (getauxval(AT_HWCAP2) & HWCAP2_CRC32) != 0;

PZ_CRC32_TARGET inline uint32_t feed_by_instruction(uint32_t reg, const unsigned char* data,
                                                    size_t length) {
    for (; length >= 4; data += 4, length -= 4) reg = __builtin_arm_crc32w(reg, word_at(data));
    for (; length > 0; ++data, --length) reg = __builtin_arm_crc32b(reg, *data);
    return reg;
}

#undef PZ_CRC32_TARGET

#endif  // PZ_CRC32_BY_INSTRUCTION

/// The register after `length` bytes.
inline uint32_t feed(uint32_t reg, const unsigned char* data, size_t length) {
#if defined(PZ_CRC32_BY_CARRYLESS_MULTIPLICATION)
    if (length >= 256 && multipliers.hasWide) {
        return feed_by_wide_multiplication(reg, data, length);
    }
    if (length >= 16 && multipliers.hasNarrow) {
        return feed_by_multiplication(reg, data, length);
    }
#elif defined(PZ_CRC32_BY_INSTRUCTION)
    if (hasInstruction) return feed_by_instruction(reg, data, length);
#endif
    return feed_by_tables(reg, data, length);
}

}  // namespace pz_crc32

#endif  // PZ_FRAMEWORK_UTILITY_PRIVATE_PZ_CRC32_H
