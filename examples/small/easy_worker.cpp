// A worker that runs what is posted to it, in order, and answers calls.
#include <cstdio>

#include <Framework/Easy.h>

namespace {

class Tuner {
public:
    void Tune(int kHz) {
        worker_.post([this, kHz] {
            kHz_ = kHz;
            std::printf("tuned to %d kHz\n", kHz_);
        });
    }
    int Frequency() {
        return worker_.call([this] { return kHz_; }).value_or(0);
    }

private:
    int kHz_ = 0;                 // touched by the worker's thread only
    pz::Worker worker_{"tuner"};  // the last member: stops before the others go
};

}  // namespace

int main() {
    const pz::Framework fw("easy_worker", 1);
    if (!fw) return 1;
    Tuner tuner;
    tuner.Tune(98500);
    tuner.Tune(101300);
    std::printf("now at %d kHz\n", tuner.Frequency());
}
