#ifndef TWOPROCESS_DISPLAYUNIT_H
#define TWOPROCESS_DISPLAYUNIT_H

#include <atomic>

#include <Framework/Pattern/PZSubject.h>

#include "SettingsStore.h"
#include "Telegram.h"
#include "TickingUnit.h"
#include "common/EndOfRun.h"

/// Prints the stations and their texts in UTF-8, and tells every tuner that comes up that a display
/// listens.
///
/// Only telegrams that are meant for this start of the display are shown: what a display that was
/// killed has left in the queue is counted and skipped. A text of another station than the one
/// shown has been overtaken by the change of the station; it is dropped.
///
/// The queue calls OnNotify on its own thread, everything else runs on the worker; SignOff belongs
/// to the main thread, when there is no worker any more.
class DisplayUnit : public TickingUnit, public PZObserver_ {
public:
    /// `end` must outlive the unit; it is told when the unit cannot go on.
    DisplayUnit(SettingsStore& store, const EndOfRun& end) : store_(store), end_(end) {}

    /// Drops what the queue still brings, so that the worker comes to its end. Any thread.
    void StopListening() { isListening_ = false; }

    /// Says in the settings that nobody listens any more; afterwards the queue may be removed.
    void SignOff();

private:
    unsigned int OnNotify(unsigned int id, void* data, unsigned int size) override;
    void OnTick() override;
    void OnMessage(unsigned int id, const void* data, unsigned int size) override;

    void SignOn();
    void Show(const Telegram& telegram);

    std::atomic<bool> isListening_{true};
    SettingsStore& store_;
    const EndOfRun& end_;
    unsigned int run_ = 0;       // 0: not known before the first tuner is there
    unsigned int tunerRun_ = 0;  // 0: no tuner
    unsigned int frequency_ = 0;
    unsigned int skipped_ = 0;
    bool hasFailed_ = false;
};

#endif  // TWOPROCESS_DISPLAYUNIT_H
