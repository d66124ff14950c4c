// Radio text: the same broadcast bytes in the three character sets.
#include <cstdio>

#include <Framework/Utility/PZString.h>

int main() {
    const char received[] = "Caf\x82 \x24 \x5E \xA9";
    for (const EN_XCP set : {XCP_RDS, XCP_RDS_2017, XCP_RBDS_2017}) {
        PZString text(received, set);
        const char* const utf8 = text.ToTCHAR();  // converts in place
        if (utf8 == nullptr) return 1;
        std::printf("set %d: %s, %u characters\n", set, utf8, text.Length());
    }
}
