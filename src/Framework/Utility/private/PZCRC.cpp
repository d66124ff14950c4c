#include "Framework/Utility/PZCRC.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "pz_crc32.h"

namespace {

constexpr uint32_t kStart = 0xFFFFFFFF;

/// Part of the checksum: pieces of another size give another result.
constexpr size_t kPieceSize = 10240;

}  // namespace

unsigned long PZCRC::getMemCRC32(unsigned long seed, const unsigned char* data,
                                 unsigned int length) const {
    auto crc = static_cast<uint32_t>(seed);
    if (data != nullptr) crc = pz_crc32::feed(crc, data, length);
    return static_cast<uint32_t>(~crc);
}

bool PZCRC::CRC32(const char* path, unsigned long& result) const {
    if (path == nullptr || *path == '\0') return false;
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path, "rbe"), &std::fclose);
    if (file == nullptr) return false;

    unsigned char piece[kPieceSize];
    unsigned long value = kStart;
    size_t got = 0;
    do {
        got = std::fread(piece, 1, sizeof piece, file.get());
        value = getMemCRC32(value, piece, static_cast<unsigned int>(got));
    } while (got > 0);
    // The empty piece at the end has complemented the value once more.
    result = static_cast<uint32_t>(~value);
    return true;
}
