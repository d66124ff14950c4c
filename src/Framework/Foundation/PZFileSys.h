#ifndef PZ_FRAMEWORK_FOUNDATION_PZFILESYS_H
#define PZ_FRAMEWORK_FOUNDATION_PZFILESYS_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include <Framework/PZApi.h>

struct dirent64;
class PZDirectory;

/// Files and directories: searching, asking, creating, copying, moving, deleting.
///
/// An object carries one search (FindFirst, FindNext); everything else is static. Narrow paths are
/// bytes, used as they are. Wide paths are converted to UTF-8; one that is null, empty or not
/// convertible fails. A null or empty path is not reported, unless the operation says so.
///
/// Threads:   an object is used by one thread at a time; the static operations by any thread.
/// Ownership: keeps nothing that is passed in. The destructor ends the search.
/// Units:     sizes in bytes, lengths in bytes without the terminator.
/// Failures:  reported as each operation says, and answered with false or 0; never thrown. What was
///            created, copied or removed before the failure stays that way. Memory is needed to
///            convert wide paths and to walk a directory that is copied; a lack of it is reported,
///            false.
/// Programs:  those that this process starts inherit no file or directory from here.
/// Cost:      "syncs" means sync(): all file systems are written to their disks, which takes long.
class PZ_API PZFileSys {
public:
    /// Bits of ST_FIND_DATA::attribute, of the filter of a search, and of chkAttribute.
    enum EN_ATTR : std::uint32_t {
        en_ATTR_DIRECTORY = 4,  ///< a directory
        en_ATTR_HIDDEN = 16,    ///< hidden by its name
        en_ATTR_FILE = 32       ///< a regular file
    };

    /// Options of a search.
    struct FuncOption {
        bool getSize;  ///< a search fills in the sizes of regular files
    };

    /// Space on a file system.
    struct DiskInfo {
        std::uint64_t availableBytes;  ///< free for users without privileges
        std::uint64_t totalBytes;      ///< of the whole file system
        std::uint64_t freeBytes;       ///< free for privileged users
    };

    /// One result of a search. A link, device, pipe or socket has attribute 0 and an empty name.
    struct ST_FIND_DATA {
        std::uint32_t attribute;  ///< EN_ATTR bits
        std::uint64_t size;       ///< of a regular file; 0 without FuncOption::getSize
        char name[256];           ///< without its directory, terminated
    };

    /// No search is open. Without an option searches find no sizes.
    /// @{
    PZFileSys();
    explicit PZFileSys(FuncOption& option);
    /// @}
    ~PZFileSys();

    PZFileSys(const PZFileSys&) = delete;
    PZFileSys& operator=(const PZFileSys&) = delete;

    // Questions.

    /// Space on the file system that holds `path`. A failed query is reported; only null is silent.
    /// @{
    static bool GetDiskFreeSpace(const char* path, DiskInfo& info);
    static bool GetDiskFreeSpace(const wchar_t* path, DiskInfo& info);
    /// @}

    /// en_ATTR_FILE or en_ATTR_DIRECTORY; 0 for everything else and for a missing path. Follows
    /// symbolic links. A failure is reported unless there is no such file (ENOENT).
    static unsigned int chkAttribute(const char* path);

    /// Whether `path` is a regular file or a directory.
    /// @{
    static bool IsExist(const char* path);
    static bool IsExist(const wchar_t* path);
    /// @}

    // Deleting.

    /// Deletes one regular file (or a symbolic link to one: the link), then syncs when `sync` is
    /// true. Anything else is refused: reported, with a call stack of 10 frames.
    /// @{
    static bool Delete(const char* path, bool sync);
    static bool Delete(const wchar_t* path, bool sync);
    /// @}

    /// Removes an empty directory, or with `recursive` one with all its contents, and syncs.
    ///
    /// With `recursive`:
    /// - When the directory, or one below it, cannot be opened, the result is true although the
    ///   directory is still there; it is also true for a file and for a path that does not exist.
    /// - Something that cannot be removed ends the removal with false; what came before it is gone.
    /// - An entry whose path takes 512 characters or more is skipped and not reported; the
    ///   directory is then not empty: false.
    /// - Links below the directory are removed, never followed, not even when one takes the place
    ///   of a directory meanwhile. `path` itself may lead through links: a link to a directory
    ///   loses the contents of that directory, then the result is false.
    /// @{
    static bool RemoveDirectory(const char* path, bool recursive);
    static bool RemoveDirectory(const wchar_t* path, bool recursive);
    /// @}

