#ifndef PZ_FUZZ_SUPPORT_FUZZINPUT_H
#define PZ_FUZZ_SUPPORT_FUZZINPUT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace pzfuzz {

/// Reads an input from its beginning; what is missing at the end reads as zeros. So a seed file is
/// a few bytes of choices followed by text.
class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    bool IsEmpty() const { return size_ == 0; }

    uint8_t Byte() {
        if (size_ == 0) return 0;
        --size_;
        return *data_++;
    }

    /// The next `count` bytes, or as many as are left.
    std::string Bytes(size_t count) {
        if (count > size_) count = size_;
        std::string bytes(reinterpret_cast<const char*>(data_), count);
        data_ += count;
        size_ -= count;
        return bytes;
    }

    std::string Rest() { return Bytes(size_); }

private:
    const uint8_t* data_;
    size_t size_;
};

}  // namespace pzfuzz

#endif  // PZ_FUZZ_SUPPORT_FUZZINPUT_H
