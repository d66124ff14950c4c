#include "DisplayUnit.h"

#include <cstdio>

namespace {

constexpr unsigned int kStepsPerMHz = 100;

}  // namespace

void DisplayUnit::SignOff() {
    store_.Change([this](Settings& settings) {
        if (settings.displayRun == run_) settings.displayTuner = 0;
    });
}

// On the queue's thread. What is no telegram, or finds no room, is dropped.
unsigned int DisplayUnit::OnNotify(unsigned int, void* data, unsigned int size) {
    if (isListening_ && size <= Telegram::kMaxFrame)
        SendMsgSelf(en_MSG_OTHER, en_MSG_NORMAL, data, size);
    return 0;
}

void DisplayUnit::OnTick() {
    if (hasFailed_) return;
    const Settings settings = store_.Read();
    if (settings.tunerIsOn == 0) {
        if (tunerRun_ != 0) std::fprintf(stderr, "pz_display: the tuner has gone\n");
        tunerRun_ = 0;
        return;
    }
    const bool isListed = settings.tunerRun == tunerRun_ && settings.displayTuner == tunerRun_ &&
                          settings.displayRun == run_;
    if (!isListed) SignOn();
}

// When the tuner cannot be told now, the next tick tries again.
void DisplayUnit::SignOn() {
    unsigned int tuner = 0;
    const SettingsStore::EN_RESULT result = store_.Change([this, &tuner](Settings& settings) {
        if (run_ == 0) run_ = settings.displayRun + 1;
        settings.displayRun = run_;
        settings.displayTuner = settings.tunerRun;
        tuner = settings.tunerRun;
    });
    if (result == SettingsStore::en_UNWRITABLE) {
        std::fprintf(stderr, "pz_display: the settings cannot be written\n");
        hasFailed_ = true;
        end_.Finish();
    }
    if (result != SettingsStore::en_CHANGED || tuner == tunerRun_) return;
    tunerRun_ = tuner;
    std::fprintf(stderr, "pz_display: display %u listens to tuner %u\n", run_, tuner);
}

void DisplayUnit::OnMessage(unsigned int, const void* data, unsigned int size) {
    Telegram telegram;
    if (!telegram.ReadFrame(data, size)) {
        std::fprintf(stderr, "pz_display: a message that is no telegram was dropped\n");
    } else if (telegram.displayRun != run_) {
        ++skipped_;
    } else {
        Show(telegram);
    }
}

void DisplayUnit::Show(const Telegram& telegram) {
    const std::string utf8 = telegram.Utf8();
    if (telegram.kind == Telegram::en_KIND_STATION) {
        frequency_ = telegram.frequency;
        std::printf("%3u.%02u MHz  %s\n", frequency_ / kStepsPerMHz, frequency_ % kStepsPerMHz,
                    utf8.c_str());
    } else if (telegram.frequency == frequency_) {
        std::printf("    %s\n", utf8.c_str());
    }
    std::fflush(stdout);

    // Texts keep their order: behind the first new one there is no old one.
    if (telegram.kind != Telegram::en_KIND_TEXT || skipped_ == 0) return;
    std::fprintf(stderr, "pz_display: %u old messages skipped\n", skipped_);
    skipped_ = 0;
}
