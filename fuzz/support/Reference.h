#ifndef PZ_FUZZ_SUPPORT_REFERENCE_H
#define PZ_FUZZ_SUPPORT_REFERENCE_H

#include <iconv.h>

#include <string>

#include <Framework/Wrapper/private/pz_iconv_names.h>
#include <Framework/Wrapper/pz_cp_conv.h>

#include "support/Destination.h"

// A conversion by one call of iconv on a descriptor of its own: what each converter has to leave
// behind, byte by byte.

namespace pzfuzz {

inline const char* iconv_name(EN_XCP page) {
    return kIconvNames[page >= 0 && page <= XCP_NONE ? page : XCP_NONE];
}

inline void put_zeros(Destination& dst, size_t at, size_t count) {
    for (; count > 0 && at < dst.Size(); --count) dst.Data()[at++] = '\0';
}

/// Converts `src` into `dst`, whose units have `unit` bytes, and answers what the converter must.
inline int convert_by_iconv(Destination& dst, EN_XCP to, size_t unit, std::string src,
                            EN_XCP from) {
    iconv_t converter = iconv_open(iconv_name(to), iconv_name(from));
    if (converter == reinterpret_cast<iconv_t>(-1)) {
        put_zeros(dst, 0, to == XCP_WCHAR ? unit : 1);
        return 0;
    }
    char* in = src.data();
    size_t inLeft = src.size();
    char* out = dst.Data();
    size_t outLeft = dst.Size();
    const size_t result = iconv(converter, &in, &inLeft, &out, &outLeft);
    iconv_close(converter);
    if (result == static_cast<size_t>(-1) || outLeft < unit) {
        put_zeros(dst, 0, unit);
        return 0;
    }
    const size_t written = dst.Size() - outLeft;
    if (unit > 1) put_zeros(dst, written, unit);
    return static_cast<int>(written / unit);
}

}  // namespace pzfuzz

#endif  // PZ_FUZZ_SUPPORT_REFERENCE_H
