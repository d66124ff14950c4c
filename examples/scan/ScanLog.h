#ifndef SCAN_SCANLOG_H
#define SCAN_SCANLOG_H

#include <string>

#include <Framework/Foundation/PZSync.h>
#include <Framework/Utility/PZLSysFileOut.h>

/// The log of the scan: one line for everything it does, each with the time in UTC.
///
/// Threads: any thread may write.
class ScanLog {
public:
    /// Logs into `folder`, which is made when it is missing.
    explicit ScanLog(const std::string& folder);
    ~ScanLog();

    ScanLog(const ScanLog&) = delete;
    ScanLog& operator=(const ScanLog&) = delete;

    /// False when the file cannot be opened: the scan goes on without a log.
    bool IsOpen() const { return isOpen_; }

    const std::string& Path() const { return path_; }

    /// Writes one line; `text` has no line feed.
    void Write(const std::string& text);

private:
    PZSync sync_;  // guards the file
    PZLSysFileOut file_;
    std::string path_;
    bool isOpen_;
};

#endif  // SCAN_SCANLOG_H
