#ifndef PZ_FUZZ_SUPPORT_SOURCE_H
#define PZ_FUZZ_SUPPORT_SOURCE_H

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "support/conversion.h"
#include "support/fuzz_check.h"

namespace pzfuzz {

/// A source text of units of T on the heap, with a terminator only where its length is measured:
/// reading on behind it is seen by the address sanitizer.
template <typename T>
class Source {
public:
    Source(const ConversionCall& call, const std::string& bytes)
        : call_(call), units_(bytes.size() / sizeof(T) + (call.measure ? 1 : 0)) {
        const size_t size = bytes.size() / sizeof(T) * sizeof(T);
        if (size > 0) std::memcpy(units_.data(), bytes.data(), size);
        before_ = units_;
    }

    const T* Data() const { return call_.nullSrc ? nullptr : units_.data(); }

    /// The length to hand over; as an int, too, -1 means that it is measured.
    unsigned int Length() const {
        if (call_.impossibleSource) return impossible_count(sizeof(T));
        return call_.measure ? 0xFFFFFFFF : static_cast<unsigned int>(units_.size());
    }

    /// What is to be converted.
    std::string Text() const {
        const auto end =
            call_.measure ? std::find(units_.begin(), units_.end(), T()) : units_.end();
        return std::string(reinterpret_cast<const char*>(units_.data()),
                           static_cast<size_t>(end - units_.begin()) * sizeof(T));
    }

    size_t Bytes() const { return Text().size(); }

    void CheckUntouched() const { fuzz_check(units_ == before_, "the source was changed"); }

private:
    const ConversionCall call_;
    std::vector<T> units_;
    std::vector<T> before_;
};

}  // namespace pzfuzz

#endif  // PZ_FUZZ_SUPPORT_SOURCE_H
