#include "Json.h"

#include "Text.h"
#include "common/Words.h"

namespace {

constexpr Words<Activity::State, Activity::Unknown> kStates = {"idle", "running", "changing",
                                                               "unknown"};

/// An object that grows member by member.
class Object {
public:
    Object& Raw(const char* name, const std::string& value) {
        text_ += (text_.empty() ? "" : ", ") + json_string(name) + ": " + value;
        return *this;
    }

    Object& Add(const char* name, const std::string& value) {
        return Raw(name, json_string(value));
    }
    Object& Add(const char* name, const char* value) { return Raw(name, json_string(value)); }
    Object& Add(const char* name, bool value) { return Raw(name, value ? "true" : "false"); }
    Object& Add(const char* name, std::int64_t value) { return Raw(name, std::to_string(value)); }
    Object& Add(const char* name, std::uint64_t value) { return Raw(name, std::to_string(value)); }
    Object& Add(const char* name, std::uint32_t value) { return Raw(name, std::to_string(value)); }
    Object& Add(const char* name, int value) { return Raw(name, std::to_string(value)); }

    Object& Add(const char* name, double value) { return Raw(name, fixed(value, 1)); }

    template <typename T>
    Object& Add(const char* name, const std::optional<T>& value) {
        return value ? Add(name, *value) : Raw(name, "null");
    }

    /// A value, and the most that it has been.
    template <typename T>
    Object& AddWithMost(const char* name, const T& value, const T& most) {
        return Add(name, value).Add(("most_" + std::string(name)).c_str(), most);
    }

    /// What a thread is doing; `running` is the object of what it runs.
    Object& AddActivity(const Activity& now, const std::string& running) {
        return Add("state", kStates[now.state]).Raw("running", running);
    }

