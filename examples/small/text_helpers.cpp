// Helpers for C strings: formatting, numbers, comparing.
#include <cstdio>

#include <Framework/Utility/PZString.h>
#include <Framework/Wrapper/pz_stdlib.h>

int main() {
    // Wide text with %s, narrow text with %hs, a truth value with %b.
    wchar_t line[64];
    const int count =
        pz_swprintf(line, 64, L"%-8s|%6.2f|%04X|%b|%hs", L"volume", 12.5, 255, true, "gr\xC3\xBCn");
    PZString text(line);
    std::printf("%s: %d characters\n", text.ToTCHAR(), count);

    char number[34];
    pz__itoa(-42, number, sizeof number, 10);
    std::printf("decimal %s\n", number);
    pz__itoa(42, number, sizeof number, 2);
    std::printf("binary %s\n", number);
    std::printf("read from \"250 km\": %ld\n", pz__wtoi(L"250 km"));

    std::printf("\"Radio\" and \"RADIO\": %s\n",
                pz_wcsnicmp(L"Radio", L"RADIO", 5) == 0 ? "equal" : "different");
    std::printf("length of null: %u\n", pz_wcsnlen(nullptr, 10));
}
