#include <cstring>
#include <string>

#include <Framework/Wrapper/pz_cp_conv.h>

#include "support/Source.h"
#include "support/conversion.h"

// pz_cp_conv between all pairs of code pages.
//
// Input: target page, source page, two bytes of the call (see take_call), text.

namespace {

using namespace pzfuzz;  // NOLINT(google-build-using-namespace)

/// The radio sets do not look at the size of the destination: it must hold twice the output.
void check_radio(const ConversionCall& call, EN_XCP to, EN_XCP from, const std::string& text) {
    const unsigned int length = call.measure ? 0xFFFFFFFF : static_cast<unsigned int>(text.size());
    Destination dst((text.size() + 1) * 6);
    const int result = pz_cp_conv(dst.Data(), call.dstCount, to, text.c_str(), length, from);
    dst.CheckGuards();
    if (to != XCP_UTF8) {
        fuzz_check(result == -1, "a radio set converts to UTF-8 only");
        fuzz_check(dst.IsUntouchedFrom(0), "a refused target was changed");
        return;
    }
    const size_t characters = std::strlen(text.c_str());
    fuzz_check(result >= static_cast<int>(characters), "less than a byte per character");
    fuzz_check(result <= 3 * static_cast<int>(characters), "more than three bytes per character");
    fuzz_check(dst.HasZeros(2 * static_cast<size_t>(result), 1), "no zero at twice the length");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const EN_XCP to = take_page(input);
    const EN_XCP from = take_page(input);
    const ConversionCall call = take_call(input);
    const std::string text = input.Rest();
    if (is_radio(from)) {
        check_radio(call, to, from, text);
        return 0;
    }

    const Source<char> source(call, text);
    check_conversion(call, to, 1, from, source.Text(), [&](char* dst, unsigned int dstSize) {
        return pz_cp_conv(dst, dstSize, to, source.Data(), source.Length(), from);
    });
    source.CheckUntouched();
    return 0;
}
