#ifndef PZ_FRAMEWORK_UTILITY_PZCRC_H
#define PZ_FRAMEWORK_UTILITY_PZCRC_H

#include <Framework/PZApi.h>

/// The CRC-32 of IEEE 802.3 (reflected polynomial 0xEDB88320) of memory and of files.
///
/// Checksums are 32-bit values, also where unsigned long is wider: results have no higher bits, and
/// those of a seed are ignored.
///
/// Threads:  has no state; any thread may call anything at any time.
/// Cost:     uses carry-less multiplication or the processor's CRC instruction where there is one,
///           else tables of 8 KiB. Only CRC32 allocates memory: a stream's buffer.
/// Failures: answered with a result, not reported.
class PZ_API PZCRC {
public:
    /// The CRC of `length` bytes with 0xFFFFFFFF as `seed`. For no bytes, and for null `data`, the
    /// complement of `seed`.
    ///
    /// The register starts at `seed` as it is, and its complement is the result. So the seed for
    /// the next piece is the complement of the last result.
    unsigned long getMemCRC32(unsigned long seed, const unsigned char* data,
                              unsigned int length) const;

    /// The checksum of a file's contents. False, and `result` untouched, when `path` is null or
    /// empty or the file cannot be opened. A file that cannot be read any further counts as ended
    /// there, and a folder as an empty file. For a fifo without a peer it waits without limit.
    ///
    /// Up to 10,240 bytes this is the CRC-32 (but 0xFFFFFFFF for an empty file). In a longer file
    /// each further piece of 10,240 bytes takes the finished result of the one before as its seed:
    /// compare such checksums only with others of this operation.
    bool CRC32(const char* path, unsigned long& result) const;
};

#endif  // PZ_FRAMEWORK_UTILITY_PZCRC_H
