#include "View.h"

#include <algorithm>

#include "Text.h"

namespace {

bool is_hanging(const Activity& now, std::uint32_t watchTimeMs) {
    return now.state == Activity::Running && watchTimeMs != 0 && now.forMs > watchTimeMs;
}

/// How much a counter of 32 bits has gone on each second; nothing when no time has passed.
std::optional<double> rate(std::uint32_t before, std::uint32_t now, std::uint64_t passedNs) {
    if (passedNs == 0) return {};
    return static_cast<double>(now - before) * 1e9 / static_cast<double>(passedNs);
}

/// A reading of the process that was made before; null when there is none of this very process.
const Reading* earlier(const Reading* before, const Reading& now) {
    const bool isSame =
        before != nullptr && before->pid == now.pid && before->startTime == now.startTime;
    return isSame ? before : nullptr;
}

std::uint32_t served_of(const BoxInfo& box) {
    return box.served + box.servedEvents;
}

const BoxInfo* box_of(const Inspection& inspection, std::uint32_t tid) {
    for (const BoxInfo& box : inspection.boxes) {
        if (tid != 0 && box.tid == tid) return &box;
    }
    return nullptr;
}

/// Puts what two readings tell together.
class Viewer {
public:
    Viewer(const Reading* before, const Reading& now)
        : before_(earlier(before, now)),
          now_(now),
          seen_(now.inspection),
          passedNs_(before_ != nullptr ? now.atNs - before_->atNs : 0) {}

    ProcessView View() {
        view_.pid = now_.pid;
        view_.name = now_.name;
        view_.id = seen_.id;
        view_.isForked = IsForked();
        view_.descriptors = now_.descriptors;
        view_.descriptorLimit = now_.descriptorLimit;
        view_.privateBytes = now_.privateBytes;
        view_.isComplete =
            seen_.areBoxesComplete && seen_.areBandsComplete && seen_.areThreadsComplete;
        AddThreads();
        AddBands();
        AddQueues();
        AddHeap();
        AddWaits();
        return view_;
    }

private:
    bool IsForked() const {
        return seen_.pid != 0 &&
               std::none_of(now_.tasks.begin(), now_.tasks.end(),
                            [this](const TaskInfo& task) { return task.innerTid == seen_.pid; });
    }

    const ThreadInfo* Registered(std::uint32_t innerTid) const {
        for (const ThreadInfo& thread : seen_.threads) {
            if (thread.tid == innerTid) return &thread;
        }
        return nullptr;
    }

    const TaskInfo* Task(std::uint32_t innerTid) const {
        for (const TaskInfo& task : now_.tasks) {
            if (task.innerTid == innerTid) return &task;
        }
        return nullptr;
    }

    static std::string NameOf(const ThreadInfo& thread) { return thread.name.value_or("?"); }

    std::string NameOf(std::uint32_t innerTid) const {
        if (const ThreadInfo* const thread = Registered(innerTid)) return NameOf(*thread);
        const TaskInfo* const task = Task(innerTid);
        return task != nullptr ? task->name : "?";
    }

    void AddThreads() {
        for (const TaskInfo& task : now_.tasks) {
            ThreadView thread;
            thread.tid = task.tid;
            thread.name = task.name;
            thread.nice = task.nice;
            thread.state = task.state;
            thread.share = ShareOf(task);
            if (const ThreadInfo* const info = Registered(task.innerTid)) {
                AddRegistration(*info, thread);
            }
            AddBox(task.innerTid, thread);
            view_.threads.push_back(thread);
        }
        for (const ThreadInfo& info : seen_.threads) {
            if (info.tid != 0 && Task(info.tid) != nullptr) continue;
            ThreadView thread;
            if (info.tid != 0) thread.state = 'X';
            AddRegistration(info, thread);
            AddBox(info.tid, thread);
            view_.threads.push_back(thread);
        }
        for (const BoxInfo& box : seen_.boxes) {
            const bool isShown =
                box.tid != 0 && (Task(box.tid) != nullptr || Registered(box.tid) != nullptr);
            if (isShown) continue;
            ThreadView nobody;
            nobody.name = "(no thread)";
            nobody.state = 'X';
            nobody.box = box;
            view_.threads.push_back(nobody);
        }
    }

