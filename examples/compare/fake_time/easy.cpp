// Tests a unit that polls every 100 ms over an hour, without waiting.
#include <cstdio>

#include <Framework/Easy.h>

using namespace std::chrono_literals;

class Scanner {
public:
    explicit Scanner(pz::Worker& worker) : poll_(worker.every(100ms, [this] { ++polls_; })) {}
    int polls() const { return polls_; }

private:
    int polls_ = 0;
    pz::Timer poll_;
};

int main() {
    pz::test::ManualClock clock;
    pz::test::SyncWorker worker(clock);
    Scanner scanner(worker);
    worker.run_for(1h);
    std::printf("%d polls in an hour\n", scanner.polls());
}
