#include "Framework/Utility/PZLSysFileOut.h"

#include <sys/types.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <iterator>

#include <Framework/Foundation/PZClock.h>
#include <Framework/Foundation/PZFileSys.h>
#include <Framework/Utility/PZString.h>
#include <Framework/Wrapper/pz_cp_conv.h>
#include <Framework/Wrapper/pz_stdlib.h>
#include <Framework/private/pz_stream.h>

static_assert(sizeof(off_t) == 8, "files of more than 2 GiB");

namespace {

constexpr int kStamped = -1;           // file count of the time-stamped files
constexpr unsigned int kMaxFiles = 4;  // time-stamped ones
constexpr size_t kComparedCharacters = 260;
constexpr size_t kFormatBuffer = 280;
constexpr size_t kUtf8PathSize = 256;
constexpr size_t kNameSize = 256;                   // of the name of an entry
constexpr size_t kEntryPathSize = 256 + kNameSize;  // a directory and the name of an entry

template <size_t N>
void copy_to(wchar_t (&field)[N], const wchar_t* text) {
    pz_wcscpy(field, N, text != nullptr ? text : L"");
}

template <size_t N>
unsigned int length_of(const wchar_t (&field)[N]) {
    return pz_wcsnlen(field, N);
}

/// Any path of a log, or of an entry of its folder, in UTF-8: four bytes for a character at most.
using Utf8Path = char[4 * 512];

/// False, reported, for a text that cannot be converted; an empty one is none.
template <size_t M, size_t N>
bool to_utf8(const wchar_t (&text)[M], char (&utf8)[N]) {
    std::memset(utf8, 0, N);
    return pz_wctomb(utf8, N, text, static_cast<int>(length_of(text)), XCP_UTF8) >= 1;
}

/// The name of an entry of a directory; empty when it is no UTF-8.
void wide_name(const PZFileSys::ST_FIND_DATA& entry, wchar_t (&name)[kNameSize]) {
    name[0] = L'\0';
    const size_t length = std::strlen(entry.name);
    if (length == 0) return;
    if (pz_mbtowc(name, kNameSize, entry.name, static_cast<unsigned int>(length), XCP_UTF8) < 1) {
        name[0] = L'\0';
    }
}

unsigned int size_of(const char* path) {
    const PZStream file(pz_open_stream(path, "rb"));
    if (!file.IsOpen()) return PZLSysFileOut::kNoSize;
    fseeko(file.Get(), 0, SEEK_END);
    return static_cast<unsigned int>(ftello(file.Get()));
}

}  // namespace

PZLSysFileOut::PZLSysFileOut(const wchar_t* directory, const wchar_t* name,
                             const wchar_t* extension, bool binary, unsigned int maxSize,
                             int fileCount)
    : isBinary_(binary),
      fileCount_(fileCount),
      maxSize_(maxSize),
      stream_(nullptr),
      path_(),
      sizeCounter_(0) {
#if __SIZEOF_POINTER__ == 4
    static_assert(offsetof(PZLSysFileOut, directory_) == 0);
    static_assert(offsetof(PZLSysFileOut, name_) == 1024);
    static_assert(offsetof(PZLSysFileOut, extension_) == 1120);
    static_assert(offsetof(PZLSysFileOut, isBinary_) == 1136);
    static_assert(offsetof(PZLSysFileOut, fileCount_) == 1140);
    static_assert(offsetof(PZLSysFileOut, maxSize_) == 1144);
    static_assert(offsetof(PZLSysFileOut, stream_) == 1148);
    static_assert(offsetof(PZLSysFileOut, path_) == 1152);
    static_assert(offsetof(PZLSysFileOut, sizeCounter_) == 2176);
    static_assert(sizeof(PZLSysFileOut) == 2180);
#endif
    copy_to(directory_, directory);
    copy_to(name_, name);
    copy_to(extension_, extension);
    // Also after a '/', on purpose: paths carry a doubled one then.
    const unsigned int length = length_of(directory_);
    if (length < std::size(directory_)) directory_[length] = L'/';

    Utf8Path utf8;
    if (to_utf8(directory_, utf8)) {
        PZFileSys::CreateDirectorySupportingLayers(utf8);
    }
    if (fileCount_ < 0) return;
    const Path path = fileCount_ == 0 ? PathWith(L"") : GenerationPath(0);
    SetPath(path.text);
    if (to_utf8(path.text, utf8) && PZFileSys::IsExist(utf8)) {
        sizeCounter_ = size_of(utf8);
    }
}

bool PZLSysFileOut::Open() {
    CloseAct();
    if (fileCount_ == kStamped) {
        RefreshFilePath();
        wchar_t oldest[kEntryPathSize];
        Utf8Path utf8;
        if (CheckMaxFileNum(oldest) && to_utf8(oldest, utf8)) PZFileSys::Delete(utf8, true);
    }
    if (maxSize_ == 0 && fileCount_ >= 1) BackupAct();
    return OpenAct();
}

