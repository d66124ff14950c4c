// A subject and its observers: some subscribe for everything, some for certain identifiers.
//
// The largest answer of the observers that were called goes back to the notifier.
#include <cstdio>

#include <Framework/Pattern/PZSubject.h>

namespace {

constexpr unsigned int kVolume = 1;
constexpr unsigned int kStation = 2;

class Listener : public PZObserver_ {
public:
    Listener(const char* name, unsigned int answer) : name_(name), answer_(answer) {}

    unsigned int OnNotify(unsigned int id, void* data, unsigned int /*size*/) override {
        std::printf("  %s: id %u, value %d\n", name_, id, *static_cast<const int*>(data));
        return answer_;
    }

private:
    const char* const name_;
    const unsigned int answer_;
};

}  // namespace

int main() {
    PZSubject radio;
    Listener display("display", 1);
    Listener amplifier("amplifier", 5);
    unsigned int wanted[] = {kVolume};
    if (radio.AddObserver(&display) != 1 || radio.AddObserver(&amplifier, wanted, 1) != 1) return 1;

    int value = 12;
    std::printf("to all\n");
    unsigned int answer = radio.NotifyObserver(kStation, &value, sizeof value, en_NTF_ALL);
    std::printf("largest answer: %u\nto who wants the volume\n", answer);
    answer = radio.NotifyObserver(kVolume, &value, sizeof value, en_NTF_SELECTED);
    std::printf("largest answer: %u\nto who wants the station\n", answer);
    answer = radio.NotifyObserver(kStation, &value, sizeof value, en_NTF_SELECTED);
    std::printf("largest answer: %u\n", answer);

    if (radio.RemoveObserver(&display) != 1 || radio.RemoveObserver(&amplifier) != 1) return 1;
    std::printf("removed twice: %d\n", radio.RemoveObserver(&display));
}
