// Detection: the likely code page of unknown bytes.
//
// Asks the detector of the ICU that the process has loaded: link PZFramework::icu.
#include <cstdio>
#include <string>

#include <Framework/Wrapper/pz_cp_conv.h>

namespace {

const char* name_of(EN_XCP page) {
    switch (page) {
        case XCP_UTF8:
            return "UTF-8";
        case XCP_KOI8_R:
            return "KOI8-R";
        case XCP_NONE:
            return "unknown";
        default:
            return "another one";
    }
}

/// The best match, whatever its confidence, and no hint.
EN_XCP detect(const std::string& bytes) {
    return pz_cp_detect(bytes.data(), static_cast<unsigned int>(bytes.size()), XCP_NONE, 0);
}

}  // namespace

int main() {
    // "All happy families are alike", in Russian.
    const std::string koi8 =
        "\xF7\xD3\xC5 \xD3\xDE\xC1\xD3\xD4\xCC\xC9\xD7\xD9\xC5 \xD3\xC5\xCD\xD8\xC9 "
        "\xD0\xCF\xC8\xCF\xD6\xC9 \xC4\xD2\xD5\xC7 \xCE\xC1 \xC4\xD2\xD5\xC7\xC1. ";
    const EN_XCP page = detect(koi8 + koi8 + koi8);
    std::printf("found: %s\n", name_of(page));

    char utf8[256] = {};
    const auto size = static_cast<unsigned int>(koi8.size());
    if (pz_cp_conv(utf8, sizeof utf8, XCP_UTF8, koi8.data(), size, page) < 1) return 1;
    std::printf("read as such: %s\n", utf8);
    std::printf("found: %s\n", name_of(detect(utf8)));
}
