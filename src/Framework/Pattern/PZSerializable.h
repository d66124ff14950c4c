#ifndef PZ_FRAMEWORK_PATTERN_PZSERIALIZABLE_H
#define PZ_FRAMEWORK_PATTERN_PZSERIALIZABLE_H

#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>

#include <Framework/PZApi.h>
#include <Framework/Utility/PZString.h>

namespace PZSerialization {

class PZSerializable;

/// Turns values into bytes and back, for message queues, shared memory and files.
///
/// Values are appended without type tags and without padding, and are read back in the same order.
/// The bytes are the same on every machine of the same byte order:
///
///     bool                 1 byte: 1 or 0
///     integers             most significant byte first
///     float, double        as they lie in memory
///     raw block            its bytes, without their number
///     std::string          number of bytes (32 bits), the bytes
///     std::wstring         number of characters (32 bits), each as it lies in memory (4 bytes)
///     PZString             code page (32 bits); 0 (32 bits) and the narrow text as std::string, or
///                          1 (32 bits) and the wide text as std::wstring
///     PZSerializable       number of bytes (32 bits), the bytes of its own archive
///
/// Writing appends at the end; reading continues at the read position. Neither moves the other.
///
/// Threads:   one archive is used by one thread at a time.
/// Ownership: bytes are copied in and out. The pointer of getBuff is the archive's, valid until it
///            is next written to or cleared. Its own bytes are valid arguments.
/// Limit:     0xFFFFFFFF bytes; not checked.
/// Failures:  only a malformed bool is reported. Memory that runs out throws (std::bad_alloc) and
///            leaves the archive, its read position and the target as they were. Reading more than
///            was written is a mistake of the caller, but harmless: the target stays as it was, and
///            the read position goes to the end, so that later reads change nothing either.
class PZ_API Archive {
public:
    /// The origin of seek.
    enum SEEK_OPT : int {
        en_SEEK_START = 0,    ///< from the first byte
        en_SEEK_CURRENT = 1,  ///< forward from the read position
        en_SEEK_END = 2       ///< backwards from the end
    };

    /// Empty, with room for 1024 bytes.
    Archive();
    /// Empty, with room for `capacity` bytes. Every archive grows on demand.
    explicit Archive(unsigned int capacity);
    virtual ~Archive();

    Archive(const Archive&) = delete;
    Archive& operator=(const Archive&) = delete;

    /// Empty again, with room for 1024 bytes; the read position goes to 0. Never throws: without
    /// memory it keeps the room that it has.
    void clear();

    /// The first byte; null when there never was room for one.
    const unsigned char* getBuff() const;
    /// Number of bytes written.
    unsigned int getSize() const;

    /// Appends the value. A plain char is written as an int.
    /// @{
    void write(bool value);
    void write(signed char value);
    void write(unsigned char value);
    void write(short value);
    void write(unsigned short value);
    void write(int value);
    void write(unsigned int value);
    void write(long long value);
    void write(unsigned long long value);
    void write(float value);
    void write(double value);
    /// @}

    /// Does nothing when `data` is null, or `size` is 0 or above 0x7FFFFFFF.
    void write(const void* data, unsigned int size);

    /// With `maxChars` of 0 or more, only the bytes of that many UTF-8 characters at the beginning.
    void write(const std::string& s, int maxChars = -1);
    /// Appends the text.
    void write(const std::wstring& s);

    /// When `s` holds neither a narrow nor a wide text, only its code page is written: what is
    /// written next would be read as the text. Convert 16-bit text before.
    void write(const PZString& s);

    /// Calls serialize of `object` first.
    void write(PZSerializable& object);
    /// Null is ignored.
    void write(PZSerializable* object);

    /// A text must be a string object: its pointer would silently be written as a bool.
    template <typename T, typename = std::enable_if_t<std::is_same<T, char>::value ||
                                                      std::is_same<T, wchar_t>::value>>
    void write(const T* text) = delete;