    // Creating. The mode is 0777 less the umask; every directory that is created is synced; one
    // that is there already is a success. Failures are reported.

    /// Creates a directory, with `layers` also every missing one above it. A null or empty path
    /// fails, reported if it is wide.
    /// @{
    static bool CreateDirectory(const char* path, bool layers);
    static bool CreateDirectory(const wchar_t* path, bool layers);
    /// @}

    /// CreateDirectory(path, true).
    /// @{
    static bool CreateDirectorySupportingLayers(const char* path);
    static bool CreateDirectorySupportingLayers(const wchar_t* path);
    /// @}

    // Searching one directory, in the order in which the file system lists it; without "." and
    // "..". At the end FindNext answers false and the search stays open.

    /// Ends the previous search, begins a new one, and finds the first entry. False when there is
    /// none; then no search is open. (A wide path that is refused leaves the previous search open.)
    ///
    /// A path with a '*' names a directory and, after the last '/' before that first '*', a
    /// pattern (see strcmp_wild). Without a '/' there, or when nothing stands before it, no
    /// directory is named: false. Any other path names the directory itself, even with a '?'.
    /// At most 1023 bytes.
    ///
    /// With a pattern, sizes are not found (reported, 0), nor are entries on a file system that
    /// does not tell their types (reported, attribute 0 and no name).
    /// @{
    bool FindFirst(const char* path, ST_FIND_DATA& data);
    bool FindFirst(const wchar_t* path, ST_FIND_DATA& data);
    /// @}

    /// Finds the next entry; false when there is none. An entry with a name of more than 255 bytes
    /// ends the search; so does a directory that cannot be read any further.
    bool FindNext(ST_FIND_DATA& data);

    /// The same, but skips the entries that the filter rejects (see IsValidData).
    /// @{
    bool FindFirstWithFilter(const char* path, ST_FIND_DATA& data, unsigned int filter, bool exact);
    bool FindFirstWithFilter(const wchar_t* path, ST_FIND_DATA& data, unsigned int filter,
                             bool exact);
    bool FindNextWithFilter(ST_FIND_DATA& data, unsigned int filter, bool exact);
    /// @}

    /// Ends the search. Nothing happens when none is open.
    void doFindClose();

    // Rules of the search.

    /// Whether an entry passes: `exact` asks for exactly the bits of `filter`, otherwise one common
    /// bit is enough.
    static bool IsValidData(const ST_FIND_DATA& data, unsigned int filter, bool exact);

    /// 0 when the whole of `name` matches `pattern`, else 1 (also for null). '*' stands for any
    /// run of bytes, also for none, '?' for exactly one byte, everything else for itself.
    ///
    /// Worst case: with a pattern of P bytes and a name of N at most (P + 1) * (N + 1) comparisons.
    static int strcmp_wild(const char* pattern, const char* name);

    /// Hidden files: names that begin with '.', and the extension "CHK". `name` has `length` bytes
    /// and must not be null.
    static bool is_hidden_file(const char* name, unsigned int length);

    /// Hidden directories: names that begin with '.'. Arguments as above.
    static bool is_hidden_folder(const char* name, unsigned int length);

    // Copying and moving.

