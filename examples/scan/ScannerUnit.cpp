#include "ScannerUnit.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <Framework/Foundation/PZFileSys.h>
#include <Framework/Foundation/PZStorage.h>

ScannerUnit::ScannerUnit(std::vector<std::string> folders, Catalogue& catalogue, ReaderUnit& reader,
                         ScanLog& log)
    : folders_(std::move(folders)), catalogue_(catalogue), reader_(reader), log_(log) {
    std::reverse(folders_.begin(), folders_.end());
}

void ScannerUnit::OnReceiveMsg(unsigned int MsgID, const void*, unsigned int) {
    if (MsgID == en_MSG_STOP) done_ = true;
    if (done_) return;
    if (folders_.empty()) {
        done_ = true;
        catalogue_.Close();
        reader_.LookForFiles();
        return;
    }
    const std::string folder = folders_.back();
    folders_.pop_back();
    ScanFolder(folder);
    reader_.LookForFiles();
    Begin();
}

void ScannerUnit::OnReceiveEvent(unsigned int) {}

void ScannerUnit::ScanFolder(const std::string& folder) {
    log_.Write("folder " + folder);
    if (::access(folder.c_str(), R_OK) != 0) {
        const int error = errno;
        Report(folder + ": cannot be read: " + std::strerror(error));
        return;
    }
    if (PZFileSys::chkAttribute(folder.c_str()) == PZFileSys::en_ATTR_FILE) {
        catalogue_.Add(folder, static_cast<unsigned long long>(PZStorage::GetSize(folder.c_str())));
        return;
    }
    PZFileSys::FuncOption option = {true};
    PZFileSys search(option);
    PZFileSys::ST_FIND_DATA entry = {};
    unsigned int others = 0;
    std::vector<std::string> below;
    for (bool found = search.FindFirst(folder.c_str(), entry); found;
         found = search.FindNext(entry)) {
        const std::string path = folder + "/" + entry.name;
        if ((entry.attribute & PZFileSys::en_ATTR_DIRECTORY) != 0) {
            below.push_back(path);
        } else if ((entry.attribute & PZFileSys::en_ATTR_FILE) != 0) {
            catalogue_.Add(path, entry.size);
        } else {
            ++others;  // a search gives such entries no name
        }
    }
    if (others > 0) {
        Report(folder + ": " + std::to_string(others) + " links or devices passed over");
    }
    std::sort(below.rbegin(), below.rend());
    folders_.insert(folders_.end(), below.begin(), below.end());
}

void ScannerUnit::Report(const std::string& line) {
    log_.Write(line);
    catalogue_.AddProblem(line);
}
