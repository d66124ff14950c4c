#ifndef PZ_FRAMEWORK_FOUNDATION_PZSTORAGE_H
#define PZ_FRAMEWORK_FOUNDATION_PZSTORAGE_H

#include <cstdio>

#include <Framework/PZApi.h>

/// A file, read and written through a buffer, whose written data reach the storage medium.
///
/// Data go to the medium in Flush, and in Close when the object was written to; never per write,
/// because that is slow. A device that must not lose a record calls Flush after it.
///
/// Threads:   one object is used by one thread at a time.
/// Ownership: the object owns its stream and closes it in Close, Open and the destructor. Nothing
///            that is passed in is kept.
/// Units:     bytes. Sizes and positions are 64 bits wide on every machine, but see Read.
/// Modes:     those of the C library: "rb", "wb+", "ab+" ... As in the C library, a Seek or Flush
///            is needed between reading and writing, and back. Programs that this process starts do
///            not inherit the file, whatever the mode; nor does it take the place of a standard
///            input, output or error that is closed.
/// Failures:  answered with a result. 0 is success for some operations, and "nothing done" for
///            others. On a closed object every operation fails, Close excepted. Only wide paths
///            need memory: without it Open and GetSize fail, reported.
/// Cancelled: a thread may be cancelled while it waits for a file or a medium, but not in the
///            destructor. A cancelled Close has closed the file; what was not written yet is lost.
class PZ_API PZStorage {
public:
    /// The origin of Seek.
    enum EN_POS {
        en_POS_BEGIN = 0,
        en_POS_CURRENT = 1,
        en_POS_END = 2,
    };

    /// A closed object.
    PZStorage();
    /// Opens at once; IsOpen tells whether that succeeded.
    /// @{
    PZStorage(const char* path, const char* mode);
    PZStorage(const wchar_t* path, const wchar_t* mode);
    /// @}
    ~PZStorage();

    PZStorage(const PZStorage&) = delete;
    PZStorage& operator=(const PZStorage&) = delete;

    /// Closes what is open, then opens `path`. 0 for success. 1, reported, when that fails, also
    /// for null; the object is closed then. Waits without limit for the other side of a fifo.
    int Open(const char* path, const char* mode);
    /// The same, in UTF-8. Texts that cannot be converted fail like null.
    int Open(const wchar_t* path, const wchar_t* mode);

    /// Whether there is an open file.
    bool IsOpen() const;

    /// Closes the stream. Written data go to the medium first. An object that was written to once
    /// does so at every later Close, even of a stream that was only read.
    void Close();

    /// Reads up to `size` bytes, of which only the low 32 bits count, and answers how many were
    /// read. 0 on a closed object, for null, and for a size below 1.
    long long Read(void* buf, long long size);

    /// Reads one line with its newline, at most `size` - 1 bytes, and terminates it. 0 for success;
    /// 2 when the file ended before the first byte; 1 when reading failed, on a closed object, for
    /// null, and for a size below 1.
    int ReadLine(char* buf, int size);

    /// Writes the whole block: answers `size`, or 0 when it could not be written whole, on a closed
    /// object, for null, and for a size below 1. What is buffered may still fail in Flush.
    long long Write(const void* buf, long long size);

    /// Writes the text, and a newline where it does not end in one; an empty text is an empty line.
    /// 0 for success; 1 when that fails, on a closed object, and for null.
    int WriteLine(const char* text);

    /// Size of the named file; 0 when it cannot be opened or measured. Waits without limit for the
    /// writer of a fifo.
    /// @{
    static long long GetSize(const char* path);
    static long long GetSize(const wchar_t* path);
    /// @}

    /// Size of the open file, data that are still buffered included. The position stays; the end of
    /// file indicator is cleared. 0 when it cannot be measured (a pipe) and on a closed object.
    long long GetSize();

    /// Moves the position. 0 for success; 1, reported, when that fails and on a closed object.
    int Seek(long long offset, EN_POS origin);

    /// The position, -1 when the file has none (a pipe), 0 on a closed object.
    long long GetCurPos();

    /// Whether a read met the end of the file. False, reported, on a closed object.
    bool IsEndOfFile();

    /// Hands the buffered data to the system and waits until the medium has them. 0 for success; 1
    /// when the data could not be handed over, and on a closed object. A failure that the medium
    /// does not report to the system is not noticed.
    int Flush();

private:
    std::FILE* stream_;  // null: closed
    bool isWritten_;     // set by every write, never cleared
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZSTORAGE_H
