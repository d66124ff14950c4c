#include "Catalogue.h"

#include <Framework/Foundation/PZSyncLock.h>

unsigned int Catalogue::Add(const std::string& path, unsigned long long size) {
    const PZSyncLock lock(sync_);
    records_.emplace_back();
    records_.back().path = path;
    records_.back().size = size;
    return static_cast<unsigned int>(records_.size() - 1);
}

FileRecord& Catalogue::At(unsigned int index) {
    const PZSyncLock lock(sync_);
    return records_[index];
}

unsigned int Catalogue::Count() const {
    const PZSyncLock lock(sync_);
    return static_cast<unsigned int>(records_.size());
}

void Catalogue::AddProblem(const std::string& line) {
    const PZSyncLock lock(sync_);
    problems_.push_back(line);
}

void Catalogue::Close() {
    const PZSyncLock lock(sync_);
    closed_ = true;
}

bool Catalogue::IsClosed() const {
    const PZSyncLock lock(sync_);
    return closed_;
}
