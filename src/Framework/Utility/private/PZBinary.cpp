#include "Framework/Utility/PZBinary.h"

#include <limits>

#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(PZBinary) == 16, "virtual table, buffer, size, cursor");
#endif

namespace {

/// Longest blank text that getString makes: its NUL included, it fits the strings of 32-bit builds.
constexpr unsigned int kMaxBlankLength = 0x7FFFFFFE;

std::unique_ptr<unsigned char[]> copy_of(const unsigned char* data, unsigned int size) {
    if (data == nullptr || size == 0) return nullptr;
    std::unique_ptr<unsigned char[]> copy(new unsigned char[size]);
    std::memcpy(copy.get(), data, size);
    return copy;
}

}  // namespace

PZBinary::PZBinary(unsigned int size)
    : buffer_(size > 0 ? std::make_unique<unsigned char[]>(size) : nullptr), size_(size) {}

PZBinary::PZBinary(const unsigned char* data, unsigned int size)
    : buffer_(copy_of(data, size)), size_(buffer_ != nullptr ? size : 0) {}

PZBinary::PZBinary(const PZBinary& other) : PZBinary(other.buffer_.get(), other.size_) {
    if (size_ > 0) cursor_ = other.cursor_;
}

PZBinary& PZBinary::operator=(const PZBinary& other) {
    if (this == &other) return *this;
    copy(other.buffer_.get(), other.size_);
    if (size_ > 0) cursor_ = other.cursor_;
    return *this;
}

PZBinary::~PZBinary() = default;

// ---- changing: the old bytes, which the new ones may lie in, go last ----

void PZBinary::add(const unsigned char* data, unsigned int size) {
    if (data == nullptr || size == 0) return;
    if (size > std::numeric_limits<unsigned int>::max() - size_) return;
    const unsigned int newSize = size_ + size;
    std::unique_ptr<unsigned char[]> longer(new unsigned char[newSize]);
    if (size_ > 0) std::memcpy(longer.get(), buffer_.get(), size_);
    std::memcpy(longer.get() + size_, data, size);
    buffer_.swap(longer);
    size_ = newSize;
}

void PZBinary::add(const PZBinary& other) {
    add(other.buffer_.get(), other.size_);
}

void PZBinary::copy(const unsigned char* data, unsigned int size) {
    std::unique_ptr<unsigned char[]> bytes = copy_of(data, size);
    clear();
    buffer_.swap(bytes);
    if (buffer_ != nullptr) size_ = size;
}

void PZBinary::clear() {
    buffer_.reset();
    size_ = 0;
    cursor_ = 0;
}

// ---- reading ----

std::string PZBinary::getString(unsigned int offset, unsigned int length) const {
    const bool found = size_ > 0 && Has(offset, length);
    if (!found && length > kMaxBlankLength) return {};
    std::string text(size_t{length} + 1, '\0');
    if (found && length > 0) std::memcpy(&text[0], buffer_.get() + offset, length);
    return text;
}

std::string PZBinary::readString(unsigned int offset, unsigned int length) const {
    const unsigned long long position = FromCursor(offset);
    if (size_ == 0 || !Has(position, length)) return {};
    return {reinterpret_cast<const char*>(buffer_.get() + position), length};
}

PZBinary PZBinary::CopyOf(unsigned long long position, unsigned int length) const {
    if (size_ == 0 || !Has(position, length)) return {};
    return {buffer_.get() + position, length};
}

PZBinary PZBinary::getBinary(unsigned int offset, unsigned int length) const {
    return CopyOf(offset, length);
}

PZBinary PZBinary::readBinary(unsigned int offset, unsigned int length) const {
    return CopyOf(FromCursor(offset), length);
}

unsigned int PZBinary::seek(unsigned int offset, unsigned int origin) {
    switch (origin) {
        case 0:
            cursor_ = offset;
            break;
        case 1:
            if (FromCursor(offset) < size_) cursor_ += offset;
            break;
        case 2:
            if (offset < size_) cursor_ = size_ - 1 - offset;
            break;
        default:
            break;
    }
    return cursor_;
}

void PZBinary::dumpBinary(bool /*enable*/) const {}
