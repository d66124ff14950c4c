#include "Framework/Foundation/PZStorage.h"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Diagnostics/pz_last_error.h>
#include <Framework/Utility/PZString.h>
#include <Framework/private/pz_stream.h>

#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(PZStorage) == 8, "a stream and a flag");
#endif
static_assert(sizeof(off_t) == 8, "positions beyond 4 GiB");
static_assert(PZStorage::en_POS_BEGIN == SEEK_SET && PZStorage::en_POS_CURRENT == SEEK_CUR &&
              PZStorage::en_POS_END == SEEK_END);

namespace {

/// Bytes from the beginning to the end of the stream, whose position is lost; 0 when it has none.
long long measure(std::FILE* stream) {
    if (fseeko(stream, 0, SEEK_END) != 0) return 0;
    const off_t end = ftello(stream);
    return end > 0 ? end : 0;
}

}  // namespace

PZStorage::PZStorage() : stream_(nullptr), isWritten_(false) {}

PZStorage::PZStorage(const char* path, const char* mode) : PZStorage() {
    Open(path, mode);
}

PZStorage::PZStorage(const wchar_t* path, const wchar_t* mode) : PZStorage() {
    Open(path, mode);
}

/// Not cancelled in between: a destructor that did not say so would end the process, and one that
/// did could not be that of a member of most classes.
PZStorage::~PZStorage() {
    const PZUncancelled whole;
    Close();
}

int PZStorage::Open(const char* path, const char* mode) {
    Close();
    if (path == nullptr || mode == nullptr) {
        errno = EINVAL;
    } else {
        stream_ = pz_open_stream(path, mode);
    }
    if (stream_ == nullptr) {
        PZ_REPORT_LAST_ERROR_ON(PATH, path);
        return 1;
    }
    return 0;
}

int PZStorage::Open(const wchar_t* path, const wchar_t* mode) {
    PZString narrowPath(path);
    PZString narrowMode(mode);
    return Open(narrowPath.ToCHAR(XCP_UTF8), narrowMode.ToCHAR(XCP_UTF8));
}

bool PZStorage::IsOpen() const {
    return stream_ != nullptr;
}

void PZStorage::Close() {
    if (stream_ == nullptr) return;
    PZStreamClosing closing(stream_);
    if (isWritten_) Flush();
    closing.Settle();
}

long long PZStorage::Read(void* buf, long long size) {
    if (stream_ == nullptr || buf == nullptr || size < 1) return 0;
    const auto low = static_cast<uint32_t>(size);
    return static_cast<long long>(std::fread(buf, 1, low, stream_));
}

int PZStorage::ReadLine(char* buf, int size) {
    if (stream_ == nullptr || buf == nullptr || size < 1) return 1;
    if (std::fgets(buf, size, stream_) != nullptr) return 0;
    return std::feof(stream_) != 0 ? 2 : 1;
}

long long PZStorage::Write(const void* buf, long long size) {
    if (stream_ == nullptr || buf == nullptr || size < 1) return 0;
    isWritten_ = true;
    if (static_cast<unsigned long long>(size) > SIZE_MAX) return 0;  // no block is that large
    return std::fwrite(buf, static_cast<size_t>(size), 1, stream_) == 1 ? size : 0;
}

int PZStorage::WriteLine(const char* text) {
    if (stream_ == nullptr || text == nullptr) return 1;
    isWritten_ = true;
    if (std::fputs(text, stream_) == EOF) return 1;
    const size_t length = std::strlen(text);
    const bool isLine = length > 0 && text[length - 1] == '\n';
    return isLine || std::fputc('\n', stream_) != EOF ? 0 : 1;
}

long long PZStorage::GetSize(const char* path) {
    if (path == nullptr) return 0;
    const PZStream file(pz_open_stream(path, "rb"));
    return file.IsOpen() ? measure(file.Get()) : 0;
}

long long PZStorage::GetSize(const wchar_t* path) {
    PZString narrowPath(path);
    return GetSize(narrowPath.ToCHAR(XCP_UTF8));
}

long long PZStorage::GetSize() {
    if (stream_ == nullptr) return 0;
    const off_t position = ftello(stream_);
    const long long size = measure(stream_);
    if (position >= 0) fseeko(stream_, position, SEEK_SET);
    return size;
}

int PZStorage::Seek(long long offset, EN_POS origin) {
    if (stream_ == nullptr) {
        PZ_REPORT_ERROR("file is not opened\n");
        return 1;
    }
    if (fseeko(stream_, offset, origin) != 0) {
        PZ_REPORT_ERROR("fseek error[%d : %s]\n", pz_get_last_err(), pz_get_last_err_string());
        return 1;
    }
    return 0;
}

long long PZStorage::GetCurPos() {
    return stream_ != nullptr ? ftello(stream_) : 0;
}

bool PZStorage::IsEndOfFile() {
    if (stream_ == nullptr) {
        PZ_REPORT_ERROR("file is not opened\n");
        return false;
    }
    return std::feof(stream_) != 0;
}

int PZStorage::Flush() {
    if (stream_ == nullptr) return 1;
    const bool isFlushed = std::fflush(stream_) == 0;
    fsync(fileno(stream_));
    return isFlushed ? 0 : 1;
}
