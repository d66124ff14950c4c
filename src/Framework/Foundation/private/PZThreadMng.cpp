#include "Framework/Foundation/PZThreadMng.h"

#include <pthread.h>
#include <sys/resource.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Diagnostics/pz_last_error.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/Foundation/PZWatchDog.h>
#include <Framework/Wrapper/pz_stdlib.h>
#include <Framework/private/pz_counted_priorities.h>
#include <Framework/private/pz_stream.h>
#include <Framework/private/pz_time.h>

#include "../../Diagnostics/private/PZInspection.h"
#include "pz_lock_memory.h"

#if __SIZEOF_POINTER__ == 4
static_assert(offsetof(PZThreadMng::ThreadInfo, handle) == 0);
static_assert(offsetof(PZThreadMng::ThreadInfo, priority) == 4);
static_assert(offsetof(PZThreadMng::ThreadInfo, name) == 8);
static_assert(offsetof(PZThreadMng::ThreadInfo, starttime) == 264);
static_assert(offsetof(PZThreadMng::ThreadInfo, runtime) == 268);
static_assert(offsetof(PZThreadMng::ThreadInfo, watchTime) == 272);
static_assert(offsetof(PZThreadMng::ThreadInfo, status) == 276);
static_assert(sizeof(PZThreadMng::ThreadInfo) == 280);
#endif

template class PZSingleton<PZThreadMng>;

// clang-format off
constexpr PZThreadMng::PriorityRow PZThreadMng::priTable_[] = {
    // {wide, nice}
    {177, -20},
    {178, -19},
    {179, -18}, {180, -18},
    {181, -17}, {182, -17},
    {183, -16}, {184, -16},
    {185, -15}, {186, -15},
    {187, -14}, {188, -14},
    {189, -13}, {190, -13},
    {191, -12}, {192, -12},
    {193, -11}, {194, -11},
    {195, -10}, {196, -10},
    {197,  -9},
    {198,  -8},
    {199,  -7},
    {200,  -6},
    {201,  -5}, {202,  -5}, {203,  -5}, {204,  -5}, {205,  -5},
    {206,  -5}, {207,  -5}, {208,  -5}, {209,  -5}, {210,  -5},
    {211,  -4}, {212,  -4}, {213,  -4}, {214,  -4}, {215,  -4},
    {216,  -4}, {217,  -4}, {218,  -4}, {219,  -4}, {220,  -4},
    {221,  -3}, {222,  -3}, {223,  -3}, {224,  -3}, {225,  -3},
    {226,  -3}, {227,  -3}, {228,  -3}, {229,  -3}, {230,  -3},
    {231,  -2}, {232,  -2}, {233,  -2}, {234,  -2}, {235,  -2},
    {236,  -2}, {237,  -2}, {238,  -2}, {239,  -2}, {240,  -2},
    {241,  -1}, {242,  -1}, {243,  -1}, {244,  -1}, {245,  -1},
    {246,  -1}, {247,  -1}, {248,  -1}, {249,  -1}, {250,  -1},
    {251,   0},
    {252,   1},
    {253,   2},
    {254,   3},
    {255,   4},
};
// clang-format on

namespace {

constexpr char kDumpPath[] = "/temp/ThreadInfo";

constexpr int kStatusWaiting = 0;
constexpr int kStatusRunning = 1;

/// Nice value of a kernel thread; false, with errno set, when it cannot be read.
bool read_nice(unsigned int tid, int& nice) {
    pz_clear_last_err();  // -1 is a nice value, too: only errno tells it from a failure
    nice = getpriority(PRIO_PROCESS, tid);
    return nice != -1 || pz_get_last_err() == 0;
}

/// True when the table has every wide priority of the scale once, in ascending order, and the nice
/// values do not fall.
template <typename Row, std::size_t kRows>
constexpr bool is_in_order(const Row (&table)[kRows]) {
    for (std::size_t i = 0; i < kRows; ++i) {
        if (table[i].wide != table[0].wide + static_cast<int>(i)) return false;
        if (i > 0 && table[i].nice < table[i - 1].nice) return false;
    }
    return table[0].wide == 177 && table[kRows - 1].wide == 255;
}

void set_name(PZThreadMng::ThreadInfo& info, const char* name) {
    pz_strncpy(info.name, sizeof info.name, name, sizeof info.name - 1);
}

void write_record(FILE* file, const PZThreadMng::ThreadInfo& info) {
    std::fprintf(file, "name     : %s\n", info.name);
    std::fprintf(file, "starttime: %d\n", info.starttime);
    std::fprintf(file, "runtime  : %d\n", info.runtime);
    std::fprintf(file, "watchdog : %d\n", static_cast<int>(info.watchTime));
    std::fprintf(file, "status   : %d\n", info.status);
    std::fprintf(file, "\n");
}

/// Changes a field and shows it to others; false without a record.
template <typename Record, typename Info, typename Value>
bool set_and_show(Record* record, Value Info::*field, Value value) {
    if (record == nullptr) return false;
    record->*field = value;
    record->Show();
    return true;
}

/// Reports errno as a failure of `operation`; the record names the thread by its label.
void report_errno(PZThreadMng& registry, unsigned long handle, const char* operation) {
    const int error = errno;
    char label[sizeof PZThreadMng::ThreadInfo::name] = {};
    registry.getLabel(handle, label);
    const PZReportObject object(PZReportObject::en_THREAD, label);
    PZ_REPORT_ERROR_OF(operation, "error : errno[%d : %s]\n", error, std::strerror(error));
}

}  // namespace

