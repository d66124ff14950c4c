#ifndef SCAN_CATALOGUEFILE_H
#define SCAN_CATALOGUEFILE_H

#include <map>
#include <string>

#include "Catalogue.h"

/// The catalogue of an earlier scan, kept in a file so that the next one can tell what changed.
///
/// The file: an archive with the number of records and for each of them path, size, checksum,
/// code page and title; behind it the CRC-32 of the archive, most significant byte first.
class CatalogueFile {
public:
    explicit CatalogueFile(const std::string& path) : path_(path) {}

    /// Reads the catalogue of the scan before. False when there is none, or when the file is
    /// damaged; nothing is known then.
    bool Load();

    /// Prints one line for every file that is new, changed or gone, and how many there are.
    void PrintChanges(const Catalogue& catalogue) const;

    /// Replaces the file. False when it cannot be written; the old one is still there then.
    bool Save(const Catalogue& catalogue) const;

private:
    std::string path_;
    std::map<std::string, FileRecord> before_;  // by path
};

#endif  // SCAN_CATALOGUEFILE_H
