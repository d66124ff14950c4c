// Texts to UTF-8 and back, as strings.
#include <cstdio>

#include <Framework/Easy/Text.h>

int main() {
    const std::string station = pz::to_utf8("Caf\xe9 Wien", XCP_ISO8859_1);
    std::printf("%s\n", station.c_str());
    const auto bytes = pz::from_utf8(station, XCP_CP850);
    if (!bytes) return 1;
    for (const char byte : *bytes) std::printf("%02x ", static_cast<unsigned char>(byte));
    std::printf("\n%s\n", pz::to_utf8(*bytes, XCP_CP850).value_or("?").c_str());
}
