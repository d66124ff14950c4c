#include "TunerUnit.h"

#include <cstdio>
#include <iterator>
#include <utility>

#include "Stations.h"

namespace {

// A new station overtakes the texts that wait.
constexpr unsigned char kStationPriority = 10;
constexpr unsigned char kTextPriority = 128;

constexpr int kSent = 0;
constexpr int kFull = -2;
constexpr unsigned int kPauseTicks = 10;  // a refused message costs a line of the framework's log

/// The place of a frequency in kStations; the first one for none of them.
size_t station_at(unsigned int frequency) {
    size_t i = 0;
    for (const Station& station : kStations) {
        if (station.frequency == frequency) return i;
        ++i;
    }
    return 0;
}

}  // namespace

TunerUnit::TunerUnit(SettingsStore& store, std::string queueName, const EndOfRun& end)
    : store_(store), queueName_(std::move(queueName)), end_(end) {}

bool TunerUnit::SignOn() {
    const Settings settings = store_.Read();
    run_ = settings.tunerRun + 1;
    station_ = station_at(settings.tunerStation);
    return WriteOwnHalf();
}

void TunerUnit::SignOff() {
    store_.Change([this](Settings& settings) {
        settings.tunerRun = run_;
        settings.tunerIsOn = 0;
    });
}

void TunerUnit::OnTick() {
    if (hasFailed_) return;
    if (!WriteOwnHalf()) {
        GiveUp("the settings cannot be written");
        return;
    }
    Send();
    Advance();
}

// Every tick, so that the file recovers from whatever happened to it. The queue is opened under the
// guard: a display takes itself out of the settings before it removes the queue's name, so the name
// never comes back after it.
bool TunerUnit::WriteOwnHalf() {
    return store_.Change([this](Settings& settings) {
        settings.tunerRun = run_;
        settings.tunerIsOn = 1;
        settings.tunerStation = kStations[station_].frequency;
        FollowDisplay(settings);
    }) == SettingsStore::en_CHANGED;
}

void TunerUnit::FollowDisplay(const Settings& settings) {
    const unsigned int listener = settings.displayTuner == run_ ? settings.displayRun : 0;
    if (listener == displayRun_) return;
    queue_.close();
    displayRun_ = listener;
    if (listener == 0) {
        std::fprintf(stderr, "pz_tuner: the display has gone\n");
        return;
    }
    if (!queue_.open({queueName_.c_str()})) {
        GiveUp("the queue cannot be opened");
        return;
    }
    std::fprintf(stderr, "pz_tuner: display %u listens\n", listener);
    isStationDue_ = true;
    pause_ = 0;
}

void TunerUnit::Send() {
    if (displayRun_ == 0 || hasFailed_) return;
    if (pause_ > 0) {
        --pause_;
        ++dropped_;
        return;
    }
    const Station& station = kStations[station_];
    if (isStationDue_ && !SendOne(Telegram::en_KIND_STATION, station.name, kStationPriority))
        return;
    isStationDue_ = false;
    SendOne(Telegram::en_KIND_TEXT, station.texts[text_], kTextPriority);
}

bool TunerUnit::SendOne(Telegram::EN_KIND kind, const char* text, unsigned char priority) {
    Telegram telegram;
    telegram.kind = kind;
    telegram.displayRun = displayRun_;
    telegram.frequency = kStations[station_].frequency;
    telegram.charset = kStations[station_].charset;
    telegram.text = text;
    PZSerialization::Archive frame;
    telegram.WriteFrame(frame);

    const int result = queue_.send(frame.getBuff(), frame.getSize(), priority);
    if (result == kSent) {
        NoteRoom();
    } else if (result == kFull) {
        NoteFull();
    } else {
        GiveUp("the queue does not take messages");
    }
    return result == kSent;
}

void TunerUnit::NoteFull() {
    ++dropped_;
    pause_ = kPauseTicks;
    if (isFull_) return;
    isFull_ = true;
    std::fprintf(stderr, "pz_tuner: the queue is full: texts are dropped\n");
}

void TunerUnit::NoteRoom() {
    if (isFull_) std::fprintf(stderr, "pz_tuner: the queue has room: %u dropped\n", dropped_);
    isFull_ = false;
    dropped_ = 0;
}

void TunerUnit::Advance() {
    if (++text_ < std::size(kStations[station_].texts)) return;
    text_ = 0;
    station_ = (station_ + 1) % std::size(kStations);
    isStationDue_ = true;
}

void TunerUnit::GiveUp(const char* why) {
    std::fprintf(stderr, "pz_tuner: %s\n", why);
    hasFailed_ = true;
    end_.Finish();
}
