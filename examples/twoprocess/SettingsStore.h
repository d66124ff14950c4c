#ifndef TWOPROCESS_SETTINGSSTORE_H
#define TWOPROCESS_SETTINGSSTORE_H

#include <functional>
#include <memory>
#include <string>

#include <Framework/Communication/PZFileGuard.h>

#include "Settings.h"

/// The settings file of a folder, and the guard under which it is changed.
///
/// Sides:   the tuner is the system side of the guard: it makes the mutex, makes it again when a
///          process has died with it, and removes it. The display attaches while a tuner is on,
///          and attaches again when it finds that its mutex is gone.
/// Waiting: nobody waits for the mutex inside the system, from where a mutex that is made again
///          would not wake him: who does not get it, tries again, for up to two seconds.
/// Log:     a try that finds the mutex held is no error here. The store keeps the guard's line of
///          it out of the log, with the one sink that a process has.
/// Threads: one at a time.
class SettingsStore {
public:
    enum EN_SIDE : int { en_SIDE_TUNER, en_SIDE_DISPLAY };

    enum EN_RESULT : int {
        en_CHANGED,    ///< the file holds the changed settings
        en_NOT_NOW,    ///< on the display's side: no tuner, or one that died with the mutex
        en_UNWRITABLE  ///< the file or the guard cannot be made
    };

    SettingsStore(std::string dir, EN_SIDE side);

    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;

    /// Makes the guard, on the tuner's side; false when that is not possible.
    bool Open();

    /// Takes the guard away, on the tuner's side, when it was made.
    void Close();

    /// The settings as they are. Needs no guard: the file is whole at all times.
    Settings Read() const { return load_settings(path_); }

    /// Calls `change` with the current settings while nobody else can change them, and stores what
    /// is different afterwards.
    EN_RESULT Change(const std::function<void(Settings&)>& change);

private:
    bool Attach();
    bool Lock();
    EN_RESULT ChangeLocked(const std::function<void(Settings&)>& change) const;

    const std::string dir_;
    const EN_SIDE side_;
    const std::string path_;
    const std::string draft_;  // of this side: the two never write the same file
    std::unique_ptr<PZFileGuard> guard_;
};

#endif  // TWOPROCESS_SETTINGSSTORE_H
