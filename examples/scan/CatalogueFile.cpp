#include "CatalogueFile.h"

#include <cstdio>
#include <set>

#include <Framework/Foundation/PZStorage.h>
#include <Framework/Pattern/PZSerializable.h>
#include <Framework/Utility/PZBinary.h>
#include <Framework/Utility/PZCRC.h>

#include "FirstLine.h"

namespace {

constexpr unsigned int kFormat = 0x505A5331;  // "PZS1"
constexpr unsigned int kCrcSize = 4;

unsigned int crc_of(const unsigned char* data, unsigned int size) {
    return static_cast<unsigned int>(PZCRC().getMemCRC32(0xFFFFFFFF, data, size));
}

/// The whole file; empty when it cannot be read.
PZBinary contents_of(const std::string& path) {
    PZStorage file(path.c_str(), "rb");
    PZBinary bytes(static_cast<unsigned int>(file.GetSize()));
    if (file.Read(bytes.getBuffer(), bytes.getSize()) != bytes.getSize()) bytes.clear();
    return bytes;
}

void write_record(PZSerialization::Archive& archive, const FileRecord& record) {
    archive.write(record.path);
    archive.write(record.size);
    archive.write(record.hasCrc);
    archive.write(record.crc);
    archive.write(static_cast<int>(record.page));
    archive.write(record.title);
}

FileRecord read_record(PZSerialization::Archive& archive) {
    FileRecord record;
    int page = XCP_NONE;
    archive.read(record.path);
    archive.read(record.size);
    archive.read(record.hasCrc);
    archive.read(record.crc);
    archive.read(page);
    archive.read(record.title);
    record.page = static_cast<EN_XCP>(page);
    return record;
}

bool is_same(const FileRecord& a, const FileRecord& b) {
    return a.size == b.size && a.hasCrc == b.hasCrc && a.crc == b.crc;
}

void print_change(const char* what, const std::string& path) {
    std::printf("  %-8s %s\n", what, printable(path).c_str());
}

}  // namespace

bool CatalogueFile::Load() {
    before_.clear();
    if (PZStorage::GetSize(path_.c_str()) == 0) return false;
    const PZBinary bytes = contents_of(path_);
    if (bytes.getSize() <= kCrcSize) return false;
    const unsigned int size = bytes.getSize() - kCrcSize;
    if (bytes.getUInt32(size, true) != crc_of(bytes.getBuffer(), size)) return false;

    PZSerialization::Archive archive(size);
    archive.write(bytes.getBuffer(), size);
    unsigned int format = 0;
    unsigned int count = 0;
    archive.read(format);
    archive.read(count);
    if (format != kFormat) return false;
    for (unsigned int i = 0; i < count; ++i) {
        const FileRecord record = read_record(archive);
        before_[record.path] = record;
    }
    return true;
}

void CatalogueFile::PrintChanges(const Catalogue& catalogue) const {
    unsigned int added = 0;
    unsigned int changed = 0;
    unsigned int gone = 0;
    std::set<std::string> present;
    for (const FileRecord& record : catalogue.Records()) {
        present.insert(record.path);
        const auto old = before_.find(record.path);
        if (old == before_.end()) {
            print_change("new", record.path);
            ++added;
        } else if (!is_same(old->second, record)) {
            print_change("changed", record.path);
            ++changed;
        }
    }
    for (const auto& [path, record] : before_) {
        if (present.count(path) != 0) continue;
        print_change("gone", path);
        ++gone;
    }
    std::printf("since the last scan: %u new, %u changed, %u gone\n", added, changed, gone);
}

// Written beside the old file and renamed over it: a loss of power meanwhile still leaves one of
// the two.
bool CatalogueFile::Save(const Catalogue& catalogue) const {
    PZSerialization::Archive archive;
    archive.write(kFormat);
    archive.write(static_cast<unsigned int>(catalogue.Records().size()));
    for (const FileRecord& record : catalogue.Records()) write_record(archive, record);
    archive.write(crc_of(archive.getBuff(), archive.getSize()));

    const std::string fresh = path_ + ".new";
    PZStorage file(fresh.c_str(), "wb");
    const bool isWritten =
        file.Write(archive.getBuff(), archive.getSize()) == archive.getSize() && file.Flush() == 0;
    file.Close();
    return isWritten && std::rename(fresh.c_str(), path_.c_str()) == 0;
}