    /// Copies a file, or a directory with its contents, and syncs after every file. The copy has
    /// the permissions of a new file.
    ///
    /// `failIfExists` refuses a destination that exists; otherwise a file is overwritten (copied
    /// onto itself it is emptied) and a directory is filled up. `createDirs` creates the missing
    /// directories above the destination; without it the directories right below a source
    /// directory are created but stay empty.
    ///
    /// A link, device, pipe or socket in a directory ends the copy with false. A directory that
    /// cannot be opened counts as empty; but a lack of descriptors or memory is a failure
    /// (reported), and so is a listing that cannot be read to its end. A file that is copied in
    /// part stays. The kernel copies what it can by itself; the rest goes in blocks of 1024 bytes.
    ///
    /// `failIfExists` also refuses a destination that appears while the copy begins, and leaves it
    /// as it is. Copying from or to a fifo without a peer, or a silent device, waits without limit.
    ///
    /// `dst` must not lie in the directory `src`: with `createDirs` the copy itself is copied again
    /// and again, until a path takes 1024 bytes.
    /// @{
    static bool Copy(const char* src, const char* dst, bool failIfExists, bool createDirs);
    static bool Copy(const wchar_t* src, const wchar_t* dst, bool failIfExists, bool createDirs);
    /// @}

    /// Copies to `dst`, which must not exist, then removes the source and syncs. Never renames.
    ///
    /// Only directories are removed, see RemoveDirectory: a single file is copied and stays, and
    /// the result is true. After a failed copy a directory is cleaned up, but a partial file stays.
    /// A destination that another program makes meanwhile is refused and not cleaned up. A source
    /// that cannot be removed for lack of descriptors or memory is a failure too. Waits for fifos
    /// and devices as Copy does.
    ///
    /// `dst` must not lie in the directory `src`: what is in `src` would be lost with the copy.
    /// @{
    static bool Move(const char* src, const char* dst);
    static bool Move(const wchar_t* src, const wchar_t* dst);
    /// @}

    // The steps of the operations above. Those of a copy take no null.

    /// One regular file; the missing directories above `dst` with `createDirs`.
    static bool copyFile(const char* src, const char* dst, bool failIfExists, bool createDirs);

    /// The contents of one directory, into one that exists. Below it everything is overwritten.
    static bool copyDirectory(const char* src, const char* dst, bool failIfExists, bool createDirs);

    /// Removes the contents of a directory. False only for null and empty, and when it, or one
    /// below it, cannot be opened; true also when something could not be removed.
    static bool removeSubDir(const char* path);

    /// One directory. Null and empty are also reported.
    static bool createDirectorySub(const char* path);

private:
    enum class Listing { ENTRY, END, FAILED };
    enum class Removal { REMOVED, NOT_OPENED, FAILED };

    /// What becomes of a link in the place of a source or destination.
    enum class Links { FOLLOWED, REFUSED };

    friend class PZLSysFileOut;  // whose files are not to be led away by a link
    PZ_LOCAL static bool Move(const char* src, const char* dst, Links links);

    /// Path of an entry that a search has found.
    struct EntryPath {
        char text[1024 + 256];
    };

    PZ_LOCAL bool OpenDirectory(const char* path);
    PZ_LOCAL bool OpenPattern(const char* path);
    PZ_LOCAL Listing ReadEntry(ST_FIND_DATA& data);
    PZ_LOCAL void find_next_sub(const dirent64* entry, std::string_view name,
                                ST_FIND_DATA& data) const;
    PZ_LOCAL EntryPath PathOf(std::string_view name) const;

    PZ_LOCAL static bool CreateDirectory(const char* path, bool layers, bool& created);
    PZ_LOCAL static bool createLayers(const char* path, std::size_t length, bool& created);
    PZ_LOCAL static bool createLayer(const char* path, bool& created);
    PZ_LOCAL static bool createDirectorySub(const char* path, bool& created);
    PZ_LOCAL static void createParents(const char* path);

    PZ_LOCAL static bool Copy(const char* src, const char* dst, bool failIfExists, bool createDirs,
                              bool& refused, Links links = Links::FOLLOWED);
    PZ_LOCAL static bool copyFile(const char* src, const char* dst, bool failIfExists,
                                  bool createDirs, bool& refused, Links links = Links::FOLLOWED);

    PZ_LOCAL static Removal removeTree(const char* path, Links links = Links::FOLLOWED);
    PZ_LOCAL static bool removeSubDir(PZDirectory& dir, std::size_t length);

    PZDirectory* dir_ = nullptr;  // null while no search is open
    bool hasPattern_ = false;
    char searchPath_[1024] = {};  // as given to FindFirst, pattern included
    char pattern_[1024] = {};
    bool getSize_ = false;
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZFILESYS_H