    static void AddRegistration(const ThreadInfo& info, ThreadView& thread) {
        thread.name = NameOf(info);
        thread.priority = info.priority;
        thread.watchTimeMs = info.watchTimeMs;
    }

    void AddBox(std::uint32_t innerTid, ThreadView& thread) const {
        const BoxInfo* const box = box_of(seen_, innerTid);
        if (box == nullptr) return;
        thread.box = *box;
        thread.hangs = is_hanging(box->now, thread.watchTimeMs);
        const BoxInfo* const old =
            before_ != nullptr ? box_of(before_->inspection, innerTid) : nullptr;
        if (old != nullptr) thread.perSecond = rate(served_of(*old), served_of(*box), passedNs_);
    }

    std::optional<double> ShareOf(const TaskInfo& task) const {
        if (before_ == nullptr || passedNs_ == 0) return {};
        for (const TaskInfo& old : before_->tasks) {
            if (old.tid != task.tid || task.runNs < old.runNs) continue;
            return static_cast<double>(task.runNs - old.runNs) * 100.0 /
                   static_cast<double>(passedNs_);
        }
        return {};
    }

    void AddBands() {
        for (const BandInfo& band : seen_.bands) {
            const ThreadInfo* const thread = band.tid != 0 ? Registered(band.tid) : nullptr;
            const bool hangs = thread != nullptr && is_hanging(band.now, thread->watchTimeMs);
            view_.bands.push_back({band.tid != 0 ? NameOf(band.tid) : "-", band, hangs});
            for (ThreadView& row : view_.threads) {
                const TaskInfo* const task = Task(band.tid);
                if (hangs && task != nullptr && row.tid == task->tid) row.hangs = true;
            }
        }
    }

    void AddQueues() {
        for (const QueueInfo& queue : seen_.queues) {
            const auto fill = now_.queueFills.find(queue.name.value_or(""));
            view_.queues.push_back({queue, fill != now_.queueFills.end()
                                               ? std::optional<QueueFill>(fill->second)
                                               : std::nullopt});
        }
    }

    void AddHeap() {
        view_.heap = seen_.heap;
        for (const UsageInfo& usage : seen_.heapThreads) {
            view_.heapThreads.push_back({NameOf(usage.tid), usage});
        }
    }

    std::uint32_t TidHere(std::uint32_t innerTid) const {
        const TaskInfo* const task = Task(innerTid);
        return task != nullptr ? task->tid : 0;
    }

    /// Kernel id of the thread with this handle; 0 when nobody has told it.
    std::uint32_t TidOfHandle(std::uint64_t handle) const {
        if (handle == seen_.mainHandle) return seen_.mainTid;
        for (const ThreadInfo& thread : seen_.threads) {
            if (thread.handle == handle) return thread.tid;
        }
        for (const WaitInfo& wait : seen_.waits) {
            if (wait.handle == handle) return wait.tid;
        }
        return 0;
    }

    void AddWaits() {
        for (const WaitInfo& wait : seen_.waits) {
            const std::uint32_t tid = TidHere(wait.tid);
            if (tid == 0) continue;  // of the process that it was forked from
            WaitView row;
            row.tid = tid;
            row.name = NameOf(wait.tid);
            row.lock = wait.lockName.empty() ? hex(wait.lock) : wait.lockName;
            row.forMs = wait.forMs;
            AddHolder(wait, row);
            view_.waits.push_back(row);
        }
        for (const auto& circle : seen_.deadlocks) {
            std::vector<ThreadView> threads;
            for (const std::uint32_t innerTid : circle) {
                ThreadView thread;
                thread.tid = TidHere(innerTid);
                thread.name = NameOf(innerTid);
                threads.push_back(thread);
            }
            view_.deadlocks.push_back(threads);
        }
    }

    void AddHolder(const WaitInfo& wait, WaitView& row) const {
        if (wait.holder == 0) {
            row.holder = wait.isShared ? "another process" : "?";
            return;
        }
        const std::uint32_t tid = TidOfHandle(wait.holder);
        row.holderTid = TidHere(tid);
        row.holder = tid != 0 ? NameOf(tid) : "thread " + hex(wait.holder);
    }

