#ifndef PZ_FRAMEWORK_UTILITY_PZLSYSFILEOUT_H
#define PZ_FRAMEWORK_UTILITY_PZLSYSFILEOUT_H

#include <cstdio>

#include <Framework/PZApi.h>

/// Writes a log, or any bytes, to a file, and keeps a bounded family of such files.
///
/// The number of files chooses their names; directory "/log", name "app" and extension "txt" give
/// -  0: "/log/app.txt", the only file
/// -  N: "/log/app_0.txt", with up to N older generations "/log/app_1.txt" ... "/log/app_N.txt"
/// - -1: "/log/app240305_0708.txt", a file for each minute (UTC) in which Open was called; old ones
///       are never deleted
///
/// Without a maximum size every Open begins an empty file; with one it appends. Where generations
/// are kept, Open (without a maximum size) or a Write that reaches the maximum shifts them:
/// generation N is deleted, then each generation, the oldest first, is copied to the next number.
/// An existing generation is not overwritten, and only the last is removed: after the first shifts
/// the younger ones no longer change. Each step that fails is reported.
///
/// Threads:    one object is used by one thread at a time.
/// Ownership:  nothing that is passed in is kept. The destructor does not close the file: call
///             Close. Programs that this process starts do not inherit the file.
/// Units:      bytes.
/// Durability: Flush and Close write all file systems to their disks (sync), which takes long, and
///             so do the copies and deletions of a shift. Opening again, and a Write that does,
///             only hand the buffered data of the old file over to the system. Data in between are
///             buffered.
/// Links:      a log's file that is a symbolic link is not opened, and a shift copies neither from
///             nor to one: other users may be able to put links into the folder. The folder may be
///             a link.
/// Failures:   answered by Open and Write; file-system operations report theirs. Without memory a
///             step of a shift fails like any other, and the log is still opened.
class PZ_API PZLSysFileOut {
public:
    /// Answer of GetSize for a file that cannot be opened.
    static constexpr unsigned int kNoSize = 0xFFFFFFFF;

    /// Makes the directory and every missing one above it; when that fails, Open will.
    ///
    /// `directory` counts up to 256 characters, `name` up to 24, `extension` (without the dot) up
    /// to 4; null counts as empty. A '/' is always added to the directory, also to one that ends in
    /// it. The path in UTF-8 must not be longer than 255 bytes.
    /// `maxSize` 0 means no maximum; `fileCount` as above. Other negative counts have no file name.
    PZLSysFileOut(const wchar_t* directory, const wchar_t* name, const wchar_t* extension,
                  bool binary, unsigned int maxSize, int fileCount);

    PZLSysFileOut(const PZLSysFileOut&) = delete;
    PZLSysFileOut& operator=(const PZLSysFileOut&) = delete;

    /// Flushes and closes an open file, shifts the generations if that is due, and opens the file.
    /// False when it cannot be opened.
    bool Open();

    /// Writes a block. 0 without an open file, and for null with a length; 1 otherwise, even when
    /// the block could not be written: a full disk must not stop the caller.
    ///
    /// Reopens the file, shifting the generations, when the block and the size counter together
    /// reach the maximum. The counter is the size that the file had when this object was made, and
    /// 0 after a shift. Writes do not advance it: blocks below the maximum never shift an empty
    /// file.
    int Write(const void* data, unsigned int length);

    /// The same as Write.
    int SWrite(const void* data, unsigned int length);

    /// Writes formatted text, cut to 279 bytes. 0 for null and for a format that fails; else as
    /// Write.
    int FWrite(const char* format, ...) PZ_PRINTF_FORMAT(2, 3);

    /// Hands the buffered data over and syncs. Nothing happens without an open file.
    void Flush();

    /// Flushes, then closes the file. Nothing happens without an open file.
    void Close();

    /// Low 32 bits of the size of a file; kNoSize for null, and when it cannot be opened. Waits for
    /// a writer when the file is a fifo without one.
    static unsigned int GetSize(const wchar_t* path);

private:
    friend struct PZHeapReport;  // puts a second file beside its own

    /// Holds every path of a log. It has a fixed size: no path needs memory in the middle of a
    /// shift.
    struct Path {
        wchar_t text[352];  // the directory's 256, the name's 24, a tail, the extension's 4
    };

    PZ_LOCAL Path PathWith(const wchar_t* tail) const;
    PZ_LOCAL Path GenerationPath(int generation) const;
    PZ_LOCAL void SetPath(const wchar_t* path);
    PZ_LOCAL void RefreshFilePath();
    PZ_LOCAL bool CheckMaxFileNum(wchar_t* oldest) const;
    PZ_LOCAL bool OpenAct();
    PZ_LOCAL void CloseAct();
    PZ_LOCAL void BackupAct();

    // A text that fills its field has no terminator.
    wchar_t directory_[256];  // ends in '/'
    wchar_t name_[24];
    wchar_t extension_[4];
    bool isBinary_;
    int fileCount_;
    unsigned int maxSize_;      // 0: none
    std::FILE* stream_;         // null: not open
    wchar_t path_[256];         // of the file that is or will be open
    unsigned int sizeCounter_;  // bytes assumed to be in it
};

#endif  // PZ_FRAMEWORK_UTILITY_PZLSYSFILEOUT_H
