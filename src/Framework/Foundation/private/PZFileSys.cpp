#include "Framework/Foundation/PZFileSys.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include <Framework/Diagnostics/PZCallStack.h>
#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Diagnostics/pz_last_error.h>
#include <Framework/Utility/PZString.h>
#include <Framework/Wrapper/pz_stdlib.h>
#include <Framework/private/pz_directory.h>
#include <Framework/private/pz_is_link.h>
#include <Framework/private/pz_numbers.h>
#include <Framework/private/pz_stream.h>

static_assert(sizeof(off_t) == 8, "files of more than 2 GiB");
static_assert(offsetof(PZFileSys::DiskInfo, availableBytes) == 0 &&
              offsetof(PZFileSys::DiskInfo, totalBytes) == 8 &&
              offsetof(PZFileSys::DiskInfo, freeBytes) == 16);
static_assert(offsetof(PZFileSys::ST_FIND_DATA, attribute) == 0 &&
              offsetof(PZFileSys::ST_FIND_DATA, name) ==
                  offsetof(PZFileSys::ST_FIND_DATA, size) + 8);
#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(PZFileSys) == 2056, "a listing, two flags and two texts");
#endif

namespace {

constexpr size_t kNameSize = sizeof(PZFileSys::ST_FIND_DATA::name);
constexpr size_t kRemovePathSize = 512;  // of an entry that a recursive removal reaches
constexpr size_t kCopyChunk = 1024;
constexpr size_t kKernelPiece = size_t{1} << 30;  // bytes that one call may copy

/// Null with errno set when it cannot be opened.
std::unique_ptr<PZDirectory> open_directory(const char* path, int flags = 0) {
    return PZDirectory::Over(
        PZDescriptor(::open(path, flags | O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC)));
}

/// The directory itself, never what a link in its place leads to.
std::unique_ptr<PZDirectory> open_below(const PZDirectory& parent, const char* name) {
    return PZDirectory::Over(PZDescriptor(
        ::openat(parent.Get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
}

/// Reasons that tell nothing about the directory that could not be opened.
bool is_shortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

bool is_empty(const char* path) {
    return path == nullptr || *path == '\0';
}

bool is_empty(const wchar_t* path) {
    return path == nullptr || *path == L'\0';
}

/// The result of `operation` with the path in UTF-8; false when there is no path or it cannot be
/// converted.
template <typename Operation>
bool with_utf8(const wchar_t* path, Operation operation) {
    if (is_empty(path)) return false;
    PZString text(path);
    const char* const narrow = text.ToCHAR(XCP_UTF8);
    return narrow != nullptr && operation(narrow);
}

template <typename Operation>
bool with_utf8(const wchar_t* src, const wchar_t* dst, Operation operation) {
    if (is_empty(src) || is_empty(dst)) return false;
    return with_utf8(src, [&](const char* narrowSrc) {
        return with_utf8(dst,
                         [&](const char* narrowDst) { return operation(narrowSrc, narrowDst); });
    });
}

/// For file systems that do not tell: DT_REG, DT_DIR, or DT_UNKNOWN for everything else.
unsigned char type_by_status(const char* path) {
    struct stat status = {};
    if (::lstat(path, &status) != 0) return DT_UNKNOWN;
    if (S_ISREG(status.st_mode)) return DT_REG;
    return S_ISDIR(status.st_mode) ? DT_DIR : DT_UNKNOWN;
}

/// A text that is followed by its terminator. By the C library, whose copy of a few bytes is faster
/// than the shortest code for one.
void copy_terminated(std::string_view text, char* to) {
    std::memmove(to, text.data(), text.size() + 1);
}

bool is_like(char wanted, char actual) {
    return wanted == '?' || wanted == actual;
}

/// Only the last '*' seen needs a second try: whatever an earlier one could take more, it can take.
bool matches(std::string_view pattern, std::string_view name) {
    // What stands after the very last '*' is the end of the name, where most names differ.
    const size_t last = pattern.rfind('*');
    if (last != std::string_view::npos) {
        for (; pattern.size() > last + 1; pattern.remove_suffix(1), name.remove_suffix(1)) {
            if (name.empty() || !is_like(pattern.back(), name.back())) return false;
        }
    }
    size_t at = 0;
    size_t afterStar = std::string_view::npos;  // in the pattern, after the last '*' seen
    size_t taken = 0;                           // of the name, up to the end of what that '*' takes
    for (size_t i = 0; i < name.size();) {
        if (at == last) return true;  // it takes the rest
        if (at < pattern.size() && pattern[at] == '*') {
            afterStar = ++at;
            taken = i;
        } else if (at < pattern.size() && is_like(pattern[at], name[i])) {
            ++at;
            ++i;
        } else if (afterStar != std::string_view::npos) {
            at = afterStar;
            i = ++taken;
        } else {
            return false;
        }
    }
    while (at < pattern.size() && pattern[at] == '*') ++at;
    return at == pattern.size();
}

/// Whether the part of a path that ends there names something new; "x/" and "x/." are x.
bool ends_in_a_name(std::string_view path) {
    const std::string_view last = path.substr(path.rfind('/') + 1);
    return !last.empty() && last != "." && last != "..";
}

/// Copies as far as the kernel does it without being told why not: from and to the positions of
/// the streams, which have read and written nothing yet.
void copy_by_kernel(FILE* in, FILE* out) {
    while (::copy_file_range(::fileno(in), nullptr, ::fileno(out), nullptr, kKernelPiece, 0) > 0) {
    }
}

/// Copies what the kernel has left. Reports in the name of the operation, with the names of the
/// files.
bool copy_rest(FILE* in, FILE* out, const char* src, const char* dst) {
    char chunk[kCopyChunk];
    while (std::feof(in) == 0) {
        const size_t got = std::fread(chunk, 1, sizeof chunk, in);
        if (std::ferror(in) != 0) {
            PZ_REPORT_ERROR_OF("copyFile", "failed to read [%s]\n", src);
            return false;
        }
        if (std::fwrite(chunk, 1, got, out) != got) {
            PZ_REPORT_ERROR_OF("copyFile", "failed to write [%s]\n", dst);
            return false;
        }
    }
    return true;
}

/// A file for writing, empty. With `mustBeNew` null and EEXIST when there is a file or directory;
/// with `isOwn` also when there is anything else.
FILE* open_destination(const char* path, bool mustBeNew, bool isOwn) {
    if (!mustBeNew) return pz_open_stream(path, "wb");
    FILE* const created = pz_open_stream(path, "wbx");
    if (created != nullptr || errno != EEXIST || isOwn) return created;
    if (!PZFileSys::IsExist(path)) return pz_open_stream(path, "wb");  // a device, a pipe, a link
    errno = EEXIST;
    return nullptr;
}

}  // namespace

PZFileSys::PZFileSys() = default;

PZFileSys::PZFileSys(FuncOption& option) : getSize_(option.getSize) {}

PZFileSys::~PZFileSys() {
    doFindClose();
}

// ---- questions ----

bool PZFileSys::GetDiskFreeSpace(const char* path, DiskInfo& info) {
    if (path == nullptr) return false;
    struct statfs status = {};
    if (::statfs(path, &status) != 0) {
        PZ_REPORT_ERROR("err(%d : %s) path(%s)\n", pz_get_last_err(), pz_get_last_err_string(),
                        path);
        return false;
    }
    const auto blockSize = static_cast<std::uint64_t>(std::int64_t{status.f_bsize});
    info.availableBytes = status.f_bavail * blockSize;
    info.totalBytes = status.f_blocks * blockSize;
    info.freeBytes = status.f_bfree * blockSize;
    return true;
}

bool PZFileSys::GetDiskFreeSpace(const wchar_t* path, DiskInfo& info) {
    return with_utf8(path, [&](const char* narrow) { return GetDiskFreeSpace(narrow, info); });
}

unsigned int PZFileSys::chkAttribute(const char* path) {
    if (is_empty(path)) return 0;
    struct stat status = {};
    if (::stat(path, &status) != 0) {
        if (errno != ENOENT) {
            PZ_REPORT_ERROR_ON(PATH, path, "error[%d: %s]\n", pz_get_last_err(),
                               pz_get_last_err_string());
        }
        return 0;
    }
    if (S_ISREG(status.st_mode)) return en_ATTR_FILE;
    if (S_ISDIR(status.st_mode)) return en_ATTR_DIRECTORY;
    return 0;
}

bool PZFileSys::IsExist(const char* path) {
    return chkAttribute(path) != 0;
}

bool PZFileSys::IsExist(const wchar_t* path) {
    return with_utf8(path, [](const char* narrow) { return IsExist(narrow); });
}

// ---- deleting ----

bool PZFileSys::Delete(const char* path, bool sync) {
    if (is_empty(path)) return false;
    if (chkAttribute(path) != en_ATTR_FILE) {
        PZ_REPORT_ERROR("this is not file [%s]\n", path);
        PZCallStack::dumpDirectly(kReportedFrames);
        return false;
    }
    if (::unlink(path) != 0) {
        PZ_REPORT_ERROR_ON(PATH, path, "error(%d : %s)\n", pz_get_last_err(),
                           pz_get_last_err_string());
        return false;
    }
    if (sync) pz_sync();
    return true;
}

bool PZFileSys::Delete(const wchar_t* path, bool sync) {
    return with_utf8(path, [&](const char* narrow) { return Delete(narrow, sync); });
}

bool PZFileSys::RemoveDirectory(const char* path, bool recursive) {
    if (is_empty(path)) return false;
    bool removed = true;
    if (recursive) {
        // A success on purpose: callers remove files and missing directories this way, too.
        removed = removeTree(path) != Removal::FAILED;
    } else {
        removed = ::rmdir(path) == 0;
    }
    if (removed) pz_sync();
    return removed;
}

bool PZFileSys::RemoveDirectory(const wchar_t* path, bool recursive) {
    return with_utf8(path, [&](const char* narrow) { return RemoveDirectory(narrow, recursive); });
}

PZFileSys::Removal PZFileSys::removeTree(const char* path, Links links) {
    if (is_empty(path)) return Removal::NOT_OPENED;
    const auto dir = open_directory(path, links == Links::REFUSED ? O_NOFOLLOW : 0);
    if (dir == nullptr || !removeSubDir(*dir, std::strlen(path))) return Removal::NOT_OPENED;
    return ::rmdir(path) == 0 ? Removal::REMOVED : Removal::FAILED;
}

bool PZFileSys::removeSubDir(const char* path) {
    if (is_empty(path)) return false;
    const auto dir = open_directory(path);
    return dir != nullptr && removeSubDir(*dir, std::strlen(path));
}

/// `length` is that of the directory's path. Entries are reached through their open directory, so
/// that nobody can lead the walk out of the tree by exchanging a directory for a link. False, with
/// the reason in errno, when a directory below cannot be opened.
bool PZFileSys::removeSubDir(PZDirectory& dir, size_t length) {
    while (const dirent64* const entry = dir.Read()) {
        const char* const name = PZDirectory::NameOf(entry);
        const size_t lengthBelow = length + 1 + std::strlen(name);
        if (lengthBelow >= kRemovePathSize) continue;  // like an entry without a status
        struct stat status = {};
        if (::fstatat(dir.Get(), name, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
        const bool isDirectory = S_ISDIR(status.st_mode);
        if (isDirectory) {
            const auto below = open_below(dir, name);
            if (below == nullptr || !removeSubDir(*below, lengthBelow)) return false;
        }
        if (::unlinkat(dir.Get(), name, isDirectory ? AT_REMOVEDIR : 0) != 0) return true;
    }
    return true;
}

// ---- creating ----

bool PZFileSys::CreateDirectory(const char* path, bool layers) {
    bool created = false;
    return CreateDirectory(path, layers, created);
}

bool PZFileSys::CreateDirectory(const char* path, bool layers, bool& created) {
    if (is_empty(path)) return false;
    return layers ? createLayers(path, std::strlen(path), created)
                  : createDirectorySub(path, created);
}

/// The directory that the first `length` bytes name, and what is missing above it, one after the
/// other. No system call takes more than the buffer holds, so that the last one fails then.
bool PZFileSys::createLayers(const char* path, size_t length, bool& created) {
    char level[PATH_MAX];
    const size_t kept = std::min(length, sizeof level - 1);
    std::memcpy(level, path, kept);
    level[kept] = '\0';
    for (size_t end = 1; end < kept; ++end) {
        if (path[end] != '/') continue;
        level[end] = '\0';
        if (!createLayer(level, created)) return false;
        level[end] = '/';
    }
    return createLayer(kept == length ? level : path, created);
}

/// One more level. `created` tells about the last one that has a name of its own.
bool PZFileSys::createLayer(const char* path, bool& created) {
    bool isNew = false;
    if (!createDirectorySub(path, isNew)) return false;
    if (isNew || ends_in_a_name(path)) created = isNew;
    return true;
}

bool PZFileSys::CreateDirectory(const wchar_t* path, bool layers) {
    if (is_empty(path)) {
        PZ_REPORT_ERROR("invalid arg\n");
        return false;
    }
    return with_utf8(path, [&](const char* narrow) { return CreateDirectory(narrow, layers); });
}

bool PZFileSys::CreateDirectorySupportingLayers(const char* path) {
    return CreateDirectory(path, true);
}

bool PZFileSys::CreateDirectorySupportingLayers(const wchar_t* path) {
    return CreateDirectory(path, true);
}

bool PZFileSys::createDirectorySub(const char* path) {
    bool created = false;
    return createDirectorySub(path, created);
}

/// `created` tells whether it was missing.
bool PZFileSys::createDirectorySub(const char* path, bool& created) {
    created = false;
    if (is_empty(path)) {
        PZ_REPORT_ERROR("invalid arg\n");
        return false;
    }
    if (::mkdir(path, 0777) == 0) {
        created = true;
        pz_sync();
        return true;
    }
    if (errno == EEXIST) {
        if (chkAttribute(path) == en_ATTR_DIRECTORY) return true;
        errno = EEXIST;  // the reason, whatever the question has left
    }
    PZ_REPORT_LAST_ERROR_ON(PATH, path);
    return false;
}

// ---- searching ----

bool PZFileSys::FindFirst(const char* path, ST_FIND_DATA& data) {
    doFindClose();
    if (path == nullptr) return false;
    const bool isOpen = std::strchr(path, '*') != nullptr ? OpenPattern(path) : OpenDirectory(path);
    if (!isOpen) return false;
    if (FindNext(data)) return true;
    doFindClose();
    return false;
}

/// False, with the reason in errno, when it cannot be opened.
bool PZFileSys::OpenDirectory(const char* path) {
    const size_t length = ::strnlen(path, sizeof searchPath_);
    if (length >= sizeof searchPath_) {
        errno = ENAMETOOLONG;
        return false;
    }
    chkAttribute(path);  // for its report
    dir_ = open_directory(path).release();
    if (dir_ == nullptr) return false;
    hasPattern_ = false;
    std::memcpy(searchPath_, path, length + 1);
    return true;
}

bool PZFileSys::OpenPattern(const char* path) {
    const size_t length = ::strnlen(path, sizeof searchPath_);
    if (length >= sizeof searchPath_) return false;
    const std::string_view before(path, static_cast<size_t>(std::strchr(path, '*') - path));
    const size_t slash = before.rfind('/');
    if (slash == std::string_view::npos) return false;  // names no directory
    char directory[sizeof searchPath_];
    std::memcpy(directory, path, slash);
    directory[slash] = '\0';
    dir_ = open_directory(directory).release();
    if (dir_ == nullptr) return false;
    hasPattern_ = true;
    std::memcpy(searchPath_, path, length + 1);
    std::memcpy(pattern_, path + slash + 1, length - slash);  // terminator included
    return true;
}

bool PZFileSys::FindFirst(const wchar_t* path, ST_FIND_DATA& data) {
    return with_utf8(path, [&](const char* narrow) { return FindFirst(narrow, data); });
}

bool PZFileSys::FindNext(ST_FIND_DATA& data) {
    return ReadEntry(data) == Listing::ENTRY;
}

/// A listing that has failed tells why in errno.
PZFileSys::Listing PZFileSys::ReadEntry(ST_FIND_DATA& data) {
    if (dir_ == nullptr) return Listing::END;
    while (const dirent64* const entry = dir_->Read()) {
        const std::string_view name = PZDirectory::NameOf(entry);
        data.attribute = 0;
        data.size = 0;
        data.name[0] = '\0';
        if (name.size() >= kNameSize) {
            doFindClose();
            errno = ENAMETOOLONG;
            return Listing::FAILED;
        }
        if (hasPattern_ && !matches(pattern_, name)) continue;
        find_next_sub(entry, name, data);
        return Listing::ENTRY;
    }
    return dir_->HasFailed() ? Listing::FAILED : Listing::END;
}

/// `name` is that of the entry.
void PZFileSys::find_next_sub(const dirent64* entry, std::string_view name,
                              ST_FIND_DATA& data) const {
    const auto length = static_cast<unsigned int>(name.size());
    unsigned char type = entry->d_type;
    if (type == DT_UNKNOWN) type = type_by_status(PathOf(name).text);

    if (type == DT_DIR) {
        data.attribute = en_ATTR_DIRECTORY;
        if (is_hidden_folder(name.data(), length)) data.attribute |= en_ATTR_HIDDEN;
        copy_terminated(name, data.name);
        return;
    }
    if (type != DT_REG) {
        PZ_REPORT_ERROR("error d_type[%d][%s]\n", entry->d_type, name.data());
        return;
    }
    if (getSize_) {
        const EntryPath path = PathOf(name);
        struct stat status;  // filled by a success
        if (::stat(path.text, &status) == 0) {
            data.size = static_cast<std::uint64_t>(status.st_size);
        } else {
            PZ_REPORT_ERROR("%s\n", path.text);
            PZ_REPORT_LAST_ERROR_ON(PATH, path.text);
        }
    }
    data.attribute = en_ATTR_FILE;
    if (is_hidden_file(name.data(), length)) data.attribute |= en_ATTR_HIDDEN;
    copy_terminated(name, data.name);
}

/// The pattern of a search stays in it, so that such a path names nothing.
PZFileSys::EntryPath PZFileSys::PathOf(std::string_view name) const {
    EntryPath path;
    static_assert(sizeof path.text >= sizeof searchPath_ + kNameSize);
    const std::string_view folder = searchPath_;
    copy_terminated(folder, path.text);
    path.text[folder.size()] = '/';
    copy_terminated(name, path.text + folder.size() + 1);
    return path;
}

bool PZFileSys::FindFirstWithFilter(const char* path, ST_FIND_DATA& data, unsigned int filter,
                                    bool exact) {
    if (!FindFirst(path, data)) return false;
    return IsValidData(data, filter, exact) || FindNextWithFilter(data, filter, exact);
}

bool PZFileSys::FindFirstWithFilter(const wchar_t* path, ST_FIND_DATA& data, unsigned int filter,
                                    bool exact) {
    return with_utf8(
        path, [&](const char* narrow) { return FindFirstWithFilter(narrow, data, filter, exact); });
}

bool PZFileSys::FindNextWithFilter(ST_FIND_DATA& data, unsigned int filter, bool exact) {
    while (FindNext(data)) {
        if (IsValidData(data, filter, exact)) return true;
    }
    return false;
}

void PZFileSys::doFindClose() {
    delete std::exchange(dir_, nullptr);
}

bool PZFileSys::IsValidData(const ST_FIND_DATA& data, unsigned int filter, bool exact) {
    return exact ? data.attribute == filter : (data.attribute & filter) != 0;
}

int PZFileSys::strcmp_wild(const char* pattern, const char* name) {
    if (pattern == nullptr || name == nullptr) return 1;
    return matches(pattern, name) ? 0 : 1;
}

bool PZFileSys::is_hidden_file(const char* name, unsigned int length) {
    if (is_hidden_folder(name, length)) return true;  // ".DS_Store" and "._" among them
    constexpr std::string_view kEnd = ".CHK";
    return length >= kEnd.size() &&
           std::memcmp(name + length - kEnd.size(), kEnd.data(), kEnd.size()) == 0;
}

bool PZFileSys::is_hidden_folder(const char* name, unsigned int length) {
    return length > 0 && name[0] == '.';
}

// ---- copying and moving ----

bool PZFileSys::Copy(const char* src, const char* dst, bool failIfExists, bool createDirs) {
    bool refused = false;
    return Copy(src, dst, failIfExists, createDirs, refused);
}

/// `refused` tells that a destination which must not exist is there: somebody else's.
bool PZFileSys::Copy(const char* src, const char* dst, bool failIfExists, bool createDirs,
                     bool& refused, Links links) {
    refused = false;
    if (is_empty(src) || is_empty(dst)) {
        PZ_REPORT_ERROR_ON(PATH, is_empty(src) ? dst : src, "invalid args\n");
        return false;
    }
    if (failIfExists && IsExist(dst)) {
        PZ_REPORT_ERROR("[%s] is already exist.\n", dst);
        refused = true;
        return false;
    }
    const bool isLink = links == Links::REFUSED && pz_is_link(src);
    if (isLink || chkAttribute(src) != en_ATTR_DIRECTORY) {
        return copyFile(src, dst, failIfExists, createDirs, refused, links);
    }
    bool created = false;
    if (!CreateDirectory(dst, createDirs, created)) return false;
    if (failIfExists && !created) {  // it has appeared meanwhile
        PZ_REPORT_ERROR("[%s] is already exist.\n", dst);
        refused = true;
        return false;
    }
    return copyDirectory(src, dst, failIfExists, createDirs);
}

bool PZFileSys::Copy(const wchar_t* src, const wchar_t* dst, bool failIfExists, bool createDirs) {
    return with_utf8(src, dst, [&](const char* narrowSrc, const char* narrowDst) {
        return Copy(narrowSrc, narrowDst, failIfExists, createDirs);
    });
}

bool PZFileSys::copyFile(const char* src, const char* dst, bool failIfExists, bool createDirs) {
    bool refused = false;
    return copyFile(src, dst, failIfExists, createDirs, refused);
}

bool PZFileSys::copyFile(const char* src, const char* dst, bool failIfExists, bool createDirs,
                         bool& refused, Links links) {
    const bool isOwn = links == Links::REFUSED;
    refused = failIfExists && IsExist(dst);
    if (refused) {
        PZ_REPORT_ERROR("already exist [%s]\n", dst);
        return false;
    }
    if (createDirs) createParents(dst);

    const PZStream in(isOwn ? pz_open_own_stream(src, "rb") : pz_open_stream(src, "rb"));
    if (!in.IsOpen()) {
        PZ_REPORT_ERROR("failed to open [%s]\n", src);
        PZ_REPORT_LAST_ERROR_ON(PATH, src);
        return false;
    }
    PZStream out(open_destination(dst, failIfExists, isOwn));
    if (!out.IsOpen()) {
        refused = failIfExists && errno == EEXIST;
        PZ_REPORT_ERROR(refused ? "already exist [%s]\n" : "failed to open [%s]\n", dst);
        return false;
    }
    copy_by_kernel(in.Get(), out.Get());
    if (!copy_rest(in.Get(), out.Get(), src, dst)) return false;
    if (!out.Close()) {
        PZ_REPORT_ERROR("failed to write [%s]\n", dst);
        return false;
    }
    pz_sync();
    return true;
}

/// What cannot be created shows when the file is opened.
void PZFileSys::createParents(const char* path) {
    const char* const slash = std::strrchr(path, '/');
    if (slash == nullptr || slash == path) return;
    bool created = false;
    createLayers(path, static_cast<size_t>(slash - path), created);
}

bool PZFileSys::copyDirectory(const char* src, const char* dst, bool failIfExists,
                              bool createDirs) try {
    PZFileSys search;
    // Also a name with a '*' is that of the directory.
    if (!search.OpenDirectory(src)) {
        if (!is_shortage(errno)) return true;
        PZ_REPORT_LAST_ERROR_ON(PATH, src);
        return false;
    }
    ST_FIND_DATA entry;
    Listing listing = search.ReadEntry(entry);
    for (; listing == Listing::ENTRY; listing = search.ReadEntry(entry)) {
        const std::string from = std::string(src) + "/" + entry.name;
        const std::string to = std::string(dst) + "/" + entry.name;
        if ((entry.attribute & en_ATTR_DIRECTORY) == 0) {
            if (!copyFile(from.c_str(), to.c_str(), failIfExists, createDirs)) return false;
            continue;
        }
        if (!CreateDirectory(to.c_str(), true)) return false;
        if (createDirs && !copyDirectory(from.c_str(), to.c_str(), false, true)) return false;
    }
    if (listing == Listing::FAILED) PZ_REPORT_LAST_ERROR_ON(PATH, src);
    return listing == Listing::END;
} catch (const std::bad_alloc&) {
    PZ_REPORT_ERROR_ON(PATH, src, "failed to allocate memory\n");
    return false;
}

bool PZFileSys::Move(const char* src, const char* dst) {
    return Move(src, dst, Links::FOLLOWED);
}

bool PZFileSys::Move(const char* src, const char* dst, Links links) {
    if (is_empty(src) || is_empty(dst)) return false;
    if (IsExist(dst)) {
        PZ_REPORT_ERROR("[%s] is already exist.\n", dst);
        return false;
    }
    bool refused = false;
    if (!Copy(src, dst, true, true, refused, links)) {
        PZ_REPORT_ERRNO("dst [%s]\n", dst);
        if (!refused) RemoveDirectory(dst, true);
        return false;
    }
    const Removal removal = removeTree(src, links);
    if (removal == Removal::FAILED || (removal == Removal::NOT_OPENED && is_shortage(errno))) {
        PZ_REPORT_ERRNO("src [%s]\n", src);
        return false;
    }
    pz_sync();  // as every removal
    pz_sync();  // as every move
    return true;
}

bool PZFileSys::Move(const wchar_t* src, const wchar_t* dst) {
    return with_utf8(src, dst, [](const char* narrowSrc, const char* narrowDst) {
        return Move(narrowSrc, narrowDst);
    });
}
