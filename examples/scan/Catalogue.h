#ifndef SCAN_CATALOGUE_H
#define SCAN_CATALOGUE_H

#include <deque>
#include <string>

#include <Framework/Foundation/PZSync.h>

#include "FileRecord.h"

/// The files of the scan, in the order in which they were found, and what went wrong beside them.
///
/// Threads: any thread may add; a record is written by the unit that has the file in hand, and
///          handed on with the message. Read the whole when the workers have ended.
class Catalogue {
public:
    /// Adds a file and answers its index. Records never move.
    unsigned int Add(const std::string& path, unsigned long long size);

    FileRecord& At(unsigned int index);
    unsigned int Count() const;

    /// A line about something that is not in the catalogue: a folder, a link.
    void AddProblem(const std::string& line);

    /// No file will be added any more.
    void Close();
    bool IsClosed() const;

    // For the time after the scan.

    const std::deque<FileRecord>& Records() const { return records_; }
    const std::deque<std::string>& Problems() const { return problems_; }

private:
    mutable PZSync sync_;  // guards the lists and the flag, not what stands in a record
    std::deque<FileRecord> records_;
    std::deque<std::string> problems_;
    bool closed_ = false;
};

#endif  // SCAN_CATALOGUE_H
