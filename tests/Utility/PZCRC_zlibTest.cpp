#include <zlib.h>

#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Framework/Utility/PZCRC.h"

namespace {

/// zlib complements the register before and after.
unsigned long by_zlib(unsigned long seed, const std::vector<unsigned char>& data) {
    return crc32(~seed & 0xFFFFFFFFU, data.data(), static_cast<unsigned int>(data.size()));
}

}  // namespace

TEST(PZCRC_zlibTest, GivesTheChecksumsOfZlibForRandomBlocksAndSeeds) {
    std::mt19937 random(20240229);
    const PZCRC crc;
    for (unsigned int round = 0; round < 2000; ++round) {
        std::vector<unsigned char> data(1 + random() % (round < 1990 ? 300 : 1000000));
        for (unsigned char& byte : data) byte = static_cast<unsigned char>(random());
        for (const unsigned long seed : {0xFFFFFFFFUL, 0UL, 0UL + random()}) {
            ASSERT_EQ(by_zlib(seed, data),
                      crc.getMemCRC32(seed, data.data(), static_cast<unsigned int>(data.size())))
                << "round " << round << " seed " << seed;
        }
    }
}
