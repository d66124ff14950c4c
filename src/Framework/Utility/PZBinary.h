#ifndef PZ_FRAMEWORK_UTILITY_PZBINARY_H
#define PZ_FRAMEWORK_UTILITY_PZBINARY_H

#include <cstring>
#include <memory>
#include <string>

#include <Framework/PZApi.h>

/// Bytes, and the numbers and texts that lie in them.
///
/// For received telegrams and file contents. Every reader exists twice: get... takes an offset from
/// the first byte, read... one from the cursor. No reader moves the cursor; only seek does.
///
/// Byte order: numbers are taken as they lie in the machine's memory (little-endian); with `swap`
///             their bytes are reversed, to read big-endian data. They need no alignment.
/// Units:      offsets, lengths and sizes are bytes.
/// Threads:    one object is used by one thread at a time; readers may share an unchanging one.
/// Ownership:  bytes are copied in. Pointers of getBuffer are the object's, valid until its
///             contents are next replaced. The object's own bytes are valid arguments.
/// Failures:   what does not lie completely in the buffer is read as 0 or as an empty result. No
///             sum of offset, cursor and length wraps: beyond 4 GiB is out of range. Nothing is
///             reported. Only memory that runs out throws (std::bad_alloc), and leaves the object
///             as it was.
class PZ_API PZBinary {
public:
    /// Holds nothing.
    PZBinary() = default;
    /// Holds `size` zeros.
    explicit PZBinary(unsigned int size);
    /// Holds a copy; nothing when `data` is null or `size` is 0.
    PZBinary(const unsigned char* data, unsigned int size);
    /// A copy of the bytes and the cursor. The copy of an empty object has its cursor at 0.
    /// @{
    PZBinary(const PZBinary& other);
    PZBinary& operator=(const PZBinary& other);
    /// @}
    virtual ~PZBinary();

    /// The bytes; null when there are none.
    /// @{
    unsigned char* getBuffer() { return buffer_.get(); }
    const unsigned char* getBuffer() const { return buffer_.get(); }
    /// @}

    /// Number of bytes.
    unsigned int getSize() const { return size_; }

    /// Appends a copy; the cursor stays. Does nothing when `data` is null, when `size` is 0, or
    /// when both sizes together exceed 0xFFFFFFFF.
    ///
    /// Moves all bytes on every call: collect many small pieces elsewhere first.
    /// @{
    void add(const unsigned char* data, unsigned int size);
    void add(const PZBinary& other);
    /// @}

    /// Holds a copy of these bytes instead, with the cursor at 0; nothing when `data` is null or
    /// `size` is 0.
    void copy(const unsigned char* data, unsigned int size);

    /// Frees the bytes; the cursor goes to 0.
    void clear();

    /// The number at an offset from the first byte; 0 when out of range.
    /// @{
    unsigned char getUInt8(unsigned int offset) const {
        return GetNumber<unsigned char>(offset, false);
    }
    unsigned short getUInt16(unsigned int offset, bool swap) const {
        return GetNumber<unsigned short>(offset, swap);
    }
    unsigned int getUInt32(unsigned int offset, bool swap) const {
        return GetNumber<unsigned int>(offset, swap);
    }
    unsigned long long getUInt64(unsigned int offset, bool swap) const {
        return GetNumber<unsigned long long>(offset, swap);
    }
    /// @}

    /// The number at an offset from the cursor; 0 when out of range.
    /// @{
    unsigned char readUInt8(unsigned int offset) const {
        return GetNumber<unsigned char>(FromCursor(offset), false);
    }
    unsigned short readUInt16(unsigned int offset, bool swap) const {
        return GetNumber<unsigned short>(FromCursor(offset), swap);
    }
    unsigned int readUInt32(unsigned int offset, bool swap) const {
        return GetNumber<unsigned int>(FromCursor(offset), swap);
    }
    unsigned long long readUInt64(unsigned int offset, bool swap) const {
        return GetNumber<unsigned long long>(FromCursor(offset), swap);
    }
    /// @}

    /// `length` + 1 characters: the bytes and a NUL that counts. Out of range, the same number of
    /// NULs; but an empty string when `length` is 0x7FFFFFFF or more, which no 32-bit build could
    /// hold as a string.
    std::string getString(unsigned int offset, unsigned int length) const;
    /// `length` characters, no NUL added; an empty string when out of range.
    std::string readString(unsigned int offset, unsigned int length) const;

    /// An object with a copy of `length` bytes, its cursor at 0; empty when out of range.
    /// @{
    PZBinary getBinary(unsigned int offset, unsigned int length) const;
    PZBinary readBinary(unsigned int offset, unsigned int length) const;
    /// @}

    /// Moves the cursor and answers where it is afterwards. `origin`:
    /// - 0: to `offset`, even past the end
    /// - 1: forward by `offset`, only to a byte that exists
    /// - 2: to the byte that lies `offset` before the last one, only if it exists
    /// It stays when it must not go there, and for any other origin.
    unsigned int seek(unsigned int offset, unsigned int origin);

    /// Does nothing: no hexadecimal text is printed or returned.
    void dumpBinary(bool enable) const;

private:
    // Positions and ends take 64 bits so that sums of 32-bit values cannot wrap.
    unsigned long long FromCursor(unsigned int offset) const { return 0ULL + cursor_ + offset; }
    bool Has(unsigned long long position, unsigned int length) const {
        return size_ >= position + length;
    }

    static unsigned char Reversed(unsigned char value) { return value; }
    static unsigned short Reversed(unsigned short value) { return __builtin_bswap16(value); }
    static unsigned int Reversed(unsigned int value) { return __builtin_bswap32(value); }
    static unsigned long long Reversed(unsigned long long value) {
        return __builtin_bswap64(value);
    }

    template <typename T>
    T GetNumber(unsigned long long position, bool swap) const {
        if (!Has(position, sizeof(T))) return 0;
        T value;
        std::memcpy(&value, buffer_.get() + position, sizeof value);
        return swap ? Reversed(value) : value;
    }

    PZ_LOCAL PZBinary CopyOf(unsigned long long position, unsigned int length) const;

    std::unique_ptr<unsigned char[]> buffer_;  // null when size_ is 0
    unsigned int size_ = 0;
    unsigned int cursor_ = 0;  // may lie past the end
};

#endif  // PZ_FRAMEWORK_UTILITY_PZBINARY_H
