#include "Framework/Foundation/PZFileSys.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include <Framework/Diagnostics/PZCallStack.h>
#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Diagnostics/pz_last_error.h>
#include <Framework/Utility/PZString.h>
#include <Framework/Wrapper/pz_stdlib.h>

static_assert(sizeof(off_t) == 8, "files of more than 2 GiB");

namespace {

constexpr size_t kNameSize = sizeof(PZFileSys::ST_FIND_DATA::name);
constexpr size_t kRemovePathSize = 512;  // of an entry that a recursive removal reaches
constexpr size_t kCopyChunk = 1024;
constexpr int kRefusalFrames = 10;

struct DirCloser {
    void operator()(DIR* dir) const { ::closedir(dir); }
};
using DirHolder = std::unique_ptr<DIR, DirCloser>;

struct StreamCloser {
    void operator()(FILE* stream) const { std::fclose(stream); }
};
using StreamHolder = std::unique_ptr<FILE, StreamCloser>;

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

bool is_dot_or_dotdot(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

std::string join(const char* directory, const char* name) {
    return std::string(directory) + "/" + name;
}

/// The name, which may be longer than the field that is declared for it.
const char* name_of(const dirent64* entry) {
    return reinterpret_cast<const char*>(entry) + offsetof(dirent64, d_name);
}

/// For file systems that do not tell: DT_REG, DT_DIR, or DT_UNKNOWN for everything else.
unsigned char type_by_status(const std::string& path) {
    struct stat status = {};
    if (::lstat(path.c_str(), &status) != 0) return DT_UNKNOWN;
    if (S_ISREG(status.st_mode)) return DT_REG;
    return S_ISDIR(status.st_mode) ? DT_DIR : DT_UNKNOWN;
}

void copy_name(const char* name, PZFileSys::ST_FIND_DATA& data) {
    std::memcpy(data.name, name, std::strlen(name) + 1);
}

/// The directory itself, never what a link in its place leads to.
DirHolder open_below(DIR* parent, const char* name) {
    const int fd = ::openat(::dirfd(parent), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd == -1) return nullptr;
    DirHolder dir(::fdopendir(fd));
    if (dir == nullptr) ::close(fd);
    return dir;
}

void create_parents(const char* path) {
    const char* const slash = std::strrchr(path, '/');
    if (slash == nullptr) return;
    // What cannot be created shows when the file is opened.
    PZFileSys::CreateDirectory(std::string(path, slash).c_str(), true);
}

}  // namespace

constexpr void PZFileSys::check_layout() {
    static_assert(offsetof(DiskInfo, availableBytes) == 0);
    static_assert(offsetof(DiskInfo, totalBytes) == 8);
    static_assert(offsetof(DiskInfo, freeBytes) == 16);
    static_assert(offsetof(ST_FIND_DATA, attribute) == 0);
    static_assert(offsetof(ST_FIND_DATA, name) == offsetof(ST_FIND_DATA, size) + 8);
#if __SIZEOF_POINTER__ == 4
    static_assert(sizeof(PZFileSys) == 2056);
#endif
}

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
            PZ_REPORT_ERROR("error[%d: %s]\n", pz_get_last_err(), pz_get_last_err_string());
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
        PZCallStack::dumpDirectly(kRefusalFrames);
        return false;
    }
    if (::unlink(path) != 0) {
        PZ_REPORT_ERROR("error(%d : %s)\n", pz_get_last_err(), pz_get_last_err_string());
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
    if (recursive && !removeSubDir(path)) {
        // A success on purpose: callers remove files and missing directories this way, too.
        pz_sync();
        return true;
    }
    if (::rmdir(path) != 0) return false;
    pz_sync();
    return true;
}

bool PZFileSys::RemoveDirectory(const wchar_t* path, bool recursive) {
    return with_utf8(path, [&](const char* narrow) { return RemoveDirectory(narrow, recursive); });
}

bool PZFileSys::removeSubDir(const char* path) {
    if (is_empty(path)) return false;
    const DirHolder dir(::opendir(path));
    if (dir == nullptr) return false;
    std::string walked(path);
    return removeSubDir(dir.get(), walked);
}

