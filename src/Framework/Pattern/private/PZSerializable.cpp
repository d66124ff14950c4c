#include "Framework/Pattern/PZSerializable.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <functional>
#include <limits>
#include <new>
#include <utility>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/private/pz_numbers.h>

namespace PZSerialization {

static_assert(sizeof(wchar_t) == 4 && sizeof(float) == 4 && sizeof(double) == 8,
              "the sizes of the byte format");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "integers are reversed to be big-endian");
#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(Archive) == 20, "virtual table, three pointers of the buffer, read position");
static_assert(sizeof(PZSerializable) == 24, "virtual table, archive");
#endif

namespace {

constexpr unsigned int kReserved = 1024;

// What follows the code page of a PZString.
constexpr unsigned int kNarrowText = 0;
constexpr unsigned int kWideText = 1;

unsigned char reversed(unsigned char value) {
    return value;
}
unsigned short reversed(unsigned short value) {
    return __builtin_bswap16(value);
}
unsigned int reversed(unsigned int value) {
    return __builtin_bswap32(value);
}
unsigned long long reversed(unsigned long long value) {
    return __builtin_bswap64(value);
}

}  // namespace

Archive::Archive() : Archive(kReserved) {}

Archive::Archive(unsigned int capacity) {
    if (capacity > 0) MoveTo(static_cast<unsigned char*>(::operator new(capacity)), capacity);
}

Archive::~Archive() {
    ::operator delete(begin_);
}

PZSerializable::~PZSerializable() = default;

void Archive::clear() {
    end_ = begin_;
    readPosition_ = 0;
    if (Room() == kReserved) return;
    void* const fresh = ::operator new(kReserved, std::nothrow);
    if (fresh != nullptr) MoveTo(static_cast<unsigned char*>(fresh), kReserved);
}

const unsigned char* Archive::getBuff() const {
    return begin_;
}

unsigned int Archive::getSize() const {
    return static_cast<unsigned int>(Size());
}

// ---- writing ----

/// Takes the bytes along into `buffer`, which becomes the archive's, and frees the old one.
void Archive::MoveTo(unsigned char* buffer, size_t capacity) {
    const size_t size = Size();
    if (size > 0) std::memcpy(buffer, begin_, size);
    ::operator delete(begin_);
    begin_ = buffer;
    end_ = buffer + size;
    limit_ = buffer + capacity;
}

/// Makes room for `size` bytes more where there is less. What consists of several parts reserves
/// for all of them, so that it is written whole or not at all.
void Archive::Grow(size_t size) {
    const size_t needed = Size() + size;
    const size_t doubled = 2 * static_cast<size_t>(limit_ - begin_);
    void* buffer = nullptr;
    if (needed < doubled) buffer = ::operator new(doubled, std::nothrow);
    const size_t capacity = buffer != nullptr ? doubled : needed;
    if (buffer == nullptr) buffer = ::operator new(needed);
    MoveTo(static_cast<unsigned char*>(buffer), capacity);
}

void Archive::Append(const void* data, size_t size) {
    if (size == 0) return;
    if (size > Room()) {
        // The archive's own bytes move along.
        const auto* const bytes = static_cast<const unsigned char*>(data);
        const bool isOwn = !std::less<>()(bytes, begin_) && std::less<>()(bytes, end_);
        const ptrdiff_t offset = isOwn ? bytes - begin_ : 0;
        Reserve(size);
        if (isOwn) data = begin_ + offset;
    }
    std::memcpy(end_, data, size);
    end_ += size;
}

template <typename T>
void Archive::AppendBigEndian(T value) {
    Reserve(sizeof value);
    value = reversed(value);
    std::memcpy(end_, &value, sizeof value);
    end_ += sizeof value;
}

void Archive::write(bool value) {
    AppendBigEndian(static_cast<unsigned char>(value ? 1 : 0));
}

void Archive::write(signed char value) {
    AppendBigEndian(static_cast<unsigned char>(value));
}

void Archive::write(unsigned char value) {
    AppendBigEndian(value);
}

void Archive::write(short value) {
    AppendBigEndian(static_cast<unsigned short>(value));
}

void Archive::write(unsigned short value) {
    AppendBigEndian(value);
}

void Archive::write(int value) {
    AppendBigEndian(static_cast<unsigned int>(value));
}

void Archive::write(unsigned int value) {
    AppendBigEndian(value);
}

void Archive::write(long long value) {
    AppendBigEndian(static_cast<unsigned long long>(value));
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
            ? pz_size32(s)
            : PZString::LengthByte(s.data(), pz_size32(s), static_cast<unsigned int>(maxChars));
    Reserve(sizeof length + length);
    AppendBigEndian(length);
    Append(s.data(), length);
}