PZThreadMng::PZThreadMng() : sync_(std::make_unique<PZSync>()) {
    if (!pz_has_semaphore(*sync_)) throw std::bad_alloc();
}

PZThreadMng::~PZThreadMng() = default;

void PZThreadMng::DelInstance() {}

int PZThreadMng::initialize() {
    return PZWatchDog::GetInstance()->start() ? 1 : 0;
}

void PZThreadMng::finalize() {
    PZWatchDog::GetInstance()->stop();
}

bool PZThreadMng::registerThreadInfo(unsigned long handle, const char* name, int priority,
                                     unsigned int watchTime) {
    ThreadInfo info = {};
    info.handle = handle;
    info.priority = priority;
    info.watchTime = watchTime;
    info.status = kStatusRunning;
    if (name != nullptr) set_name(info, name);
    return registerThreadInfo(info);
}

bool PZThreadMng::registerThreadInfo(const ThreadInfo& info) {
    ThreadInfo fresh = info;
    fresh.name[sizeof fresh.name - 1] = '\0';  // the dump prints it as a string
    const bool isOwn = info.handle == pthread_self();
    const int tid = isOwn ? pz_get_current_thread_id() : 0;
    try {
        const PZSyncLock lock(*sync_);
        const auto [entry, isNew] = threads_.try_emplace(info.handle, fresh, tid);
        Record& record = entry->second;
        if (!isNew && isOwn && record.tid != 0 && record.tid != tid) record.Replace(fresh, tid);
        return true;
    } catch (const std::bad_alloc&) {
    }
    PZ_REPORT_ERROR_ON(THREAD, fresh.name, "failed to allocate memory\n");
    return false;
}

void PZThreadMng::claimThreadInfo(unsigned long handle, const void* owner) {
    const int tid = pz_get_current_thread_id();
    const PZSyncLock lock(*sync_);
    Record* const record = FindLocked(handle);
    if (record == nullptr) return;  // there was no memory for it
    record->tid = tid;
    record->owner = owner;
    record->Show();
}

void PZThreadMng::releaseThreadInfo(unsigned long handle, const void* owner, int tid) {
    const PZSyncLock lock(*sync_);
    const Record* const record = FindLocked(handle);
    if (record == nullptr) return;
    // A record without an owner was made afresh while the thread ran: by whom, the id tells.
    const bool isOurs =
        record->owner != nullptr ? record->owner == owner : record->tid == 0 || record->tid == tid;
    if (isOurs) threads_.erase(handle);
}

bool PZThreadMng::unregisterThreadInfo(unsigned long handle) {
    const PZSyncLock lock(*sync_);
    return threads_.erase(handle) != 0;
}

bool PZThreadMng::setLabel(unsigned long handle, const char* label) {
    if (label == nullptr) return false;
    const PZSyncLock lock(*sync_);
    ThreadInfo* const info = FindLocked(handle);
    if (info == nullptr) return false;
    const PZMutexLock shown(pz_inspection_lock);  // it is read under that
    set_name(*info, label);
    return true;
}

bool PZThreadMng::getLabel(unsigned long handle, char* out) {
    if (out == nullptr) return false;
    const PZSyncLock lock(*sync_);
    const ThreadInfo* const info = FindLocked(handle);
    if (info == nullptr) return false;
    std::memcpy(out, info->name, sizeof info->name);
    return true;
}

bool PZThreadMng::setWatchTime(unsigned long handle, unsigned int ms) {
    const PZSyncLock lock(*sync_);
    return set_and_show(FindLocked(handle), &Record::watchTime, ms);
}

unsigned int PZThreadMng::getWatchTime(unsigned long handle) {
    const PZSyncLock lock(*sync_);
    const ThreadInfo* const info = FindLocked(handle);
    return info != nullptr ? info->watchTime : 0;
}

