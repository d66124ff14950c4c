#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Wrapper/pz_stdlib.h>

#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"

// pz_swprintf in a process that runs out of memory at any of its allocations.

namespace {

constexpr unsigned int kCount = 400;

/// The call under test: every kind of conversion, and texts too long for a small buffer.
int format(wchar_t* dst, const std::wstring& wide, const std::string& narrow) {
    return pz_swprintf(dst, kCount, L"%s|%hs|%100d|%60.2f|%c|%b", wide.c_str(), narrow.c_str(), 42,
                       1.5, L'x', true);
}

}  // namespace

TEST(pz_swprintfMemoryTest, AnswersZeroAndAnEmptyTextWheneverMemoryRunsOut) {
    const std::wstring wide(60, L'w');
    const std::string narrow(70, 'n');
    pztest::StdoutCapture output;
    int refusals = 0;
    std::wstring complete;
    for (int skip = 0; complete.empty(); ++skip) {
        std::vector<wchar_t> dst(kCount, L'-');
        int stored = -1;
        int refused = 0;
        {
            const pztest::MemoryShortage shortage(skip);
            stored = format(dst.data(), wide, narrow);
            refused = shortage.Refused();
        }
        const std::string text = output.Take();
        if (refused == 0) {
            complete.assign(dst.data(), static_cast<size_t>(stored));
            EXPECT_EQ("", text);
            break;
        }
        ++refusals;
        EXPECT_EQ(0, stored) << skip;
        EXPECT_EQ(static_cast<ptrdiff_t>(kCount), std::count(dst.begin(), dst.end(), L'\0'));
        EXPECT_EQ(std::vector<std::string>{"failed to allocate memory"},
                  pztest::error_messages(text));
    }
    EXPECT_GE(refusals, 10);
    EXPECT_EQ(wide + L"|" + std::wstring(70, L'n') + L"|" + std::wstring(98, L' ') + L"42|" +
                  std::wstring(56, L' ') + L"1.50|x|true",
              complete);
}