void Archive::write(const std::wstring& s) {
    const size_t size = s.size() * sizeof(wchar_t);
    Reserve(sizeof(unsigned int) + size);
    AppendBigEndian(pz_size32(s));
    Append(s.data(), size);
}

void Archive::write(const PZString& s) {
    const size_t narrowSize = s.narrow_ != nullptr ? s.narrow_->size() : 0;
    const size_t wideSize = s.wide_ != nullptr ? s.wide_->size() * sizeof(wchar_t) : 0;
    Reserve(3 * sizeof(unsigned int) + std::max(narrowSize, wideSize));
    AppendBigEndian(static_cast<unsigned int>(s.codePage_));
    if (s.narrow_ != nullptr) {
        AppendBigEndian(kNarrowText);
        write(*s.narrow_);
    } else if (s.wide_ != nullptr) {
        AppendBigEndian(kWideText);
        write(*s.wide_);
    }
}

void Archive::write(PZSerializable& object) {
    object.serialize();
    const Archive& part = object.archive_;
    const auto size = static_cast<unsigned int>(part.Size());
    Reserve(sizeof size + size);
    AppendBigEndian(size);
    Append(part.begin_, size);
}

void Archive::write(PZSerializable* object) {
    if (object != nullptr) write(*object);
}

// ---- reading ----

/// Passes over `size` bytes and answers the first of them. Null, and at the end, when fewer are
/// left.
const unsigned char* Archive::Take(unsigned long long size) {
    const auto written = static_cast<unsigned int>(Size());
    if (readPosition_ > written || size > written - readPosition_) {
        readPosition_ = written;
        return nullptr;
    }
    const unsigned char* const taken = begin_ + readPosition_;
    readPosition_ += static_cast<unsigned int>(size);
    return taken;
}

template <typename T>
bool Archive::TakeBigEndian(T& value) {
    const unsigned char* const bytes = Take(sizeof(T));
    if (bytes == nullptr) return false;
    std::make_unsigned_t<T> stored = 0;
    std::memcpy(&stored, bytes, sizeof stored);
    value = static_cast<T>(reversed(stored));
    return true;
}

void Archive::TakeRaw(void* data, size_t size) {
    const unsigned char* const bytes = Take(size);
    if (bytes != nullptr) std::memcpy(data, bytes, size);
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
    TakeRaw(&value, sizeof value);
}

void Archive::read(double& value) {
    TakeRaw(&value, sizeof value);
}

void Archive::read(void* data, unsigned int size) {
    if (data != nullptr && size != 0) TakeRaw(data, size);
}

/// Runs a reading of several steps. When memory runs out on the way, nothing was read.
template <typename Reading>
void Archive::ReadWhole(const Reading& reading) {
    const unsigned int start = readPosition_;
    try {
        reading();
    } catch (...) {
        readPosition_ = start;
        throw;
    }
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

/// A text as a PZString holds it; null when it is not there whole.
template <typename Text>
void Archive::TakeForm(std::unique_ptr<Text>& form) {
    auto text = std::make_unique<Text>();
    if (TakeText(*text)) form = std::move(text);
}

void Archive::read(std::string& s) {
    ReadWhole([&] { TakeText(s); });
}

void Archive::read(std::wstring& s) {
    ReadWhole([&] { TakeText(s); });
}

void Archive::read(PZString& s) {
    ReadWhole([&] {
        unsigned int codePage = 0;
        if (!TakeBigEndian(codePage)) return;
        unsigned int form = 0;
        const bool hasForm = TakeBigEndian(form);
        std::unique_ptr<std::string> narrow;
        std::unique_ptr<std::wstring> wide;
        if (hasForm && form == kNarrowText) TakeForm(narrow);
        if (hasForm && form == kWideText) TakeForm(wide);
        if (narrow == nullptr && wide == nullptr) {
            s.codePage_ = static_cast<PZString::EN_CP>(codePage);
            return;
        }
        // Complete before the old text goes; from here on nothing needs memory.
        s.DeleteStr();
        if (narrow != nullptr) s.codePage_ = XCP_UTF8;
        s.narrow_ = std::move(narrow);
        s.wide_ = std::move(wide);
    });
}

void Archive::read(PZSerializable& object) {
    ReadWhole([&] {
        unsigned int size = 0;
        if (!TakeBigEndian(size)) return;
        const unsigned int start = readPosition_;
        const unsigned char* const bytes = Take(size);
        if (bytes == nullptr) return;
        readPosition_ = start;  // an object that knows this archive finds itself at its own bytes
        object.deserialize(bytes, size);
        readPosition_ += size;
    });
}

void Archive::read(PZSerializable* object) {
    if (object != nullptr) read(*object);
}

bool Archive::seek(unsigned int offset, SEEK_OPT from) {
    const auto size = static_cast<unsigned int>(Size());
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
