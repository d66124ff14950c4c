#include "Framework/Utility/PZLSysFileOut.h"

#include <Framework/Foundation/PZClock.h>
#include <Framework/Foundation/PZFileSys.h>
#include <Framework/Utility/PZString.h>
#include <Framework/Wrapper/pz_cp_conv.h>
#include <Framework/Wrapper/pz_stdlib.h>
#include <fcntl.h>
#include <sys/types.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cwchar>
#include <iterator>

static_assert(sizeof(off_t) == 8, "files of more than 2 GiB");

namespace {

constexpr int kStamped = -1;           // file count of the time-stamped files
constexpr unsigned int kMaxFiles = 4;  // time-stamped ones
constexpr size_t kComparedCharacters = 260;
constexpr size_t kFormatBuffer = 280;
constexpr size_t kUtf8PathSize = 256;
constexpr size_t kEntryPathSize = 256 + 256;  // a directory and the name of an entry

template <size_t N>
void copy_to(wchar_t (&field)[N], const wchar_t* text) {
    pz_wcscpy(field, N, text != nullptr ? text : L"");
}

template <size_t N>
unsigned int length_of(const wchar_t (&field)[N]) {
    return pz_wcsnlen(field, N);
}

template <size_t N>
std::wstring text_of(const wchar_t (&field)[N]) {
    return {field, length_of(field)};
}

/// The name of an entry of a directory; empty when it is no UTF-8.
std::wstring wide_name(const PZFileSys::ST_FIND_DATA& entry) {
    PZString name(static_cast<const char*>(entry.name));
    const wchar_t* const wide = name.ToWCHAR();
    return wide != nullptr ? wide : L"";
}

}  // namespace

constexpr void PZLSysFileOut::check_layout() {
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
}

PZLSysFileOut::PZLSysFileOut(const wchar_t* directory, const wchar_t* name,
                             const wchar_t* extension, bool binary, unsigned int maxSize,
                             int fileCount)
    : isBinary_(binary),
      fileCount_(fileCount),
      maxSize_(maxSize),
      stream_(nullptr),
      path_(),
      sizeCounter_(0) {
    copy_to(directory_, directory);
    copy_to(name_, name);
    copy_to(extension_, extension);
    // Also behind a '/' on purpose: paths carry a doubled one then.
    const unsigned int length = length_of(directory_);
    if (length < std::size(directory_)) directory_[length] = L'/';

    PZFileSys::CreateDirectorySupportingLayers(text_of(directory_).c_str());
    if (fileCount_ < 0) return;
    const std::wstring path = fileCount_ == 0 ? PathWith(L"") : GenerationPath(0);
    SetPath(path);
    if (PZFileSys::IsExist(path.c_str())) sizeCounter_ = GetSize(path.c_str());
}

bool PZLSysFileOut::Open() {
    CloseAct();
    if (fileCount_ == kStamped) {
        RefreshFilePath();
        wchar_t oldest[kEntryPathSize];
        if (CheckMaxFileNum(oldest)) PZFileSys::Delete(oldest, true);
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
    std::fwrite(data, length, 1, stream_);
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
    CloseAct();
}

unsigned int PZLSysFileOut::GetSize(const wchar_t* path) {
    PZString narrow(path);
    const char* const utf8 = narrow.ToCHAR(XCP_UTF8);
    std::FILE* file = utf8 != nullptr ? std::fopen(utf8, "rb") : nullptr;
    if (file == nullptr) return kNoSize;
    fseeko(file, 0, SEEK_END);
    const auto size = static_cast<unsigned int>(ftello(file));
    std::fclose(file);
    return size;
}

std::wstring PZLSysFileOut::PathWith(const std::wstring& tail) const {
    return text_of(directory_) + text_of(name_) + tail + L"." + text_of(extension_);
}

std::wstring PZLSysFileOut::GenerationPath(int generation) const {
    return PathWith(L"_" + std::to_wstring(generation));
}

/// A path that does not fit stays without terminator, and OpenAct refuses it.
void PZLSysFileOut::SetPath(const std::wstring& path) {
    copy_to(path_, path.c_str());
}

void PZLSysFileOut::RefreshFilePath() {
    PZClock::ST_CLOCK utc = {};
    if (!PZClock::GetUtc(&utc)) return SetPath(L"");
    wchar_t stamp[32];
    pz_swprintf(stamp, std::size(stamp), L"%02d%02d%02d_%02d%02d", utc.year % 100, utc.month,
                utc.day, utc.hour, utc.minute);
    SetPath(PathWith(stamp));
}

/// True, with the oldest of the time-stamped files, when there are more than kMaxFiles of them.
///
/// A search takes '?' for itself, so the pattern names a directory, which is not there. On purpose:
/// in practice no time-stamped file is ever deleted.
bool PZLSysFileOut::CheckMaxFileNum(wchar_t* oldest) const {
    PZFileSys search;
    PZFileSys::ST_FIND_DATA entry = {};
    if (!search.FindFirst(PathWith(L"??????_????").c_str(), entry)) return false;
    std::wstring candidate = text_of(directory_) + wide_name(entry);
    unsigned int count = 1;
    for (; search.FindNext(entry); ++count) {
        const std::wstring name = wide_name(entry);
        // The whole path is compared with the bare name, on purpose.
        if (std::wcsncmp(candidate.c_str(), name.c_str(), kComparedCharacters) < 0) {
            candidate = text_of(directory_) + name;
        }
    }
    if (count <= kMaxFiles) return false;
    pz_wcscpy(oldest, kEntryPathSize, candidate.c_str());
    return true;
}

bool PZLSysFileOut::OpenAct() {
    char path[kUtf8PathSize] = {};
    const auto length = static_cast<int>(length_of(path_));
    const bool isAppending = maxSize_ != 0;
    if (!isAppending) sizeCounter_ = 0;
    if (pz_wctomb(path, sizeof path, path_, length, XCP_UTF8) < 1) return false;
    const char* const appending = isBinary_ ? "ab+" : "a+";
    const char* const fromEmpty = isBinary_ ? "wb+" : "w+";
    stream_ = std::fopen(path, isAppending ? appending : fromEmpty);
    if (stream_ == nullptr) return false;
    // A program that this process starts must not keep an old log file in use.
    fcntl(fileno(stream_), F_SETFD, FD_CLOEXEC);
    return true;
}

void PZLSysFileOut::CloseAct() {
    if (stream_ == nullptr) return;
    Flush();
    std::fclose(stream_);
    stream_ = nullptr;
}

void PZLSysFileOut::BackupAct() {
    PZFileSys::Delete(GenerationPath(fileCount_).c_str(), true);
    sizeCounter_ = 0;
    for (int i = fileCount_ - 1; i >= 0; --i) {
        PZFileSys::Move(GenerationPath(i).c_str(), GenerationPath(i + 1).c_str());
    }
}
