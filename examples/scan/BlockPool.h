#ifndef SCAN_BLOCKPOOL_H
#define SCAN_BLOCKPOOL_H

#include <array>

/// A piece of a file on its way through the units.
struct Block {
    static constexpr unsigned int kCapacity = 65536;

    unsigned int file = 0;  ///< index in the catalogue
    bool isFirst = false;
    bool isLast = false;
    bool isWhole = true;  ///< false: the file goes on behind its last block
    unsigned int size = 0;
    std::array<unsigned char, kCapacity> data;
};

/// The few blocks that are on their way at any time. Messages carry their numbers, so a file is
/// copied only once, and the memory of the scan does not grow with the files.
///
/// Threads: a block belongs to the unit that was last sent its number.
class BlockPool {
public:
    static constexpr unsigned int kCount = 8;

    Block& At(unsigned int number) { return blocks_[number]; }

private:
    std::array<Block, kCount> blocks_;
};

#endif  // SCAN_BLOCKPOOL_H