    std::string Text() const { return "{" + text_ + "}"; }

private:
    std::string text_;
};

template <typename Items, typename TextOf>
std::string array_of(const Items& items, TextOf textOf) {
    std::string text = "[";
    for (const auto& item : items) {
        if (text.size() > 1) text += ", ";
        text += textOf(item);
    }
    return text + "]";
}

/// What a handler runs: null unless that is known.
std::string handler_text(const Activity& now) {
    if (now.state != Activity::Running) return "null";
    return Object()
        .Add("kind", now.isEvent ? "event" : "message")
        .Add("id", now.id)
        .Add("dispatcher", hex(now.object))
        .Add("for_ms", now.forMs)
        .Text();
}

std::string callback_text(const Activity& now) {
    if (now.state != Activity::Running) return "null";
    return Object().Add("timer", hex(now.object)).Add("for_ms", now.forMs).Text();
}

std::string worker_text(const ThreadView& thread) {
    if (!thread.box) return "null";
    const BoxInfo& box = *thread.box;
    return Object()
        .Add("number", box.number)
        .AddWithMost("pending", box.pending, box.mostPending)
        .AddWithMost("events", box.events, box.mostEvents)
        .Add("served", box.served)
        .Add("served_events", box.servedEvents)
        .Add("per_second", thread.perSecond)
        .Add("refused", box.refused)
        .Add("longest_ms", box.longestMs)
        .AddActivity(box.now, handler_text(box.now))
        .Text();
}

/// 0 stands for an unknown one.
std::string tid_text(std::uint32_t tid) {
    return tid != 0 ? std::to_string(tid) : "null";
}

Object named(const std::string& thread, std::uint32_t tid) {
    return Object().Add("name", thread).Raw("tid", tid_text(tid));
}

std::string thread_text(const ThreadView& thread) {
    return named(thread.name, thread.tid)
        .Add("priority", thread.priority)
        .Add("nice", thread.nice)
        .Add("cpu_percent", thread.share)
        .Add("state", std::string(1, thread.state))
        .Add("watch_ms", thread.watchTimeMs)
        .Add("hangs", thread.hangs)
        .Raw("worker", worker_text(thread))
        .Text();
}

std::string band_text(const BandView& row) {
    const BandInfo& band = row.band;
    Object object;
    object.Add("name", row.name).Add("active", band.active).Add("next_ms", band.nextMs);
    object.Add("fired", band.fired).Add("worst_late_ms", band.worstLateMs);
    object.Add("median_late_ms", band.medianLateMs).Add("longest_ms", band.longestMs);
    return object.Add("hangs", row.hangs).AddActivity(band.now, callback_text(band.now)).Text();
}

std::string queue_text(const QueueView& row) {
    return Object()
        .Add("name", row.queue.name)
        .Add("sends", row.queue.sends)
        .Add("receives", row.queue.receives)
        .Add("waiting", row.fill ? Count(row.fill->waiting) : Count())
        .Add("most", row.fill ? Count(row.fill->most) : Count())
        .Add("sent", row.queue.sent)
        .Add("received", row.queue.received)
        .Add("refused", row.queue.refused)
        .Text();
}

Object usage_of(const UsageInfo& usage) {
    return Object()
        .AddWithMost("blocks", usage.blocks, usage.mostBlocks)
        .AddWithMost("bytes", usage.bytes, usage.mostBytes);
}

std::string heap_text(const ProcessView& view) {
    if (!view.heap) return "null";
    const auto threadText = [](const HeapView& row) {
        return usage_of(row.usage).Add("name", row.name).Add("tid", row.usage.tid).Text();
    };
    return usage_of(*view.heap).Raw("threads", array_of(view.heapThreads, threadText)).Text();
}

std::string wait_text(const WaitView& wait) {
    return named(wait.name, wait.tid)
        .Add("lock", wait.lock)
        .Add("for_ms", wait.forMs)
        .Add("holder", wait.holder)
        .Raw("holder_tid", tid_text(wait.holderTid))
        .Text();
}

std::string deadlock_text(const std::vector<ThreadView>& circle) {
    return array_of(circle,
                    [](const ThreadView& thread) { return named(thread.name, thread.tid).Text(); });
}

std::string row_text(const ProcessRow& row) {
    Object object;
    object.Add("name", row.name).Add("pid", row.pid).Add("table_version", row.version);
    if (!row.id) return object.Text();
    return object.Add("id", static_cast<int>(*row.id))
        .Add("workers", row.workers)
        .Add("pending", row.pending)
        .Add("per_second", row.perSecond)
        .Add("timers", row.timers)
        .Add("hangs", row.hangs)
        .Add("worst_thread", row.worst.state == Activity::Running
                                 ? std::optional<std::string>(row.worstThread)
                                 : std::nullopt)
        .Add("worst_ms", row.worst.state == Activity::Running ? Count(row.worst.forMs) : Count())
        .Add("complete", row.isComplete)
        .Text();
}

}  // namespace

std::string json_of(const ProcessView& view) {
    return Object()
               .Add("version", 1)
               .Add("name", view.name)
               .Add("id", static_cast<int>(view.id))
               .Add("pid", view.pid)
               .Add("forked", view.isForked)
               .Add("complete", view.isComplete)
               .Add("descriptors", view.descriptors)
               .Add("descriptor_limit", view.descriptorLimit)
               .Add("private_bytes", view.privateBytes)
               .Raw("threads", array_of(view.threads, thread_text))
               .Raw("bands", array_of(view.bands, band_text))
               .Raw("queues", array_of(view.queues, queue_text))
               .Raw("heap", heap_text(view))
               .Raw("waits", array_of(view.waits, wait_text))
               .Raw("deadlocks", array_of(view.deadlocks, deadlock_text))
               .Text() +
           "\n";
}

std::string json_of(const std::vector<ProcessRow>& rows, std::size_t notAllowed) {
    return Object()
               .Add("version", 1)
               .Raw("processes", array_of(rows, row_text))
               .Add("not_allowed", static_cast<std::uint64_t>(notAllowed))
               .Text() +
           "\n";
}
