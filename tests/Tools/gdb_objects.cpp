#include <semaphore.h>

#include <cstring>

#include <Framework/PZFramework.h>

#include "support/FakePriorities.h"

// The program that gdbPrintersTest looks at: objects with known contents, and a function to stop
// in.

class Lamp : public PZIDispatcher {
public:
    void OnReceiveMsg(unsigned int, const void*, unsigned int) override {
        entered.SetEvent();
        leave.WaitEvent(0xFFFFFFFF);
    }
    void OnReceiveEvent(unsigned int) override {}

    PZEvent entered;
    PZEvent leave;
};

class Blink : public PZLTimerBase {
public:
    int OnTimer(PZLTimerSubMng::_TimerInfo*) override { return 1; }
};

class Chime : public Blink {};

/// Room for any of the objects, filled with one byte instead.
struct Garbage {
    explicit Garbage(unsigned char byte) { std::memset(bytes, byte, sizeof bytes); }
    alignas(16) unsigned char bytes[1024];
};

struct Objects {
    PZString textNothing;
    PZString textEmpty{""};
    PZString textUtf8{
        "Gr\xC3\xBC\xC3\x9F"
        "e \"7\\8\"\n"};
    PZString textBroken{"a\xFFz"};
    PZString textKoi8{"\xCC\xC5\xD3", XCP_KOI8_R};
    PZString textShiftJis{"\x93\xFA\x96\x7B", XCP_SJIS};
    PZString textRadio{"D\x80", XCP_RDS};
    PZString textLong{std::string(201, 'x')};
    PZString textWide{L"\x416\x1F600"};
    PZString textBigEndian;
    PZString textLittleEndian;

    PZBinary binaryEmpty;
    PZBinary binary{reinterpret_cast<const unsigned char*>("\x01\x02\xFE\0"), 4};
    PZBinary binaryLong{201};
    PZSerialization::Archive archiveEmpty;
    PZSerialization::Archive archive;

    PZSync lockFree;
    PZSync lockHeld;
    PZSync lockNested{"display", PZSync::en_TYPE_UNNAMED};
    PZSync lockNamed{"pz_gdb_objects", PZSync::en_TYPE_NAMED};

    PZEvent eventUnset;
    PZEvent eventTwice;

    Lamp lamp;
    PZLMsgBox boxUnused;
    PZLMsgBox* box = nullptr;
    PZLTimerSubMng timersNotStarted{30, 196};
    PZLTimerMng* timers = nullptr;
    PZThreadMng* threads = nullptr;

    Garbage zeros{0x00};
    Garbage pattern{0xA5};
    Garbage ones{0xFF};
};

Objects* objects = nullptr;

namespace {

/// gdb stops here.
__attribute__((noinline)) void inspect() {
    asm volatile("");
}

/// Leaves two locks held: their states are looked at.
void fill(Objects& o) PZ_NO_THREAD_SAFETY_ANALYSIS {
    const unsigned short bigEndian[] = {0x4100, 0xAC20, 0};  // "A" and the euro sign, swapped
    const unsigned short littleEndian[] = {0x41, 0x20AC, 0};
    o.textBigEndian.Copy(bigEndian, XCP_UTF16BE);
    o.textLittleEndian.Copy(littleEndian, XCP_UTF16LE);

    o.binary.seek(3, 0);
    o.archive.write(0x01020304);
    o.archive.write(true);
    int value = 0;
    o.archive.read(value);

    o.lockHeld.Lock(0xFFFFFFFF);
    for (int i = 0; i < 3; ++i) o.lockNested.Lock(0xFFFFFFFF);
    sem_unlink("/pz_gdb_objects");  // the object keeps it

    o.eventTwice.SetEvent();
    o.eventTwice.SetEvent();
}

/// Leaves the worker in a handler, with three messages and two events behind it.
bool fill_box(Objects& o) {
    const unsigned long id = o.box->Registory(&o.lamp);
    PZIMsgBox::ST_PUSH_MSG_DATA first = {id, 1, 128, nullptr, 0};
    if (o.box->PushMsg(first) != 0 || o.lamp.entered.WaitEvent(0xFFFFFFFF) != 0) return false;
    PZIMsgBox::ST_PUSH_MSG_DATA late = {id, 2, 192, "late", 4};
    PZIMsgBox::ST_PUSH_MSG_DATA soon = {id, 3, 64, nullptr, 0};
    PZIMsgBox::ST_PUSH_MSG_DATA nobody = {0, 4, 0, "\x7F", 1};
    return o.box->PushMsg(late) == 0 && o.box->PushMsg(soon) == 0 && o.box->PushMsg(nobody) == 0 &&
           o.box->SetEvent(0x10, id) == 0 && o.box->SetEvent(0x3, id) == 0;
}

/// The timer thread that was woken for the timers may still be on its way through its lock.
void wait_until_nobody_waits_for_a_lock() {
    const auto* const waits =
        static_cast<const ST_INSPECTED_WAIT<PZInspectionLive>*>(pz_inspection.waits.pointer.load());
    for (unsigned int i = 0; i < pz_inspection.waitCount;) {
        i = waits[i].tid == 0 ? i + 1 : 0;
    }
}

}  // namespace

int main() {
    const pztest::FakePriorities priorities;
    Objects o;
    objects = &o;
    if (pz_FwInitialize("gdb_objects", 1) == 0) return 1;
    PZWorker worker(1, 600000, 7);
    if (worker.Start("lamp \"A\"") != 0) return 1;
    o.box = dynamic_cast<PZLMsgBox*>(worker.GetMsgBox());
    o.timers = PZLTimerMng::GetTimerMng();
    o.threads = PZThreadMng::GetInstance();

    fill(o);
    if (o.box == nullptr || !fill_box(o)) return 1;
    Blink blink;
    Chime chime;
    PZLTimerMng::TimerSubInfo* const slow = o.timers->AddTimer(&blink, 3600000);
    PZLTimerMng::TimerSubInfo* const soon = o.timers->AddTimer(&chime, 1800000);

    wait_until_nobody_waits_for_a_lock();
    inspect();

    o.timers->RemoveTimer(slow, &blink);
    o.timers->RemoveTimer(soon, &chime);
    o.lamp.leave.SetEvent();
    o.lamp.leave.SetEvent();
    o.lamp.leave.SetEvent();
    worker.End(0);
    pz_FwFinalize();
    return 0;
}
