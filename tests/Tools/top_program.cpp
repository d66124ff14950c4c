// A process for pz-top to look at. It does what its first argument says, prints what it has counted
// itself in one line, and goes on until its standard input ends.
//
//   top_program MODE [NAME]

#include <dlfcn.h>
#include <mqueue.h>
#include <pthread.h>
#include <semaphore.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>

#include <Framework/PZFramework.h>

namespace {

constexpr unsigned int kForever = 0xFFFFFFFFU;
constexpr unsigned int kNormal = 128;

void nap(unsigned int ms) {
    timespec rest = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    nanosleep(&rest, nullptr);
}

/// Answers with the last line that the program prints before it waits.
void tell(const std::string& counted) {
    std::printf("\nready %s\n", counted.c_str());  // a line of its own, behind colours
    std::fflush(stdout);
}

void wait_for_the_end() {
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    _exit(0);  // whatever still hangs
}

/// A dispatcher whose message 42, and whose event bit 4, never return.
class Unit : public PZIDispatcher {
public:
    void OnReceiveMsg(unsigned int id, const void*, unsigned int) override {
        if (id == 42) Hang();
        ++messages;
    }
    void OnReceiveEvent(unsigned int bits) override {
        if (bits == 4) Hang();
        ++events;
    }

    std::atomic<int> messages{0};
    std::atomic<int> events{0};
    std::atomic<bool> hangs{false};

private:
    void Hang() {
        hangs = true;
        for (;;) nap(kForever);
    }
};

/// A worker "audio", number 3, that is watched for 200 milliseconds.
struct Worker {
    Worker() {
        worker.Start("audio");
        id = worker.GetMsgBox()->Registory(&unit);
    }

    unsigned int Post(unsigned int messageId) {
        PZIMsgBox::ST_PUSH_MSG_DATA message = {id, messageId, kNormal, nullptr, 0};
        return worker.GetMsgBox()->PushMsg(message);
    }
    unsigned int PostEvent(unsigned int bits) { return worker.GetMsgBox()->SetEvent(bits, id); }

