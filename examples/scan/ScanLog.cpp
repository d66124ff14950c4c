#include "ScanLog.h"

#include <cstdio>

#include <Framework/Foundation/PZClock.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/Utility/PZString.h>

namespace {

constexpr unsigned int kMaxBytes = 1024 * 1024;
constexpr int kGenerations = 3;

std::wstring wide(const std::string& path) {
    PZString text(path);
    const wchar_t* const wideText = text.ToWCHAR();
    return wideText != nullptr ? wideText : L"";
}

std::string now() {
    PZClock::ST_CLOCK clock = {};
    if (!PZClock::GetUtc(&clock)) return "";
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02u-%02u %02u:%02u:%02u ", clock.year, clock.month,
                  clock.day, clock.hour, clock.minute, clock.second);
    return text;
}

}  // namespace

ScanLog::ScanLog(const std::string& folder)
    : file_(wide(folder).c_str(), L"scan", L"log", false, kMaxBytes, kGenerations),
      path_(folder + "/scan_0.log"),
      isOpen_(file_.Open()) {}

ScanLog::~ScanLog() {
    file_.Close();
}

void ScanLog::Write(const std::string& text) {
    const std::string line = now() + text + "\n";
    const PZSyncLock lock(sync_);
    file_.Write(line.data(), static_cast<unsigned int>(line.size()));
}
