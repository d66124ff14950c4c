#include "Framework/Utility/PZCRC.h"

#include <fcntl.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>

namespace {

constexpr uint32_t kPolynomial = 0xEDB88320;
constexpr uint32_t kStart = 0xFFFFFFFF;

/// Part of the checksum: pieces of another size give another result.
constexpr size_t kPieceSize = 10240;

/// What each value of a byte leaves in the register.
constexpr std::array<uint32_t, 256> make_table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t byte = 0; byte < table.size(); ++byte) {
        uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value & 1U) != 0 ? (value >> 1U) ^ kPolynomial : value >> 1U;
        }
        table[byte] = value;
    }
    return table;
}

// 1 KiB, one byte a step: ways that take several bytes a step need tables four to sixteen times
// that size, or instructions that not every target has.
constexpr std::array<uint32_t, 256> kTable = make_table();

}  // namespace

unsigned long PZCRC::getMemCRC32(unsigned long seed, const unsigned char* data,
                                 unsigned int length) const {
    auto crc = static_cast<uint32_t>(seed);
    if (data != nullptr) {
        for (const unsigned char* const end = data + length; data != end; ++data) {
            crc = kTable[(crc ^ *data) & 0xFFU] ^ (crc >> 8U);
        }
    }
    return static_cast<uint32_t>(~crc);
}

bool PZCRC::CRC32(const char* path, unsigned long& result) const {
    if (path == nullptr || *path == '\0') return false;
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path, "rb"), &std::fclose);
    if (file == nullptr) return false;
    // A long file is read for long: programs that are started meanwhile must not keep it in use.
    ::fcntl(::fileno(file.get()), F_SETFD, FD_CLOEXEC);

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
