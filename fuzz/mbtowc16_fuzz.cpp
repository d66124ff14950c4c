#include <Framework/Wrapper/pz_cp_conv.h>

#include "support/Source.h"
#include "support/conversion.h"

// pz_mbtowc16 from all code pages into the 16-bit forms, and into the others, which it refuses.
//
// Input: target page, source page, two bytes of the call (see take_call), text.

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace pzfuzz;  // NOLINT(google-build-using-namespace)
    FuzzInput input(data, size);
    const EN_XCP to = take_page(input);
    const EN_XCP from = take_page(input);
    const ConversionCall call = take_call(input);
    const Source<char> source(call, input.Rest());
    const auto convert = [&](char* dst, unsigned int dstCount) {
        return pz_mbtowc16(reinterpret_cast<unsigned short*>(dst), dstCount, to, source.Data(),
                           source.Length(), from);
    };
    if (is_utf16(to)) {
        check_conversion(call, to, sizeof(unsigned short), from, source.Text(), convert);
    } else {
        Destination dst(call.dstCount * sizeof(unsigned short));
        fuzz_check(convert(dst.Data(), call.dstCount) == -1, "only 16-bit targets are allowed");
        fuzz_check(dst.IsUntouchedFrom(0), "a refused target was changed");
        dst.CheckGuards();
    }
    source.CheckUntouched();
    return 0;
}
