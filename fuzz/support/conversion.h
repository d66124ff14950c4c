#ifndef PZ_FUZZ_SUPPORT_CONVERSION_H
#define PZ_FUZZ_SUPPORT_CONVERSION_H

#include <cstddef>
#include <string>

#include <Framework/Wrapper/pz_cp_conv.h>

#include "support/Destination.h"
#include "support/FuzzInput.h"
#include "support/Reference.h"
#include "support/fuzz_check.h"

// What the converters of pz_cp_conv.h have in common, checked for any of them.

namespace pzfuzz {

/// A code page, one number beyond the last included.
inline EN_XCP take_page(FuzzInput& input) {
    return static_cast<EN_XCP>(input.Byte() % (XCP_NONE + 2));
}

inline bool is_radio(EN_XCP page) {
    return page == XCP_RDS || page == XCP_RDS_2017 || page == XCP_RBDS_2017;
}

inline bool is_utf16(EN_XCP page) {
    return page == XCP_UTF16 || page == XCP_UTF16BE || page == XCP_UTF16LE;
}

inline size_t unit_size(EN_XCP page) {
    if (page == XCP_WCHAR) return 4;
    return is_utf16(page) ? 2 : 1;
}

/// How a converter is called; the choices are the first bytes of an input.
struct ConversionCall {
    unsigned int dstCount = 0;  ///< in the units of the destination argument
    bool nullDst = false;
    bool nullSrc = false;
    bool measure = false;         ///< the source's length is measured
    bool impossibleSize = false;  ///< the destination is said to be larger than possible
    bool impossibleSource = false;
    size_t shift = 0;  ///< of the destination, off its alignment
};

/// Two bytes: flags, and the number of units.
inline ConversionCall take_call(FuzzInput& input) {
    const unsigned int flags = input.Byte();
    ConversionCall call;
    call.dstCount = input.Byte();
    call.measure = (flags & 0x01U) != 0;
    call.shift = (flags >> 1U) & 0x03U;
    if ((flags & 0x08U) != 0) call.dstCount *= 16;
    // Arguments that are refused are many calls but few cases.
    const unsigned int refused = flags >> 4U;
    call.nullDst = refused == 1;
    call.nullSrc = refused == 2;
    call.impossibleSize = refused == 3;
    call.impossibleSource = refused == 4;
    return call;
}

/// A number of `unitSize`-byte units whose size in bytes is no positive 32-bit number. (The number
/// that means "measure" is not among them.)
inline unsigned int impossible_count(size_t unitSize) {
    return static_cast<unsigned int>(0x80000000U / unitSize) + 5;
}

/// Runs `convert(dst, dstCount)`, a call of a converter into `to`, twice with the destination of
/// `call` and once with one that is large enough for everything, and compares.
///
/// The call is also compared with iconv itself. `dstUnit` is the size of the units that `dstCount`
/// counts, `src` what is to be converted from the page `from`.
template <typename Convert>
void check_conversion(const ConversionCall& call, EN_XCP to, size_t dstUnit, EN_XCP from,
                      const std::string& src, const Convert& convert) {
    const size_t srcBytes = src.size();
    const size_t unit = unit_size(to);
    const unsigned int count = call.impossibleSize ? impossible_count(dstUnit) : call.dstCount;
    Destination dst(call.impossibleSize ? 64 : call.dstCount * dstUnit, call.shift * dstUnit % 4);
    Destination again(dst);
    const int result = convert(call.nullDst ? nullptr : dst.Data(), count);
    const int repeated = convert(call.nullDst ? nullptr : again.Data(), count);
    dst.CheckGuards();
    fuzz_check(result == repeated && dst == again, "the same call gave another result");

    if (call.nullDst || call.nullSrc || call.impossibleSize || call.impossibleSource ||
        srcBytes == 0 || dst.Size() == 0) {
        fuzz_check(result == 0, "refused arguments do not answer 0");
        fuzz_check(dst.IsUntouchedFrom(0), "refused arguments changed the destination");
        return;
    }
    fuzz_check(result >= 0, "a negative result");
    Destination expected(dst.Size(), call.shift * dstUnit % 4);
    fuzz_check(result == convert_by_iconv(expected, to, unit, src, from),
               "iconv answers otherwise");
    fuzz_check(dst == expected, "iconv leaves other bytes");

    Destination large((srcBytes + 1) * 16);
    const int all = convert(large.Data(), static_cast<unsigned int>(large.Size() / dstUnit));
    large.CheckGuards();
    const size_t needed = static_cast<size_t>(all) * unit + unit;
    if (result > 0) {
        fuzz_check(result == all, "a smaller destination gave another result");
        fuzz_check(dst.Size() >= needed, "no room for the terminator");
        const size_t written = static_cast<size_t>(result) * unit;
        fuzz_check(dst.Bytes(0, written) == large.Bytes(0, written),
                   "a smaller destination gave another text");
        const size_t terminator = unit > 1 ? unit : 0;
        fuzz_check(dst.HasZeros(written, terminator), "no terminator");
        fuzz_check(dst.IsUntouchedFrom(written + terminator), "written behind the terminator");
        return;
    }
    fuzz_check(all == 0 || dst.Size() < needed, "refused a destination that is large enough");
    if (unit == 1 && large.IsUntouchedFrom(0)) {  // a text that converts into nothing
        fuzz_check(dst.IsUntouchedFrom(0), "nothing was converted, but something written");
        return;
    }
    // A 16-bit target that cannot be opened gets one zero byte only.
    const bool isOneZero = is_utf16(to) && dst.HasZeros(0, 1) && dst.IsUntouchedFrom(1);
    fuzz_check(dst.HasZeros(0, unit) || isOneZero, "a failure left no empty text");
}

}  // namespace pzfuzz

#endif  // PZ_FUZZ_SUPPORT_CONVERSION_H
