// A program that makes something of every template of the headers: no compiler warns of them.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include <Framework/Easy.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/PZFramework.h>

namespace {

using namespace std::chrono_literals;

/// What is sent as it is.
struct Station {
    unsigned int khz;
    char name[16];
};

/// What is sent as its own bytes.
class Program : public PZSerialization::PZSerializable {
public:
    void serialize() override { archive_.write(std::string("news")); }
    void deserialize(const unsigned char* data, unsigned int size) override {
        archive_.clear();
        archive_.write(data, size);
    }
};

/// Too large for the room in a worker.
struct Large {
    void operator()() { bytes[0] = 'x'; }
    char bytes[300];
};

void post(pz::Worker& worker) {
    const std::string text("text");
    std::function<void()> function([] {});
    const bool isPosted = worker.post([text] {}) == pz::Posted::ok &&
                          worker.post([&worker] { worker.is_own_thread(); }) == pz::Posted::ok &&
                          worker.post(function, pz::Priority::high) == pz::Posted::ok &&
                          worker.post(std::move(function)) == pz::Posted::ok &&
                          worker.post(Large()) == pz::Posted::ok &&
                          worker.post([held = std::make_unique<int>(1)] {}) == pz::Posted::ok &&
                          worker.post_wait([] {}, 5ms) == pz::Posted::ok;
    const pz::Called<int> called = worker.call([] { return 5; });
    const pz::Called<void> done = worker.call([text] {});
    if (isPosted && called && done) worker.post([value = *called] { static_cast<void>(value); });
    const pz::Timer every = worker.every(5ms, [] {});
    const pz::Timer after = worker.after(5ms, [text] {});
}

void talk(pz::Worker& worker) {
    pz::Sender<Station> stations("stations");
    pz::Sender<Program> programs("programs");
    if (stations.send(Station()) != pz::Sent::ok) return;
    const pz::Receiver<Station> in(worker, "stations", [](const Station&) {});
    const pz::Receiver<Program> other(worker, "programs", [](const Program&) {});
}

void store() {
    pz::GuardedFile file("/tmp", "settings");
    if (!file.update([](std::string& bytes) { bytes += "x"; })) return;
    pz::RotatingLog log("/tmp", "app", std::size_t{64} * 1024, 3);
    log.line("tuned to %u", 5U);
}

void test_by_hand() {
    pz::test::ManualClock clock;
    pz::test::SyncWorker worker(clock);
    post(worker);
    worker.run_all();
}

class Owner : public PZObserver_ {
public:
    int Initialize() { return 0; }
    void MainProc() {}
    void Finalize() {}
    unsigned int OnNotify(unsigned int, void*, unsigned int) override { return 0; }
};

class Only : public PZSingleton<Only> {};

void use_the_base() {
    Owner owner;
    PZThread<Owner> thread(&owner, 4000);
    thread.Start("thread");
    Only::GetInstance();
    PZSync sync;
    const PZSyncLock lock(sync);
    PZPList<Station, PZAllocator<Station*>> list;
    list.AddTail(nullptr);
    for (const Station* station : list) static_cast<void>(station);
    PZPriorityQueue<Station> queue(8);
    queue.push({{100, "radio"}, 5});
    const PZString text = PZString("a");
    PZSerialization::Archive archive;
    archive.write(std::string("text"));
    PZMsgQ::PZMessageQueue<1> in;
    in.close();
}

}  // namespace

int main() {
    const pz::Framework framework("warnings", 1);
    if (!framework) return 1;
    pz::Worker worker("worker");
    post(worker);
    talk(worker);
    store();
    test_by_hand();
    use_the_base();
    pz::Event event;
    return pz::wait_any({&event}, 1ms).has_value() ? 1 : 0;
}
