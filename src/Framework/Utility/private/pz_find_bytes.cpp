#include "pz_find_bytes.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace {

constexpr size_t kNone = std::string_view::npos;

size_t find_by_c_library(std::string_view text, size_t start, std::string_view sought) {
    const void* const found =
        memmem(text.data() + start, text.size() - start, sought.data(), sought.size());
    if (found == nullptr) return kNone;
    return static_cast<size_t>(static_cast<const char*>(found) - text.data());
}

#if (defined(__SSE2__) || defined(__ARM_NEON)) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__

constexpr size_t kBlock = 16;
using Block = unsigned char __attribute__((vector_size(kBlock)));

Block load(const char* from) {
    Block block;
    std::memcpy(&block, from, kBlock);
    return block;
}

/// A block of equal bytes.
Block block_of(char byte) {
    return Block{} + static_cast<unsigned char>(byte);
}

/// Checks the places of a block together for the first two bytes and the last one of `sought`, and
/// compares all its bytes only where these stand.
class Search {
public:
    Search(std::string_view text, std::string_view sought)
        : text_(text), sought_(sought), patience_(text.size()) {}

    size_t Run() {
        const Block first = block_of(sought_.front());
        const Block second = block_of(sought_[1]);
        const Block last = block_of(sought_.back());
        const char* const end = text_.data() + sought_.size() - 1;
        size_t at = 0;
        for (; at + sought_.size() - 1 + kBlock <= text_.size(); at += kBlock) {
            const char* const begin = text_.data() + at;
            const auto equal =
                (load(begin) == first) & (load(begin + 1) == second) & (load(end + at) == last);
            uint64_t candidates[2];  // a byte of ones for each place that may be it
            static_assert(sizeof equal == sizeof candidates);
            std::memcpy(candidates, &equal, sizeof candidates);
            if ((candidates[0] | candidates[1]) == 0) continue;
            if (HasFound(candidates[0], at) || HasFound(candidates[1], at + 8)) return found_;
            if (patience_ == 0) break;
        }
        return find_by_c_library(text_, at, sought_);
    }

private:
    bool HasFound(uint64_t candidates, size_t at) {
        while (candidates != 0) {
            const auto place = static_cast<size_t>(__builtin_ctzll(candidates)) / 8;
            found_ = at + place;
            if (text_.compare(found_, sought_.size(), sought_) == 0) return true;
            // Texts that repeat themselves: the C library's way takes no longer for them.
            patience_ -= std::min(patience_, sought_.size());
            candidates &= ~(uint64_t{0xFF} << 8 * place);
        }
        return false;
    }

    const std::string_view text_;
    const std::string_view sought_;
    size_t patience_;  // bytes that may still be compared in vain
    size_t found_ = 0;
};

size_t find(std::string_view text, std::string_view sought) {
    return Search(text, sought).Run();
}

#else

size_t find(std::string_view text, std::string_view sought) {
    return find_by_c_library(text, 0, sought);
}

#endif

}  // namespace

size_t pz_find_bytes(std::string_view text, std::string_view sought) noexcept {
    if (sought.size() > text.size()) return kNone;
    if (sought.size() > 1) return find(text, sought);
    const void* const found = std::memchr(text.data(), sought.front(), text.size());
    if (found == nullptr) return kNone;
    return static_cast<size_t>(static_cast<const char*>(found) - text.data());
}