int PZThreadMng::GetPriority(unsigned long handle, unsigned int tid) {
    int nice = 0;
    if (!read_nice(tid, nice)) {
        report_errno(*this, handle, __func__);
        return 0;
    }
    return get_wide_priority(nice);
}

int PZThreadMng::GetCurrentThreadPriority() {
    constexpr unsigned int kCallingThread = 0;
    int nice = 0;
    if (!read_nice(kCallingThread, nice)) {
        PZ_REPORT_ERROR("error : errno[%d : %s]\n", pz_get_last_err(), pz_get_last_err_string());
        return 0;
    }
    const int wide = get_wide_priority(nice);
    if (wide == -1) PZ_REPORT_ERROR("error : nice[%d]\n", nice);
    return wide;
}

bool PZThreadMng::SetPriority(unsigned long handle, int priority, unsigned int tid) {
    if (setpriority(PRIO_PROCESS, tid, get_narrow_priority(priority)) != 0) {
        if (!PZCountedPriorities::Take(errno)) report_errno(*this, handle, __func__);
        return false;
    }
    const PZSyncLock lock(*sync_);
    return set_and_show(FindLocked(handle), &Record::priority, priority);
}

void PZThreadMng::notifyToWaiting() {
    const PZSyncLock lock(*sync_);
    ThreadInfo* const info = FindLocked(pthread_self());
    if (info == nullptr) return;
    info->status = kStatusWaiting;
    info->starttime = 0;
    info->runtime = 0;
}

void PZThreadMng::notifyToRunning() {
    const PZSyncLock lock(*sync_);
    ThreadInfo* const info = FindLocked(pthread_self());
    if (info != nullptr) info->status = kStatusRunning;
}

// The walk is unlocked on purpose.
void PZThreadMng::checkThreadStatus() PZ_NO_THREAD_SAFETY_ANALYSIS {
    for (auto& [handle, info] : threads_) {
        clockid_t clock = 0;
        if (info.status != kStatusRunning || pthread_getcpuclockid(handle, &clock) != 0) continue;
        timespec used = {};
        // Stored only when the clock cannot be read, on purpose: run times stay 0 in practice.
        if (clock_gettime(clock, &used) == 0) continue;
        info.runtime = static_cast<int>(pz_ms_of(used));
    }
}

void PZThreadMng::dumpThreadStatus() {
    const PZSyncLock lock(*sync_);
    FILE* file = pz_open_own_stream(kDumpPath, "w+");
    if (file == nullptr) return;
    PZStreamClosing closing(file);
    for (const auto& [handle, info] : threads_) {
        write_record(file, info);
    }
    std::fflush(file);
    closing.Settle();
}

bool PZThreadMng::getActiveThreadList(std::vector<unsigned long>& out) {
    out.clear();
    const PZSyncLock lock(*sync_);
    for (const auto& [handle, info] : threads_) {
        if (info.status == kStatusRunning) out.push_back(handle);
    }
    return true;
}

int PZThreadMng::get_wide_priority(int nice) {
    static_assert(is_in_order(priTable_));
    for (const PriorityRow& row : priTable_) {
        if (row.nice == nice) return row.wide;
    }
    return -1;
}

int PZThreadMng::get_narrow_priority(int wide) {
    for (const PriorityRow& row : priTable_) {
        if (row.wide >= wide) return row.nice;
    }
    return -1;  // for priorities above the scale: they become nice -1
}

PZThreadMng::Record* PZThreadMng::FindLocked(unsigned long handle) {
    const auto record = threads_.find(handle);
    return record != threads_.end() ? &record->second : nullptr;
}

// cppcheck-suppress uninitDerivedMemberVar ; the base is copied
PZThreadMng::Record::Record(const ThreadInfo& info, int knownTid)
    : ThreadInfo(info), tid(knownTid), owner(nullptr) {
    pz_inspect_set(shown.handle, reinterpret_cast<const void*>(info.handle));
    pz_inspect_set(shown.name, name);
    Show();
    pz_inspection_join(pz_inspection.threads, shown, PZ_INSPECTED_THREAD_KIND);
}

PZThreadMng::Record::~Record() {
    pz_inspection_leave(pz_inspection.threads, shown);
}

/// Another thread has got the handle.
void PZThreadMng::Record::Replace(const ThreadInfo& info, int newTid) {
    const PZMutexLock isShown(pz_inspection_lock);
    static_cast<ThreadInfo&>(*this) = info;
    tid = newTid;
    owner = nullptr;
    Show();
}

/// After a change of what is shown.
void PZThreadMng::Record::Show() {
    pz_inspect_set(shown.tid, tid);
    pz_inspect_set(shown.priority, priority);
    pz_inspect_set(shown.watchTimeMs, watchTime);
}
