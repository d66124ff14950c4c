// The byte buffer: numbers and texts in a received telegram.
#include <cstdio>

#include <Framework/Utility/PZBinary.h>

int main() {
    const unsigned char received[] = {
        0x02,        // kind
        0x26, 0xAC,  // frequency in units of 10 kHz, most significant byte first
        'R',  'a',  'd',  'i',  'o',
        0x78, 0x56, 0x34, 0x12,  // identifier, least significant byte first
    };
    PZBinary telegram(received, sizeof received);

    std::printf("kind %u\n", telegram.getUInt8(0));
    std::printf("frequency %u0 kHz\n", telegram.getUInt16(1, true));
    std::printf("identifier 0x%x\n", telegram.getUInt32(8, false));
    std::printf("beyond the end: %u\n", telegram.getUInt32(9, false));

    telegram.seek(3, 0);  // the read... operations count from here
    std::printf("name %s\n", telegram.readString(0, 5).c_str());
    const PZBinary name = telegram.readBinary(0, 5);
    std::printf("a buffer of its own: %u bytes\n", name.getSize());

    telegram.add(name);
    std::printf("with the name behind it: %u bytes\n", telegram.getSize());
}
