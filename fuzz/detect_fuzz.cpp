#include <cstring>
#include <string>
#include <vector>

#include <unicode/ucsdet.h>

#include <Framework/Wrapper/pz_cp_conv.h>

#include "support/FuzzInput.h"
#include "support/conversion.h"
#include "support/fuzz_check.h"

// pz_cp_detect beside the machine's own ICU, which is asked directly.
//
// Input: hint, threshold, text.

namespace {

using namespace pzfuzz;  // NOLINT(google-build-using-namespace)

struct Name {
    const char* name;
    int page;
};

constexpr Name kNames[] = {
    {"UTF-8", 32},        {"UTF-16BE", 35},     {"UTF-16LE", 36},     {"UTF-32BE", 52},
    {"UTF-32LE", 52},     {"ISO-8859-1", 22},   {"ISO-8859-2", 23},   {"ISO-8859-5", 25},
    {"ISO-8859-6", 26},   {"ISO-8859-7", 27},   {"ISO-8859-8-I", 28}, {"ISO-8859-8", 28},
    {"windows-1251", 44}, {"windows-1256", 45}, {"KOI8-R", 41},       {"ISO-8859-9", 29},
    {"Shift_JIS", 20},    {"GB18030", 37},      {"EUC-JP", 39},       {"EUC-KR", 40},
    {"Big5", 38},         {"ISO-2022-JP", 46},  {"ISO-2022-KR", 47},  {"ISO-2022-CN", 48},
    {"IBM424_rtl", 52},   {"IBM424_ltr", 52},   {"IBM420_rtl", 52},   {"IBM420_ltr", 52},
};

int page_of(const std::string& name) {
    for (const Name& row : kNames) {
        if (name == row.name) return row.page;
    }
    return XCP_NONE;
}

std::string name_of(int page) {
    for (const Name& row : kNames) {
        if (page != XCP_NONE && page == row.page) return row.name;
    }
    return "";
}

struct Match {
    std::string name;
    int confidence;
};

std::vector<Match> ask_icu(const std::string& text) {
    UErrorCode error = U_ZERO_ERROR;
    UCharsetDetector* const detector = ucsdet_open(&error);
    ucsdet_setText(detector, text.data(), static_cast<int32_t>(text.size()), &error);
    int32_t count = 0;
    const UCharsetMatch** const list = ucsdet_detectAll(detector, &count, &error);
    std::vector<Match> matches;
    matches.reserve(static_cast<size_t>(count));
    for (int32_t i = 0; i < count; ++i) {
        matches.push_back({ucsdet_getName(list[i], &error), ucsdet_getConfidence(list[i], &error)});
    }
    ucsdet_close(detector);
    // ICU fails where it finds no match at all.
    fuzz_check(U_SUCCESS(error) || (error == U_INVALID_CHAR_FOUND && matches.empty()),
               "ICU failed");
    return matches;
}

/// The best match, unless it is less certain than the threshold and the hint is a match, too.
int choose(const std::vector<Match>& matches, EN_XCP hint, int threshold) {
    if (matches.empty()) return XCP_NONE;
    const std::string hinted = name_of(hint);
    for (const Match& match : matches) {
        if (hinted.empty() || (match.confidence < threshold && match.name != hinted)) continue;
        if (page_of(match.name) != XCP_NONE) return page_of(match.name);
        break;
    }
    return page_of(matches[0].name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const EN_XCP hint = take_page(input);
    const int byte = input.Byte();
    const int threshold = byte < 0xF0 ? byte : byte - 0x100;  // some are negative
    const std::string text = input.Rest();
    const std::vector<char> bytes(text.begin(), text.end());
    const EN_XCP found =
        pz_cp_detect(bytes.data(), static_cast<unsigned int>(bytes.size()), hint, threshold);
    const int expected = text.empty() ? XCP_NONE : choose(ask_icu(text), hint, threshold);
    fuzz_check(found == expected, "ICU itself says something else");
    fuzz_check(text.compare(0, text.npos, bytes.data(), bytes.size()) == 0, "the text was changed");
    return 0;
}
