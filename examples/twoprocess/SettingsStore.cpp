#include "SettingsStore.h"

#include <cstring>
#include <utility>

#include <Framework/Diagnostics/PZDbgOutput.h>
#include <Framework/Wrapper/pz_stdlib.h>

namespace {

constexpr char kFileName[] = "settings";

// Changing the file takes a few milliseconds. Who holds the mutex for two seconds is dead.
constexpr unsigned int kTries = 20;
constexpr unsigned int kPauseMs = 100;

/// False for the guard's line about a mutex that is held: who finds it so tries again.
bool is_worth_a_line(const PZDbgOutput::ST_RECORD& record, void* /*user*/) {
    return std::strcmp(record.function, "tryLock") != 0 ||
           std::strcmp(record.message, "error") != 0;
}

}  // namespace

SettingsStore::SettingsStore(std::string dir, EN_SIDE side)
    : dir_(std::move(dir)),
      side_(side),
      path_(dir_ + "/" + kFileName),
      draft_(path_ + (side == en_SIDE_TUNER ? ".tuner" : ".display")) {
    PZDbgOutput::SetSink(&is_worth_a_line, nullptr);
}

bool SettingsStore::Open() {
    guard_ = std::make_unique<PZFileGuard>(dir_, kFileName);
    return guard_->initForSystem();
}

void SettingsStore::Close() {
    // The mutex cannot be removed while the display holds it. The display will not take it again
    // when the settings say that the tuner is off.
    for (unsigned int i = 0; i < kTries && !guard_->destroyMutex(); ++i) {
        pz_msleep(kPauseMs);
        guard_->initForSystem();
    }
    guard_.reset();
}

SettingsStore::EN_RESULT SettingsStore::Change(const std::function<void(Settings&)>& change) {
    if (!Attach() || !Lock()) return side_ == en_SIDE_TUNER ? en_UNWRITABLE : en_NOT_NOW;
    const EN_RESULT result = ChangeLocked(change);
    guard_->unlock();
    return result;
}

// The display must not attach without a tuner: it would make segments that nobody removes.
bool SettingsStore::Attach() {
    if (side_ == en_SIDE_TUNER) return true;
    if (Read().tunerIsOn == 0) return false;
    if (guard_ != nullptr && guard_->canLock()) return true;
    guard_ = std::make_unique<PZFileGuard>(dir_, kFileName);
    return guard_->initForApp() && guard_->canLock();
}

bool SettingsStore::Lock() {
    for (unsigned int i = 0; i < kTries; ++i) {
        if (guard_->tryLock()) return true;
        pz_msleep(kPauseMs);
    }
    if (side_ != en_SIDE_TUNER) return false;
    guard_->destroyMutex();  // fails, and says so: the mutex is locked, for ever
    return guard_->initForSystem() && guard_->tryLock();
}

SettingsStore::EN_RESULT SettingsStore::ChangeLocked(
    const std::function<void(Settings&)>& change) const {
    const Settings before = Read();
    Settings settings = before;
    change(settings);
    if (settings == before) return en_CHANGED;
    return store_settings(settings, path_, draft_) ? en_CHANGED : en_UNWRITABLE;
}