    const Reading* const before_;
    const Reading& now_;
    const Inspection& seen_;
    const std::uint64_t passedNs_;
    ProcessView view_;
};

std::uint32_t served_of(const Reading& reading) {
    std::uint32_t sum = 0;
    for (const BoxInfo& box : reading.inspection.boxes) sum += served_of(box);
    return sum;
}

/// Keeps the activity that stands out most: one that hangs, then the longest.
void look_at_activity(const Inspection& inspection, const Activity& now, std::uint32_t tid,
                      ProcessRow& row) {
    if (now.state != Activity::Running) return;
    std::string name = "?";
    bool hangs = false;
    for (const ThreadInfo& thread : inspection.threads) {
        if (thread.tid != tid) continue;
        name = thread.name.value_or("?");
        hangs = is_hanging(now, thread.watchTimeMs);
    }
    const bool isFirst = row.worst.state != Activity::Running;
    const bool standsOut = hangs != row.hangs ? hangs : now.forMs > row.worst.forMs;
    if (!isFirst && !standsOut) return;
    row.worst = now;
    row.worstThread = name;
    row.hangs = hangs;
}

ProcessRow row_of(const Reading* before, const Reading& now) {
    const Inspection& seen = now.inspection;
    ProcessRow row;
    row.pid = now.pid;
    row.name = now.name;
    row.id = seen.id;
    row.version = now.version;
    row.isComplete = seen.areBoxesComplete && seen.areBandsComplete && seen.areThreadsComplete;
    for (const BoxInfo& box : seen.boxes) {
        if (box.tid != 0) ++row.workers;
        row.pending += box.pending.value_or(0) + box.events.value_or(0);
        look_at_activity(seen, box.now, box.tid, row);
    }
    for (const BandInfo& band : seen.bands) {
        row.timers += band.active;
        look_at_activity(seen, band.now, band.tid, row);
    }
    if (const Reading* const old = earlier(before, now)) {
        row.perSecond = rate(served_of(*old), served_of(now), now.atNs - old->atNs);
    }
    return row;
}

const Reading* find(const MachineReading* machine, pid_t pid) {
    if (machine == nullptr) return nullptr;
    for (const Reading& reading : machine->processes) {
        if (reading.pid == pid) return &reading;
    }
    return nullptr;
}

double weight(const ThreadView& thread, SortKey key) {
    switch (key) {
        case SortKey::Load:
            return thread.share.value_or(-1);
        case SortKey::Pending:
            return thread.box ? thread.box->pending.value_or(0) : -1.0;
        case SortKey::Refused:
            return thread.box ? thread.box->refused.value_or(0) : -1.0;
        default:
            return 0;
    }
}

double weight(const ProcessRow& row, SortKey key) {
    switch (key) {
        case SortKey::Load:
            return row.perSecond.value_or(-1);
        case SortKey::Pending:
            return row.pending;
        default:
            return 0;
    }
}

template <typename Row>
void sort_by(std::vector<Row>& rows, SortKey key) {
    std::stable_sort(rows.begin(), rows.end(), [key](const Row& left, const Row& right) {
        if (key == SortKey::Name) return left.name < right.name;
        return weight(left, key) > weight(right, key);
    });
}

}  // namespace

ProcessView view_of(const Reading* before, const Reading& now) {
    return Viewer(before, now).View();
}

std::vector<ProcessRow> rows_of(const MachineReading* before, const MachineReading& now) {
    std::vector<ProcessRow> rows;
    for (const Reading& reading : now.processes) {
        rows.push_back(row_of(find(before, reading.pid), reading));
    }
    for (const Reading& reading : now.others) {
        ProcessRow row;
        row.pid = reading.pid;
        row.name = reading.name;
        row.version = reading.version;
        rows.push_back(row);
    }
    return rows;
}

void sort_threads(ProcessView& view, SortKey key) {
    sort_by(view.threads, key);
}

void sort_rows(std::vector<ProcessRow>& rows, SortKey key) {
    sort_by(rows, key);
}
