#ifndef PZ_FRAMEWORK_PRIVATE_PZ_DIRECTORY_H
#define PZ_FRAMEWORK_PRIVATE_PZ_DIRECTORY_H

#include <dirent.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

#include <Framework/private/pz_descriptor.h>

/// Lists an open directory, as readdir does, but without a lock for every entry: used by one thread
/// at a time. Owns the descriptor. Silent: its user reports.
class PZDirectory {
public:
    /// A listing from the directory's position on. Its descriptor is moved above 2 (see
    /// pz_above_standard), because it may stay open for long. Null with errno set when that fails,
    /// when there is no memory, or when the directory is not open.
    static std::unique_ptr<PZDirectory> Over(PZDescriptor directory) noexcept {
        if (!directory.MoveAboveStandard()) return nullptr;
        return std::unique_ptr<PZDirectory>(new (std::nothrow) PZDirectory(std::move(directory)));
    }

    PZDirectory(const PZDirectory&) = delete;
    PZDirectory& operator=(const PZDirectory&) = delete;

    int Get() const noexcept { return directory_.Get(); }

    /// The next entry but "." and "..", until the next call. Null at the end, which may be asked
    /// for again, and, with errno set, when the listing has failed.
    const dirent64* Read() noexcept {
        while (next_ < end_ || Fill()) {
            const auto* const entry = reinterpret_cast<const dirent64*>(entries_ + next_);
            next_ += entry->d_reclen;
            const bool isDeleted = entry->d_ino == 0;
            if (!isDeleted && !IsDotOrDotDot(NameOf(entry))) return entry;
        }
        return nullptr;
    }

    /// Whether the last Read has answered null because of an error.
    bool HasFailed() const noexcept { return hasFailed_; }

    /// The name, which may be longer than the field that is declared for it.
    static const char* NameOf(const dirent64* entry) noexcept {
        return reinterpret_cast<const char*>(entry) + offsetof(dirent64, d_name);
    }

    // From the C library, like its own listings; without memory it leaves ENOMEM in errno.
    static void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
        return std::malloc(size);
    }
    // NOLINTNEXTLINE(misc-new-delete-overloads): there is no way to make one that throws
    static void operator delete(void* memory) noexcept { std::free(memory); }

private:
    static constexpr std::size_t kSize = 32768;  // as much as the C library asks for at once

    // The entries are written before they are read.
    // cppcheck-suppress uninitMemberVarPrivate
    explicit PZDirectory(PZDescriptor directory) noexcept : directory_(std::move(directory)) {}

    static bool IsDotOrDotDot(const char* name) noexcept {
        if (name[0] != '.') return false;
        return name[1] == '\0' || (name[1] == '.' && name[2] == '\0');
    }

    /// False at the end and after a failure. A directory that is removed meanwhile has come to its
    /// end, too (ENOENT).
    bool Fill() noexcept {
        const int error = errno;
        const ssize_t got = ::getdents64(directory_.Get(), entries_, sizeof entries_);
        next_ = 0;
        end_ = got > 0 ? static_cast<std::size_t>(got) : 0;
        hasFailed_ = got < 0 && errno != ENOENT;
        if (!hasFailed_) errno = error;
        return got > 0;
    }

    PZDescriptor directory_;
    std::size_t next_ = 0;  // of the entries that were read
    std::size_t end_ = 0;
    bool hasFailed_ = false;
    alignas(dirent64) unsigned char entries_[kSize];
};

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_DIRECTORY_H