    /// A byte other than 0 and 1 is reported as an assertion; the target stays as it was.
    void read(bool& value);

    /// Takes the value from the read position.
    /// @{
    void read(signed char& value);
    void read(unsigned char& value);
    void read(short& value);
    void read(unsigned short& value);
    void read(int& value);
    void read(unsigned int& value);
    void read(long long& value);
    void read(unsigned long long& value);
    void read(float& value);
    void read(double& value);
    /// @}

    /// Does nothing when `data` is null or `size` is 0.
    void read(void* data, unsigned int size);

    /// The target ends at the first zero of the stored text; the read position moves past all of
    /// it.
    /// @{
    void read(std::string& s);
    void read(std::wstring& s);
    /// @}

    /// A narrow text comes back with the code page XCP_UTF8, whatever was stored, a wide one with
    /// XCP_NONE. When something other than a text follows, or nothing, only the code page of `s`
    /// changes, to the stored one.
    void read(PZString& s);

    /// Calls deserialize of `object` with its bytes where they lie in this archive: valid during
    /// the call. It is not called when fewer are left than it wrote.
    void read(PZSerializable& object);
    /// Null is ignored.
    void read(PZSerializable* object);

    /// Moves the read position; false, and it stays, where that is not possible:
    /// - en_SEEK_START, en_SEEK_CURRENT: only to a byte that exists, not to the end
    /// - en_SEEK_END: `offset` before the end, 0 included, but not to the first byte
    /// On an empty archive always false.
    bool seek(unsigned int offset, SEEK_OPT from);

private:
    PZ_LOCAL size_t Size() const { return static_cast<size_t>(end_ - begin_); }
    PZ_LOCAL size_t Room() const { return static_cast<size_t>(limit_ - end_); }
    PZ_LOCAL void MoveTo(unsigned char* buffer, size_t capacity);
    PZ_LOCAL void Grow(size_t size);
    PZ_LOCAL void Reserve(size_t size) {
        if (size > Room()) Grow(size);
    }
    PZ_LOCAL void Append(const void* data, size_t size);
    template <typename T>
    PZ_LOCAL void AppendBigEndian(T value);

    PZ_LOCAL const unsigned char* Take(unsigned long long size);
    PZ_LOCAL void TakeRaw(void* data, size_t size);
    template <typename T>
    PZ_LOCAL bool TakeBigEndian(T& value);
    template <typename Reading>
    PZ_LOCAL void ReadWhole(const Reading& reading);
    PZ_LOCAL bool TakeText(std::string& s);
    PZ_LOCAL bool TakeText(std::wstring& s);
    template <typename Text>
    PZ_LOCAL void TakeForm(std::unique_ptr<Text>& form);

    // The growable array; all null when there never was room.
    unsigned char* begin_ = nullptr;
    unsigned char* end_ = nullptr;  // after the last byte that was written
    unsigned char* limit_ = nullptr;
    unsigned int readPosition_ = 0;
};

/// An object that can be written to an archive, also inside other objects.
///
///     void Lamp::serialize() {
///         archive_.clear();
///         archive_.write(level_);
///         archive_.write(name_);
///     }
///     void Lamp::deserialize(const unsigned char* data, unsigned int size) {
///         archive_.clear();
///         archive_.write(data, size);
///         archive_.read(level_);
///         archive_.read(name_);
///     }
///
/// Threads: as the class that implements it says.
class PZ_API PZSerializable {
public:
    virtual ~PZSerializable();

    /// Makes archive_ from the state of the object.
    virtual void serialize() = 0;

    /// Sets the state of the object from what serialize made. The bytes may come from elsewhere:
    /// fewer, more or others than expected. They are the caller's and valid during the call.
    virtual void deserialize(const unsigned char* data, unsigned int size) = 0;

protected:
    Archive archive_{};  ///< what serialize makes

    friend class Archive;  // reads archive_
};

}  // namespace PZSerialization

#endif  // PZ_FRAMEWORK_PATTERN_PZSERIALIZABLE_H