    Unit unit;
    PZWorker worker{1, 200, 3};
    unsigned long id = 0;
};

void hang(bool inEvent) {
    static Worker audio;
    for (unsigned int i = 0; i < 10; ++i) audio.Post(i);
    for (unsigned int i = 0; i < 3; ++i) audio.PostEvent(1);
    while (audio.unit.messages != 10 || audio.unit.events != 3) nap(1);
    inEvent ? audio.PostEvent(4) : audio.Post(42);
    while (!audio.unit.hangs) nap(1);
    char dispatcher[32];
    std::snprintf(dispatcher, sizeof dispatcher, "0x%lx", audio.id);
    tell(dispatcher);
}

void flood() {
    static Worker audio;
    audio.Post(42);
    while (!audio.unit.hangs) nap(1);
    int refused = 0;
    int taken = 0;
    while (refused < 7) {
        if (audio.Post(1) == 0) {
            ++taken;
        } else {
            ++refused;
        }
    }
    for (int i = 0; i < 5; ++i) audio.PostEvent(1);
    tell(std::to_string(refused) + " " + std::to_string(taken));
}

/// Serves for as long as the program runs.
void serve() {
    static Worker audio;
    static std::thread poster([] {
        for (;;) {
            if (audio.Post(1) != 0) nap(1);
        }
    });
    tell("");
}

/// Serves ten messages.
void serve_ten() {
    static Worker audio;
    for (unsigned int i = 0; i < 10; ++i) audio.Post(i);
    while (audio.unit.messages != 10) nap(1);
    tell("");
}

/// Goes on without its first thread.
[[noreturn]] void leave() {
    serve_ten();
    static std::thread waiting(wait_for_the_end);
    pthread_exit(nullptr);
}

/// A timer of 20 milliseconds, whose third callback takes 150 and whose fifth hangs.
class Slow : public PZLTimerBase {
public:
    int OnTimer(PZLTimerSubMng::_TimerInfo*) override {
        const int number = ++calls;
        if (number == 3) nap(150);
        if (number == 5) {
            for (;;) nap(kForever);
        }
        return 1;
    }
    std::atomic<int> calls{0};
};

/// Another of its band, which is late when that one takes long.
class Quick : public PZLTimerBase {
public:
    int OnTimer(PZLTimerSubMng::_TimerInfo*) override {
        ++calls;
        return 1;
    }
    std::atomic<int> calls{0};
};

void timers() {
    static Slow slow;
    static Quick quick;
    PZLTimerMng::GetTimerMng()->AddTimer(&slow, 20);
    PZLTimerMng::GetTimerMng()->AddTimer(&quick, 20);
    while (slow.calls != 5) nap(1);
    tell(std::to_string(slow.calls - 1 + quick.calls));
}

/// Takes a lock that is never given back.
void take_for_ever(PZSync& lock) PZ_NO_THREAD_SAFETY_ANALYSIS {
    lock.Lock(kForever);
}

/// Two threads that each hold the lock that the other one waits for, and a third that waits for a
/// named lock which another object of the same name holds.
void locks() {
    static PZSync first;
    static PZSync second;
    const std::string name = "pz_top_" + std::to_string(getpid());
    static PZSync named(name.c_str(), PZSync::en_TYPE_NAMED);
    static PZSync other(name.c_str(), PZSync::en_TYPE_NAMED);
    sem_unlink(("/" + name).c_str());  // both have it
    static std::atomic<int> holding{0};
    const auto take = [](PZSync& mine, PZSync& next, const char* threadName) {
        pthread_setname_np(pthread_self(), threadName);
        take_for_ever(mine);
        ++holding;
        while (holding != 2) nap(1);
        take_for_ever(next);
    };
    static std::thread left(take, std::ref(first), std::ref(second), "left");
    static std::thread right(take, std::ref(second), std::ref(first), "right");
    take_for_ever(other);
    static std::thread outer([] {
        pthread_setname_np(pthread_self(), "outer");
        take_for_ever(named);
    });
    while (holding != 2) nap(1);
    nap(50);
    tell(name);
}

class Ignore : public PZObserver_ {
public:
    unsigned int OnNotify(unsigned int, void*, unsigned int) override {
        ++calls;
        return 0;
    }
    std::atomic<int> calls{0};
};

void queues(const std::string& name) {
    static PZMsgQ::PZMessageQueue<0> sender;
    static PZMsgQ::PZMessageQueue<1> receiver;
    static Ignore observer;
    sender.open({(name + "_out").c_str()});
    receiver.open({(name + "_in").c_str(), &observer});
    static PZMsgQ::PZMessageQueue<0> feeder;
    feeder.open({(name + "_in").c_str()});
    const int value = 1;
    for (int i = 0; i < 64; ++i) sender.send(&value, sizeof value, 1);
    for (int i = 0; i < 3; ++i) sender.send(&value, sizeof value, 1);  // full
    sender.send(&value, sizeof value, 0);                              // no such priority
    for (int i = 0; i < 5; ++i) feeder.send(&value, sizeof value, 1);
    while (observer.calls != 5) nap(1);
    tell("");
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    receiver.close();
    mq_unlink(("/" + name + "_out").c_str());
}

void heap() {
    for (int i = 0; i < 5; ++i) Malloc(100);
    Free(Malloc(1000));
    std::thread([] { Malloc(10); }).join();
    tell("");
}

void forked() {
    static Worker audio;
    if (fork() == 0) {
        tell(std::to_string(getpid()));
        wait_for_the_end();
    }
    wait_for_the_end();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    const std::string mode = argv[1];
    const std::string name = argc > 2 ? argv[2] : "pz_top_test";
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    if (mode == "end") return 0;
    if (mode == "plugin" && dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL) == nullptr) return 1;
    const bool isNamed = mode != "plugin";
    if (pz_FwInitialize(isNamed ? name.c_str() : "pz_top_test", 77) == 0) return 1;
    if (mode == "hang") hang(false);
    if (mode == "hang-event") hang(true);
    if (mode == "flood") flood();
    if (mode == "serve") serve();
    if (mode == "plugin") serve_ten();
    if (mode == "leave") leave();
    if (mode == "timers") timers();
    if (mode == "locks") locks();
    if (mode == "queues") queues(name);
    if (mode == "heap") heap();
    if (mode == "forked") forked();
    if (mode == "idle") tell("");
    wait_for_the_end();
}
