// Code pages: bytes to bytes, to wide characters and to 16-bit units.
//
// The results are the numbers of units written, without terminator. Narrow targets get none, so
// the buffers are filled with zeros.
#include <cstdio>
#include <cstring>

#include <Framework/Wrapper/pz_cp_conv.h>

namespace {

void print_bytes(const char* name, const void* data, int size) {
    const auto* const bytes = static_cast<const unsigned char*>(data);
    std::printf("%s:", name);
    for (int i = 0; i < size; ++i) std::printf(" %02x", bytes[i]);
    std::printf("\n");
}

}  // namespace

int main() {
    const char forest[] = "\xCC\xC5\xD3";  // in KOI8-R
    const unsigned int size = sizeof forest - 1;

    char utf8[32] = {};
    int count = pz_cp_conv(utf8, sizeof utf8, XCP_UTF8, forest, size, XCP_KOI8_R);
    std::printf("UTF-8: %s, %d bytes\n", utf8, count);

    char windows[32] = {};
    count = pz_cp_conv(windows, sizeof windows, XCP_WINDOWS_1251, forest, size, XCP_KOI8_R);
    print_bytes("windows-1251", windows, count);

    wchar_t wide[32] = {};
    count = pz_mbtowc(wide, 32, forest, size, XCP_KOI8_R);
    std::printf("wide: %d characters, the first is U+%04X\n", count,
                static_cast<unsigned int>(wide[0]));

    const char euro[] = "\xE2\x82\xAC";  // in UTF-8
    unsigned short units[32] = {};
    count = pz_mbtowc16(units, 32, XCP_UTF16BE, euro, sizeof euro - 1, XCP_UTF8);
    print_bytes("UTF-16BE", units, 2 * count);

    std::memset(utf8, 0, sizeof utf8);
    count = pz_wc16tomb(utf8, sizeof utf8, XCP_UTF8, units, count, XCP_UTF16BE);
    std::printf("and back: %s, %d bytes\n", utf8, count);
}