/// `path` is that of `dir`; it changes during the walk and comes back as it was, unless the walk
/// ends early. Entries are reached through their open directory, so that nobody can lead the walk
/// out of the tree by exchanging a directory for a link.
bool PZFileSys::removeSubDir(DIR* dir, std::string& path) {
    const size_t length = path.size();
    while (const dirent64* entry = ::readdir64(dir)) {
        const char* const name = name_of(entry);
        if (is_dot_or_dotdot(name)) continue;
        if (length + 1 + std::strlen(name) >= kRemovePathSize) {
            PZ_REPORT_ERROR("too long path [%s/%s]\n", path.c_str(), name);
            return true;
        }
        struct stat status = {};
        if (::fstatat(::dirfd(dir), name, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
        const bool isDirectory = S_ISDIR(status.st_mode);
        if (isDirectory) {
            const DirHolder below = open_below(dir, name);
            if (below == nullptr) return false;
            path.append("/").append(name);
            if (!removeSubDir(below.get(), path)) return false;
            path.resize(length);
        }
        if (::unlinkat(::dirfd(dir), name, isDirectory ? AT_REMOVEDIR : 0) != 0) return true;
    }
    return true;
}

// ---- creating ----

bool PZFileSys::CreateDirectory(const char* path, bool layers) {
    if (is_empty(path)) return false;
    if (layers) {
        const char* slash = std::strchr(path + 1, '/');
        for (; slash != nullptr; slash = std::strchr(slash + 1, '/')) {
            if (!createDirectorySub(std::string(path, slash).c_str())) return false;
        }
    }
    return createDirectorySub(path);
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
    if (is_empty(path)) {
        PZ_REPORT_ERROR("invalid arg\n");
        return false;
    }
    if (::mkdir(path, 0777) == 0) {
        pz_sync();
        return true;
    }
    if (errno == EEXIST) {
        if (chkAttribute(path) == en_ATTR_DIRECTORY) return true;
        errno = EEXIST;  // the reason, whatever the question has left
    }
    PZ_REPORT_LAST_ERROR();
    return false;
}

// ---- searching ----

bool PZFileSys::FindFirst(const char* path, ST_FIND_DATA& data) {
    doFindClose();
    if (path == nullptr) return false;
    const size_t length = ::strnlen(path, sizeof searchPath_);
    if (length >= sizeof searchPath_) return false;

    const char* const star = std::strchr(path, '*');
    if (star != nullptr) {
        const std::string_view before(path, static_cast<size_t>(star - path));
        const size_t slash = before.rfind('/');
        if (slash == std::string_view::npos) return false;  // names no directory
        dir_ = ::opendir(std::string(path, slash).c_str());
        if (dir_ == nullptr) return false;
        std::memcpy(pattern_, path + slash + 1, length - slash);  // terminator included
    } else {
        chkAttribute(path);  // for its report
        dir_ = ::opendir(path);
        if (dir_ == nullptr) return false;
    }
    hasPattern_ = star != nullptr;
    std::memcpy(searchPath_, path, length + 1);

    if (FindNext(data)) return true;
    doFindClose();
    return false;
}

bool PZFileSys::FindFirst(const wchar_t* path, ST_FIND_DATA& data) {
    return with_utf8(path, [&](const char* narrow) { return FindFirst(narrow, data); });
}

bool PZFileSys::FindNext(ST_FIND_DATA& data) {
    if (dir_ == nullptr) return false;
    while (const dirent64* entry = ::readdir64(dir_)) {
        const char* const name = name_of(entry);
        if (is_dot_or_dotdot(name)) continue;
        data.attribute = 0;
        data.size = 0;
        data.name[0] = '\0';
        if (::strnlen(name, kNameSize) == kNameSize) {
            doFindClose();
            return false;
        }
        if (hasPattern_ && strcmp_wild(pattern_, name) != 0) continue;
        find_next_sub(entry, data);
        return true;
    }
    return false;
}

void PZFileSys::find_next_sub(const dirent64* entry, ST_FIND_DATA& data) const {
    const char* const name = name_of(entry);
    const auto length = static_cast<unsigned int>(std::strlen(name));
    unsigned char type = entry->d_type;
    if (type == DT_UNKNOWN) type = type_by_status(PathOf(entry));

    if (type == DT_DIR) {
        data.attribute = en_ATTR_DIRECTORY;
        if (is_hidden_folder(name, length)) data.attribute |= en_ATTR_HIDDEN;
        copy_name(name, data);
        return;
    }
    if (type != DT_REG) {
        PZ_REPORT_ERROR("error d_type[%d][%s]\n", entry->d_type, name);
        return;
    }
    if (getSize_) {
        const std::string path = PathOf(entry);
        struct stat status = {};
        if (::stat(path.c_str(), &status) == 0) {
            data.size = static_cast<std::uint64_t>(status.st_size);
        } else {
            PZ_REPORT_ERROR("%s\n", path.c_str());
            PZ_REPORT_LAST_ERROR();
        }
    }
    data.attribute = en_ATTR_FILE;
    if (is_hidden_file(name, length)) data.attribute |= en_ATTR_HIDDEN;
    copy_name(name, data);
}

/// The pattern of a search stays in it, so that such a path names nothing.
std::string PZFileSys::PathOf(const dirent64* entry) const {
    return join(searchPath_, name_of(entry));
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
    if (dir_ == nullptr) return;
    ::closedir(dir_);
    dir_ = nullptr;
}

bool PZFileSys::IsValidData(const ST_FIND_DATA& data, unsigned int filter, bool exact) {
    return exact ? data.attribute == filter : (data.attribute & filter) != 0;
}

/// Only the last '*' needs a second try: whatever an earlier one could take more, it can take.
int PZFileSys::strcmp_wild(const char* pattern, const char* name) {
    if (pattern == nullptr || name == nullptr) return 1;
    const char* afterStar = nullptr;  // the pattern behind the last '*' seen
    const char* taken = nullptr;      // the name behind what that '*' takes
    while (*name != '\0') {
        if (*pattern == '*') {
            afterStar = ++pattern;
            taken = name;
        } else if (*pattern == '?' || *pattern == *name) {
            ++pattern;
            ++name;
        } else if (afterStar != nullptr) {
            pattern = afterStar;
            name = ++taken;
        } else {
            return 1;
        }
    }
    while (*pattern == '*') ++pattern;
    return *pattern == '\0' ? 0 : 1;
}

bool PZFileSys::is_hidden_file(const char* name, unsigned int length) {
    if (is_hidden_folder(name, length)) return true;  // ".DS_Store" and "._" among them
    const std::string_view text(name, length);
    const size_t dot = text.rfind('.');
    return dot != std::string_view::npos && text.substr(dot + 1) == "CHK";
}

bool PZFileSys::is_hidden_folder(const char* name, unsigned int length) {
    return length > 0 && name[0] == '.';
}

// ---- copying and moving ----

bool PZFileSys::Copy(const char* src, const char* dst, bool failIfExists, bool createDirs) {
    if (is_empty(src) || is_empty(dst)) {
        PZ_REPORT_ERROR("invalid args\n");
        return false;
    }
    if (failIfExists && IsExist(dst)) {
        PZ_REPORT_ERROR("[%s] is already exist.\n", dst);
        return false;
    }
    if (chkAttribute(src) != en_ATTR_DIRECTORY) {
        return copyFile(src, dst, failIfExists, createDirs);
    }
    return CreateDirectory(dst, createDirs) && copyDirectory(src, dst, failIfExists, createDirs);
}

bool PZFileSys::Copy(const wchar_t* src, const wchar_t* dst, bool failIfExists, bool createDirs) {
    return with_utf8(src, dst, [&](const char* narrowSrc, const char* narrowDst) {
        return Copy(narrowSrc, narrowDst, failIfExists, createDirs);
    });
}

bool PZFileSys::copyFile(const char* src, const char* dst, bool failIfExists, bool createDirs) {
    if (failIfExists && IsExist(dst)) {
        PZ_REPORT_ERROR("already exist [%s]\n", dst);
        return false;
    }
    if (createDirs) create_parents(dst);

    const StreamHolder in(std::fopen(src, "rbe"));
    if (in == nullptr) {
        PZ_REPORT_ERROR("failed to open [%s]\n", src);
        PZ_REPORT_LAST_ERROR();
        return false;
    }
    StreamHolder out(std::fopen(dst, "wbe"));
    if (out == nullptr) {
        PZ_REPORT_ERROR("failed to open [%s]\n", dst);
        return false;
    }
    char chunk[kCopyChunk];
    while (std::feof(in.get()) == 0) {
        const size_t got = std::fread(chunk, 1, sizeof chunk, in.get());
        if (std::ferror(in.get()) != 0) {
            PZ_REPORT_ERROR("failed to read [%s]\n", src);
            return false;
        }
        if (std::fwrite(chunk, 1, got, out.get()) != got) {
            PZ_REPORT_ERROR("failed to write [%s]\n", dst);
            return false;
        }
    }
    if (std::fclose(out.release()) != 0) {  // writes what the stream still holds
        PZ_REPORT_ERROR("failed to write [%s]\n", dst);
        return false;
    }
    pz_sync();
    return true;
}

bool PZFileSys::copyDirectory(const char* src, const char* dst, bool failIfExists,
                              bool createDirs) {
    PZFileSys search;
    ST_FIND_DATA entry;
    for (bool found = search.FindFirst(src, entry); found; found = search.FindNext(entry)) {
        const std::string from = join(src, entry.name);
        const std::string to = join(dst, entry.name);
        if ((entry.attribute & en_ATTR_DIRECTORY) == 0) {
            if (!copyFile(from.c_str(), to.c_str(), failIfExists, createDirs)) return false;
            continue;
        }
        if (!CreateDirectory(to.c_str(), true)) return false;
        if (createDirs && !copyDirectory(from.c_str(), to.c_str(), false, true)) return false;
    }
    return true;
}

bool PZFileSys::Move(const char* src, const char* dst) {
    if (is_empty(src) || is_empty(dst)) return false;
    if (IsExist(dst)) {
        PZ_REPORT_ERROR("[%s] is already exist.\n", dst);
        return false;
    }
    if (!Copy(src, dst, true, true)) {
        PZ_REPORT_ERRNO("dst [%s]\n", dst);
        RemoveDirectory(dst, true);
        return false;
    }
    if (!RemoveDirectory(src, true)) {
        PZ_REPORT_ERRNO("src [%s]\n", src);
        return false;
    }
    pz_sync();
    return true;
}

bool PZFileSys::Move(const wchar_t* src, const wchar_t* dst) {
    return with_utf8(src, dst, [](const char* narrowSrc, const char* narrowDst) {
        return Move(narrowSrc, narrowDst);
    });
}
