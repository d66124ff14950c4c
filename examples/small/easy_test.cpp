// A unit tested without threads: the test serves its worker and moves its time.
#include <cstdio>

#include <Framework/Easy.h>

using namespace std::chrono_literals;

namespace {

/// Goes to sleep when no key was pressed for a minute.
class Display {
public:
    explicit Display(pz::Worker& worker) : worker_(worker) { Key(); }
    void Key() {
        worker_.post([this] {
            isOn_ = true;
            sleep_ = worker_.after(1min, [this] { isOn_ = false; });
        });
    }
    bool IsOn() const { return isOn_; }

private:
    pz::Worker& worker_;
    bool isOn_ = false;
    pz::Timer sleep_;
};

}  // namespace

int main() {
    pz::test::ManualClock clock;
    pz::test::SyncWorker worker(clock);
    Display display(worker);
    worker.run_for(59s);
    display.Key();
    worker.run_for(59s);
    std::printf("after 118 s, with a key at 59 s: %s\n", display.IsOn() ? "on" : "off");
    worker.run_for(1s);
    std::printf("a minute after the key: %s\n", display.IsOn() ? "on" : "off");
}
