// CRC-32 of memory, at once and in pieces, and of a file.
//
// Makes and removes a file in the current folder.
#include <cstdio>

#include <Framework/Foundation/PZFileSys.h>
#include <Framework/Foundation/PZStorage.h>
#include <Framework/Utility/PZCRC.h>

namespace {

constexpr unsigned long kFirstSeed = 0xFFFFFFFF;
constexpr char kFile[] = "crc.bin";

}  // namespace

int main() {
    const unsigned char digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    const PZCRC crc;
    std::printf("memory:    %08lx\n", crc.getMemCRC32(kFirstSeed, digits, 9));

    // The complement of a result is the seed of the next piece.
    const unsigned long first = crc.getMemCRC32(kFirstSeed, digits, 5);
    std::printf("in pieces: %08lx\n", crc.getMemCRC32(~first, digits + 5, 4));

    PZStorage file(kFile, "wb");
    if (file.Write(digits, sizeof digits) != sizeof digits) return 1;
    file.Close();
    unsigned long ofFile = 0;
    if (!crc.CRC32(kFile, ofFile)) return 1;
    std::printf("file:      %08lx\n", ofFile);
    return PZFileSys::Delete(kFile, false) ? 0 : 1;
}