int PZLSysFileOut::Write(const void* data, unsigned int length) {
    if (stream_ == nullptr || (data == nullptr && length != 0)) return 0;
    if (length == 0) return 1;
    if (maxSize_ != 0 && maxSize_ <= 0ULL + length + sizeCounter_) {
        CloseAct();
        if (fileCount_ > 0) BackupAct();
        if (!OpenAct()) return 1;
    }
    if (length == 1) {  // the end of a line, as a rule
        std::fputc(*static_cast<const unsigned char*>(data), stream_);
    } else {
        std::fwrite(data, length, 1, stream_);
    }
    return 1;
}

int PZLSysFileOut::SWrite(const void* data, unsigned int length) {
    return Write(data, length);
}

int PZLSysFileOut::FWrite(const char* format, ...) {
    if (format == nullptr) return 0;
    char text[kFormatBuffer];
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (length < 0) return 0;
    return Write(text, std::min(static_cast<unsigned int>(length),
                                static_cast<unsigned int>(sizeof text - 1)));
}

void PZLSysFileOut::Flush() {
    if (stream_ == nullptr) return;
    std::fflush(stream_);
    pz_sync();
}

void PZLSysFileOut::Close() {
    Flush();
    CloseAct();
}

unsigned int PZLSysFileOut::GetSize(const wchar_t* path) {
    PZString narrow(path);
    const char* const utf8 = narrow.ToCHAR(XCP_UTF8);
    return utf8 != nullptr ? size_of(utf8) : kNoSize;
}

PZLSysFileOut::Path PZLSysFileOut::PathWith(const wchar_t* tail) const {
    Path path;
    // The bounds are those of the fields, which need not be terminated.
    std::swprintf(path.text, std::size(path.text), L"%.256ls%.24ls%ls.%.4ls", directory_, name_,
                  tail, extension_);
    return path;
}

PZLSysFileOut::Path PZLSysFileOut::GenerationPath(int generation) const {
    wchar_t tail[16];
    std::swprintf(tail, std::size(tail), L"_%d", generation);
    return PathWith(tail);
}

/// A path that does not fit stays without terminator, and OpenAct refuses it.
void PZLSysFileOut::SetPath(const wchar_t* path) {
    copy_to(path_, path);
}

void PZLSysFileOut::RefreshFilePath() {
    PZClock::ST_CLOCK utc = {};
    if (!PZClock::GetUtc(&utc)) return SetPath(L"");
    wchar_t stamp[32];
    std::swprintf(stamp, std::size(stamp), L"%02d%02u%02u_%02u%02u", utc.year % 100, utc.month,
                  utc.day, utc.hour, utc.minute);
    SetPath(PathWith(stamp).text);
}

/// True, with the oldest of the time-stamped files, when there are more than kMaxFiles of them.
///
/// A search takes '?' for itself, so the pattern names a directory, which is not there. On purpose:
/// in practice no time-stamped file is ever deleted.
bool PZLSysFileOut::CheckMaxFileNum(wchar_t* oldest) const {
    PZFileSys search;
    PZFileSys::ST_FIND_DATA entry = {};
    const Path pattern = PathWith(L"??????_????");
    Utf8Path utf8;
    if (!to_utf8(pattern.text, utf8)) return false;
    if (!search.FindFirst(utf8, entry)) return false;

    wchar_t name[kNameSize];
    const auto remember = [&] {
        std::swprintf(oldest, kEntryPathSize, L"%.256ls%ls", directory_, name);
    };
    wide_name(entry, name);
    remember();
    unsigned int count = 1;
    for (; search.FindNext(entry); ++count) {
        wide_name(entry, name);
        // The whole path is compared with the bare name, on purpose.
        if (std::wcsncmp(oldest, name, kComparedCharacters) < 0) remember();
    }
    return count > kMaxFiles;
}

bool PZLSysFileOut::OpenAct() {
    const bool isAppending = maxSize_ != 0;
    if (!isAppending) sizeCounter_ = 0;
    char path[kUtf8PathSize];
    if (!to_utf8(path_, path)) return false;
    const char* const appending = isBinary_ ? "ab+" : "a+";
    const char* const fromEmpty = isBinary_ ? "wb+" : "w+";
    stream_ = pz_open_own_stream(path, isAppending ? appending : fromEmpty);
    return stream_ != nullptr;
}

/// Flushes, too, but leaves it to the system when the data go to the disk.
void PZLSysFileOut::CloseAct() {
    if (stream_ == nullptr) return;
    std::fflush(stream_);
    pz_close_stream(stream_);
    stream_ = nullptr;
}

/// In the narrow form of every path, which takes no memory.
void PZLSysFileOut::BackupAct() {
    Utf8Path to;
    const Path last = GenerationPath(fileCount_);
    if (to_utf8(last.text, to)) PZFileSys::Delete(to, true);
    sizeCounter_ = 0;
    for (int i = fileCount_ - 1; i >= 0; --i) {
        Utf8Path from;
        const Path path = GenerationPath(i);
        if (!to_utf8(path.text, from)) return;
        PZFileSys::Move(from, to, PZFileSys::Links::REFUSED);
        std::memcpy(to, from, sizeof to);
    }
}
