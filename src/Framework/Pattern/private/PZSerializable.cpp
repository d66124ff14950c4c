#include "Framework/Pattern/PZSerializable.h"

#include <Framework/Diagnostics/PZReport.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <limits>

namespace PZSerialization {

static_assert(sizeof(wchar_t) == 4 && sizeof(float) == 4 && sizeof(double) == 8,
              "the sizes of the byte format");
#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(Archive) == 20, "virtual table, three pointers of the buffer, read position");
static_assert(sizeof(PZSerializable) == 24, "virtual table, archive");
#endif

namespace {

constexpr unsigned int kReserved = 1024;

// What follows the code page of a PZString.
constexpr unsigned int kNarrowText = 0;
constexpr unsigned int kWideText = 1;

template <typename Text>
unsigned int size32(const Text& text) {
    return static_cast<unsigned int>(text.size());
}

}  // namespace

Archive::Archive() : Archive(kReserved) {}

Archive::Archive(unsigned int capacity) {
    buffer_.reserve(capacity);
}

Archive::~Archive() = default;

PZSerializable::~PZSerializable() = default;

void Archive::clear() {
    std::vector<unsigned char>().swap(buffer_);
    buffer_.reserve(kReserved);
    readPosition_ = 0;
}

const unsigned char* Archive::getBuff() const {
    return buffer_.capacity() > 0 ? buffer_.data() : nullptr;
}

unsigned int Archive::getSize() const {
    return size32(buffer_);
}

// ---- writing ----

void Archive::Append(const void* data, size_t size) {
    if (size == 0) return;
    const size_t end = buffer_.size();
    std::vector<unsigned char> outgrown;  // `data` may lie in it: freed last
    if (size > buffer_.capacity() - end) {
        outgrown.reserve(std::max(end + size, 2 * buffer_.capacity()));
        outgrown.assign(buffer_.begin(), buffer_.end());
        outgrown.swap(buffer_);
    }
    buffer_.resize(end + size);
    std::memcpy(&buffer_[end], data, size);
}

template <typename T>
void Archive::AppendBigEndian(T value) {
    unsigned char bytes[sizeof(T)];
    for (size_t i = 0; i < sizeof(T); ++i) {
        bytes[i] = static_cast<unsigned char>(value >> (8 * (sizeof(T) - 1 - i)));
    }
    Append(bytes, sizeof bytes);
}

void Archive::write(bool value) {
    write(static_cast<unsigned char>(value ? 1 : 0));
}

void Archive::write(signed char value) {
    write(static_cast<unsigned char>(value));
}

void Archive::write(unsigned char value) {
    Append(&value, sizeof value);
}

void Archive::write(short value) {
    write(static_cast<unsigned short>(value));
}

void Archive::write(unsigned short value) {
    AppendBigEndian(value);
}

void Archive::write(int value) {
    write(static_cast<unsigned int>(value));
}

void Archive::write(unsigned int value) {
    AppendBigEndian(value);
}

void Archive::write(long long value) {
    write(static_cast<unsigned long long>(value));
}

void Archive::write(unsigned long long value) {
    AppendBigEndian(value);
}

// Not in the byte order of the integers; readers of stored archives rely on that.

void Archive::write(float value) {
    Append(&value, sizeof value);
}

void Archive::write(double value) {
    Append(&value, sizeof value);
}

void Archive::write(const void* data, unsigned int size) {
    constexpr auto kMaxBlock = static_cast<unsigned int>(std::numeric_limits<int>::max());
    if (data == nullptr || size > kMaxBlock) return;
    Append(data, size);
}

void Archive::write(const std::string& s, int maxChars) {
    const unsigned int length =
        maxChars < 0
            ? size32(s)
            : PZString::LengthByte(s.data(), size32(s), static_cast<unsigned int>(maxChars));
    write(length);
    Append(s.data(), length);
}

void Archive::write(const std::wstring& s) {
    write(size32(s));
    Append(s.data(), s.size() * sizeof(wchar_t));
}

void Archive::write(const PZString& s) {
    write(static_cast<unsigned int>(s.codePage_));
    if (s.narrow_ != nullptr) {
        write(kNarrowText);
        write(*s.narrow_);
    } else if (s.wide_ != nullptr) {
        write(kWideText);
        write(*s.wide_);
    }
}

void Archive::write(PZSerializable& object) {
    object.serialize();
    const unsigned int size = object.archive_.getSize();
    write(size);
    Append(object.archive_.getBuff(), size);
}

void Archive::write(PZSerializable* object) {
    if (object != nullptr) write(*object);
}

// ---- reading ----

/// Passes over `size` bytes and answers the first of them. Null, and at the end, when fewer are
/// left.
const unsigned char* Archive::Take(unsigned long long size) {
    const unsigned int written = getSize();
    if (readPosition_ > written || size > written - readPosition_) {
        readPosition_ = written;
        return nullptr;
    }
    const unsigned char* const taken = buffer_.data() + readPosition_;
    readPosition_ += static_cast<unsigned int>(size);
    return taken;
}

template <typename T>
bool Archive::TakeBigEndian(T& value) {
    const unsigned char* const bytes = Take(sizeof(T));
    if (bytes == nullptr) return false;
    unsigned long long result = 0;
    for (size_t i = 0; i < sizeof(T); ++i) result = result << 8U | bytes[i];
    value = static_cast<T>(result);
    return true;
}

void Archive::read(bool& value) {
    unsigned char byte = 0;
    if (!TakeBigEndian(byte)) return;
    if (byte > 1) {
        PZ_REPORT_ASSERTION();
        return;
    }
    value = byte == 1;
}

void Archive::read(signed char& value) {
    TakeBigEndian(value);
}

void Archive::read(unsigned char& value) {
    TakeBigEndian(value);
}

void Archive::read(short& value) {
    TakeBigEndian(value);
}

void Archive::read(unsigned short& value) {
    TakeBigEndian(value);
}

void Archive::read(int& value) {
    TakeBigEndian(value);
}

void Archive::read(unsigned int& value) {
    TakeBigEndian(value);
}

void Archive::read(long long& value) {
    TakeBigEndian(value);
}

void Archive::read(unsigned long long& value) {
    TakeBigEndian(value);
}

void Archive::read(float& value) {
    read(&value, sizeof value);
}

void Archive::read(double& value) {
    read(&value, sizeof value);
}

void Archive::read(void* data, unsigned int size) {
    if (data == nullptr || size == 0) return;
    const unsigned char* const bytes = Take(size);
    if (bytes != nullptr) std::memcpy(data, bytes, size);
}

bool Archive::TakeText(std::string& s) {
    unsigned int length = 0;
    if (!TakeBigEndian(length)) return false;
    const auto* const text = reinterpret_cast<const char*>(Take(length));
    if (text == nullptr) return false;
    s.assign(text, strnlen(text, length));
    return true;
}

bool Archive::TakeText(std::wstring& s) {
    unsigned int length = 0;
    if (!TakeBigEndian(length)) return false;
    const unsigned long long size = sizeof(wchar_t) * 1ULL * length;
    const unsigned char* const bytes = Take(size);
    if (bytes == nullptr) return false;
    s.resize(length);
    // Copied first: the bytes need not lie where wide characters may.
    std::memcpy(&s[0], bytes, static_cast<size_t>(size));
    s.resize(wcsnlen(s.c_str(), length));
    return true;
}

void Archive::read(std::string& s) {
    TakeText(s);
}

void Archive::read(std::wstring& s) {
    TakeText(s);
}

void Archive::read(PZString& s) {
    unsigned int codePage = 0;
    if (!TakeBigEndian(codePage)) return;
    s.codePage_ = static_cast<PZString::EN_CP>(codePage);

    unsigned int form = 0;
    if (!TakeBigEndian(form)) return;
    if (form == kNarrowText) {
        std::string text;
        if (TakeText(text)) s = text;
    } else if (form == kWideText) {
        std::wstring text;
        if (TakeText(text)) s.Copy(text);
    }
}

void Archive::read(PZSerializable& object) {
    unsigned int size = 0;
    if (!TakeBigEndian(size)) return;
    const unsigned int start = readPosition_;
    const unsigned char* const bytes = Take(size);
    if (bytes == nullptr) return;
    readPosition_ = start;  // an object that knows this archive finds itself at its own bytes
    object.deserialize(bytes, size);
    readPosition_ += size;
}

void Archive::read(PZSerializable* object) {
    if (object != nullptr) read(*object);
}

bool Archive::seek(unsigned int offset, SEEK_OPT from) {
    const unsigned int size = getSize();
    const unsigned long long forward = 0ULL + readPosition_ + offset;
    switch (from) {
        case en_SEEK_START:
            if (offset >= size) return false;
            readPosition_ = offset;
            return true;
        case en_SEEK_CURRENT:
            if (forward >= size) return false;
            readPosition_ = static_cast<unsigned int>(forward);
            return true;
        case en_SEEK_END:
            if (offset >= size) return false;
            readPosition_ = size - offset;
            return true;
    }
    return false;
}

}  // namespace PZSerialization
