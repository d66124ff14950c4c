#include <Framework/Wrapper/pz_cp_conv.h>

#include "support/Source.h"
#include "support/conversion.h"

// pz_wc16tomb and pz_wctomb into all code pages.
//
// Input: 0 for wide text or the source page of 16-bit text, target page, two bytes of the call (see
// take_call), units in the machine's byte order.

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace pzfuzz;  // NOLINT(google-build-using-namespace)
    FuzzInput input(data, size);
    const EN_XCP from = take_page(input);
    const EN_XCP to = take_page(input);
    const ConversionCall call = take_call(input);
    if (from == XCP_LATIN_ASCII) {
        const Source<wchar_t> source(call, input.Rest());
        check_conversion(call, to, 1, XCP_WCHAR, source.Text(),
                         [&](char* dst, unsigned int dstSize) {
                             return pz_wctomb(dst, dstSize, source.Data(),
                                              static_cast<int>(source.Length()), to);
                         });
        source.CheckUntouched();
        return 0;
    }
    const Source<unsigned short> source(call, input.Rest());
    check_conversion(call, to, 1, from, source.Text(), [&](char* dst, unsigned int dstSize) {
        return pz_wc16tomb(dst, dstSize, to, source.Data(), static_cast<int>(source.Length()),
                           from);
    });
    source.CheckUntouched();
    return 0;
}
