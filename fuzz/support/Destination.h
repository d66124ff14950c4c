#ifndef PZ_FUZZ_SUPPORT_DESTINATION_H
#define PZ_FUZZ_SUPPORT_DESTINATION_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "support/fuzz_check.h"

namespace pzfuzz {

/// Bytes to be converted into, between guard bytes that nobody may change. All of it begins with
/// the same value, by which untouched bytes are known.
class Destination {
public:
    static constexpr char kFill = '\xA5';

    /// `shift` moves the beginning off its alignment.
    explicit Destination(size_t size, size_t shift = 0)
        : begin_(kGuard + shift), size_(size), memory_(begin_ + size + kGuard, kFill) {}

    char* Data() { return memory_.data() + begin_; }
    size_t Size() const { return size_; }

    std::string Bytes(size_t begin, size_t count) const {
        fuzz_check(begin + count <= size_, "a result beyond the destination");
        return std::string(memory_.data() + begin_ + begin, count);
    }

    /// Whether `count` zero bytes, or as many as fit, stand at `begin`.
    bool HasZeros(size_t begin, size_t count) const {
        count = std::min(count, size_ - begin);
        return Bytes(begin, count) == std::string(count, '\0');
    }

    /// Whether nothing was written at or after `begin`.
    bool IsUntouchedFrom(size_t begin) const { return IsFill(begin_ + begin, begin_ + size_); }

    void CheckGuards() const {
        fuzz_check(IsFill(0, begin_), "written before the destination");
        fuzz_check(IsFill(begin_ + size_, memory_.size()), "written behind the destination");
    }

    bool operator==(const Destination& other) const { return memory_ == other.memory_; }

private:
    static constexpr size_t kGuard = 64;

    bool IsFill(size_t begin, size_t end) const {
        return std::all_of(memory_.data() + begin, memory_.data() + end,
                           [](char byte) { return byte == kFill; });
    }

    const size_t begin_;
    const size_t size_;
    std::vector<char> memory_;
};

}  // namespace pzfuzz

#endif  // PZ_FUZZ_SUPPORT_DESTINATION_H
