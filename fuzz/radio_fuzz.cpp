#include <algorithm>
#include <string>

#include <Framework/Wrapper/cp_conv_basic_rds.h>
#include <Framework/Wrapper/pz_cp_conv.h>

#include "support/Source.h"
#include "support/conversion.h"

// The converters of the radio sets: a text is its characters one by one.
//
// Input: set, two bytes of the call (see take_call), text.

namespace {

using namespace pzfuzz;  // NOLINT(google-build-using-namespace)

struct RadioSet {
    EN_XCP page;
    int (*convert)(char* dst, unsigned int dst_size, const char* src, unsigned int src_len);
};

constexpr RadioSet kSets[] = {
    {XCP_RDS, cp_conv_basic_rds_to_utf8},
    {XCP_RDS_2017, cp_conv_basic_rds_2017_to_utf8},
    {XCP_RBDS_2017, cp_conv_basic_rbds_2017_to_utf8},
};

std::string convert_character(const RadioSet& set, char character) {
    Destination dst(7);
    const int result = set.convert(dst.Data(), 7, &character, 1);
    fuzz_check(result >= 1 && result <= 3, "a character has 1 to 3 bytes");
    std::string bytes = dst.Bytes(0, static_cast<size_t>(result));
    fuzz_check(static_cast<unsigned char>(bytes[0]) < 0x80 ? result == 1 : result > 1,
               "no UTF-8 character");
    dst.CheckGuards();
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const RadioSet& set = kSets[input.Byte() % 3];
    const ConversionCall call = take_call(input);
    const Source<char> source(call, input.Rest());

    // The source ends at its first zero, even when its length is given.
    std::string expected;
    for (size_t i = 0; i < source.Bytes() && source.Data() != nullptr && source.Data()[i] != 0;
         ++i) {
        expected += convert_character(set, source.Data()[i]);
    }

    // An impossible length would be believed; the size of the destination is not looked at.
    const unsigned int length =
        call.measure ? 0xFFFFFFFF : static_cast<unsigned int>(source.Bytes());
    Destination dst(2 * expected.size() + 1);
    Destination again(dst);
    char* const target = call.nullDst ? nullptr : dst.Data();
    const int result = set.convert(target, call.dstCount, source.Data(), length);
    const int routed = pz_cp_conv(call.nullDst ? nullptr : again.Data(), call.dstCount, XCP_UTF8,
                                  source.Data(), length, set.page);
    dst.CheckGuards();
    source.CheckUntouched();
    fuzz_check(result == routed && dst == again, "pz_cp_conv gave another result");
    if (target == nullptr || source.Data() == nullptr) {
        fuzz_check(result == 0 && dst.IsUntouchedFrom(0), "a null pointer was accepted");
        return 0;
    }
    fuzz_check(result == static_cast<int>(expected.size()), "another number of bytes");
    fuzz_check(dst.Bytes(0, expected.size()) == expected, "other characters");
    fuzz_check(dst.Bytes(expected.size(), expected.size()) ==
                   std::string(expected.size(), Destination::kFill),
               "written between the text and its zero");
    fuzz_check(dst.HasZeros(2 * expected.size(), 1), "no zero at twice the length");
    return 0;
}
