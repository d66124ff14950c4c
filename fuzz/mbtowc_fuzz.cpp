#include <Framework/Wrapper/pz_cp_conv.h>

#include "support/Source.h"
#include "support/conversion.h"

// pz_mbtowc from all code pages.
//
// Input: source page, two bytes of the call (see take_call), text.

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace pzfuzz;  // NOLINT(google-build-using-namespace)
    FuzzInput input(data, size);
    const EN_XCP from = take_page(input);
    const ConversionCall call = take_call(input);
    const Source<char> source(call, input.Rest());
    check_conversion(call, XCP_WCHAR, sizeof(wchar_t), from, source.Text(),
                     [&](char* dst, unsigned int dstCount) {
                         return pz_mbtowc(reinterpret_cast<wchar_t*>(dst), dstCount, source.Data(),
                                          source.Length(), from);
                     });
    source.CheckUntouched();
    return 0;
}
