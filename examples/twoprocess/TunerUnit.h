#ifndef TWOPROCESS_TUNERUNIT_H
#define TWOPROCESS_TUNERUNIT_H

#include <string>

#include <Framework/Communication/PZMessageQueue.h>

#include "SettingsStore.h"
#include "Telegram.h"
#include "TickingUnit.h"
#include "common/EndOfRun.h"

/// Runs through the stations and their texts, one text a tick, and tells the display.
///
/// It sends while the settings say that a display listens to this start of the tuner. When the
/// queue is full it says so once, drops texts, and keeps only that the display has to be told the
/// station; every few ticks it tries again.
///
/// Its handlers run on its worker; SignOn and SignOff belong to the main thread, while
/// there is no worker.
class TunerUnit : public TickingUnit {
public:
    /// `end` must outlive the unit; it is told when the unit cannot go on.
    TunerUnit(SettingsStore& store, std::string queueName, const EndOfRun& end);

    /// Writes a new run into the settings, and takes the station from them.
    bool SignOn();

    /// Says in the settings that the tuner has ended.
    void SignOff();

private:
    void OnTick() override;

    bool WriteOwnHalf();
    void FollowDisplay(const Settings& settings);
    void Send();
    bool SendOne(Telegram::EN_KIND kind, const char* text, unsigned char priority);
    void NoteFull();
    void NoteRoom();
    void Advance();
    void GiveUp(const char* why);

    SettingsStore& store_;
    const std::string queueName_;
    const EndOfRun& end_;
    PZMsgQ::PZMessageQueue<0> queue_;
    unsigned int run_ = 0;
    unsigned int displayRun_ = 0;  // 0: nobody listens, the queue is closed
    size_t station_ = 0;
    size_t text_ = 0;
    bool isStationDue_ = true;  // the display has to be told of station_
    bool isFull_ = false;
    unsigned int pause_ = 0;    // ticks without an attempt to send
    unsigned int dropped_ = 0;  // texts, since the queue is full
    bool hasFailed_ = false;
};

#endif  // TWOPROCESS_TUNERUNIT_H
