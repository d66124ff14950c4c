#include "Table.h"

#include <algorithm>

#include "Text.h"
#include "common/Words.h"

namespace {

/// The rows of a table, whose columns become as wide as they have to be.
class Grid {
public:
    struct Column {
        const char* heading;
        bool isNumber;
    };

    explicit Grid(std::vector<Column> columns) : columns_(std::move(columns)) {}

    void Add(std::vector<std::string> cells, Style style = Style::Plain) {
        cells.resize(columns_.size());
        rows_.push_back({std::move(cells), style});
    }

    void AppendTo(std::vector<Line>& lines) const {
        Row heading = {{}, Style::Heading};
        for (const Column& column : columns_) heading.cells.emplace_back(column.heading);
        lines.push_back(LineOf(heading));
        for (const Row& row : rows_) lines.push_back(LineOf(row));
    }

private:
    struct Row {
        std::vector<std::string> cells;
        Style style;
    };

    std::size_t WidthOf(std::size_t column) const {
        std::size_t width = columns_of(columns_[column].heading);
        for (const Row& row : rows_) width = std::max(width, columns_of(row.cells[column]));
        return width;
    }

    Line LineOf(const Row& row) const {
        std::string text;
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            if (i > 0) text += "  ";
            text += padded(row.cells[i], WidthOf(i), columns_[i].isNumber);
        }
        text.erase(text.find_last_not_of(' ') + 1);
        return {text, row.style};
    }

    std::vector<Column> columns_;
    std::vector<Row> rows_;
};

Grid::Column word(const char* heading) {
    return {heading, false};
}

Grid::Column number(const char* heading) {
    return {heading, true};
}

template <typename T>
std::string known(const std::optional<T>& value) {
    return value ? std::to_string(*value) : "?";
}

std::string rate(const std::optional<double>& value) {
    return value ? fixed(*value, 0) : "?";
}

std::string state_word(char state) {
    switch (state) {
        case 'R':
            return "running";
        case 'S':
        case 'I':
            return "sleeping";
        case 'D':
            return "disk";
        case 'T':
        case 't':
            return "stopped";
        case 'Z':
        case 'X':
            return "ended";
        default:
            return "?";
    }
}

std::string object_text(const Activity& now) {
    return now.isEvent ? "event bits " + hex(now.id) : "message " + std::to_string(now.id);
}

/// What a handler or callback is doing; `what` stands before the object.
std::string activity_text(const Activity& now, const std::string& what, bool hangs) {
    switch (now.state) {
        case Activity::Idle:
            return "-";
        case Activity::Changing:
            return "short ones";
        case Activity::Unknown:
            return "?";
        default:
            return what + " " + hex(now.object) + " for " + duration(now.forMs) +
                   (hangs ? ", HANGS" : "");
    }
}

std::string handler_text(const BoxInfo& box, bool hangs) {
    return activity_text(box.now, object_text(box.now) + " of", hangs);
}

Line title_of(const ProcessView& view) {
    std::string text = view.name + "  id " + std::to_string(static_cast<std::int32_t>(view.id)) +
                       "  pid " + std::to_string(view.pid);
    if (view.isForked) text += "  (forked: shows what its parent had)";
    text += "   descriptors " + known(view.descriptors) + " of " + known(view.descriptorLimit);
    text += "   private memory " + (view.privateBytes ? bytes(*view.privateBytes) : "?");
    return {text, Style::Heading};
}

/// With an empty line above.
void append_section(const Grid& grid, std::vector<Line>& lines) {
    lines.emplace_back();
    grid.AppendTo(lines);
}

void append_threads(const ProcessView& view, std::vector<Line>& lines) {
    Grid grid({word("THREAD"), number("TID"), number("PRIO"), number("NICE"), number("CPU%"),
               word("STATE"), number("WATCH")});
    for (const ThreadView& thread : view.threads) {
        grid.Add({thread.name, thread.tid != 0 ? std::to_string(thread.tid) : "?",
                  thread.priority ? std::to_string(*thread.priority) : "-",
                  thread.nice ? std::to_string(*thread.nice) : "-",
                  thread.share ? fixed(*thread.share, 1) : "?", state_word(thread.state),
                  thread.watchTimeMs != 0 ? duration(thread.watchTimeMs) : "-"},
                 thread.hangs ? Style::Alarm : Style::Plain);
    }
    grid.AppendTo(lines);
}

void append_workers(const ProcessView& view, std::vector<Line>& lines) {
    Grid grid({word("WORKER"), number("NO"), number("PENDING"), number("MOST"), number("EVENTS"),
               number("MOST"), number("SERVED"), number("PER S"), number("REFUSED"),
               number("LONGEST"), word("RUNS NOW")});
    bool hasRows = false;
    for (const ThreadView& thread : view.threads) {
        if (!thread.box) continue;
        const BoxInfo& box = *thread.box;
        hasRows = true;
        grid.Add(
            {thread.name, std::to_string(box.number), known(box.pending) + "/256",
             known(box.mostPending), known(box.events) + "/256", known(box.mostEvents),
             std::to_string(std::uint64_t{box.served} + box.servedEvents), rate(thread.perSecond),
             known(box.refused), duration(box.longestMs), handler_text(box, thread.hangs)},
            thread.hangs ? Style::Alarm : Style::Plain);
    }
    if (!hasRows) return;
    append_section(grid, lines);
}

void append_bands(const ProcessView& view, std::vector<Line>& lines) {
    if (view.bands.empty()) return;
    Grid grid({word("TIMERS"), number("ACTIVE"), number("NEXT"), number("FIRED"),
               number("WORST LATE"), number("MEDIAN LATE"), number("LONGEST"), word("RUNS NOW")});
    for (const BandView& row : view.bands) {
        const BandInfo& band = row.band;
        grid.Add({row.name, std::to_string(band.active), band.nextMs ? duration(*band.nextMs) : "-",
                  std::to_string(band.fired), duration(band.worstLateMs),
                  band.medianLateMs ? duration(*band.medianLateMs) : "-", duration(band.longestMs),
                  activity_text(band.now, "timer", row.hangs)},
                 row.hangs ? Style::Alarm : Style::Plain);
    }
    append_section(grid, lines);
}

std::string side_text(const QueueInfo& queue) {
    if (queue.sends && queue.receives) return "both";
    if (queue.sends) return "sends";
    return queue.receives ? "receives" : "?";
}

void append_queues(const ProcessView& view, std::vector<Line>& lines) {
    if (view.queues.empty()) return;
    Grid grid({word("QUEUE"), word("SIDE"), number("WAITING"), number("SENT"), number("RECEIVED"),
               number("REFUSED")});
    for (const QueueView& row : view.queues) {
        const std::string fill =
            row.fill ? std::to_string(row.fill->waiting) + "/" + std::to_string(row.fill->most)
                     : "?";
        grid.Add({row.queue.name.value_or("?"), side_text(row.queue), fill,
                  row.queue.sends ? std::to_string(row.queue.sent) : "-",
                  row.queue.receives ? std::to_string(row.queue.received) : "-",
                  std::to_string(row.queue.refused)});
    }
    append_section(grid, lines);
}

void append_heap(const ProcessView& view, std::vector<Line>& lines) {
    if (!view.heap) return;
    Grid grid({word("ACCOUNTED HEAP"), number("TID"), number("BLOCKS"), number("MOST"),
               number("BYTES"), number("MOST")});
    const auto add = [&grid](const std::string& name, const UsageInfo& usage) {
        grid.Add({name, usage.tid != 0 ? std::to_string(usage.tid) : "-",
                  std::to_string(usage.blocks), std::to_string(usage.mostBlocks),
                  std::to_string(usage.bytes), std::to_string(usage.mostBytes)});
    };
    add("all threads", *view.heap);
    for (const HeapView& row : view.heapThreads) add(row.name, row.usage);
    append_section(grid, lines);
}

void append_waits(const ProcessView& view, std::vector<Line>& lines) {
    if (view.waits.empty()) return;
    Grid grid(
        {word("WAITS FOR A LOCK"), number("TID"), word("LOCK"), number("SINCE"), word("HELD BY")});
    for (const WaitView& row : view.waits) {
        std::string holder = row.holder;
        if (row.holderTid != 0) holder += " (" + std::to_string(row.holderTid) + ")";
        grid.Add({row.name, std::to_string(row.tid), row.lock, duration(row.forMs), holder});
    }
    append_section(grid, lines);
    for (const auto& circle : view.deadlocks) {
        std::string text = "DEADLOCK:";
        for (const ThreadView& thread : circle) {
            text += " " + thread.name + " (" + std::to_string(thread.tid) + ") waits for";
        }
        text += " " + circle.front().name + " (" + std::to_string(circle.front().tid) + ")";
        lines.push_back({text, Style::Alarm});
    }
}

// Nothing, bold, bold and red.
constexpr Words<Style, Style::Alarm> kStyleStarts = {"", "\033[1m", "\033[1;31m"};

}  // namespace

std::vector<Line> table_of(const ProcessView& view) {
    std::vector<Line> lines = {title_of(view), {}};
    append_threads(view, lines);
    append_workers(view, lines);
    append_bands(view, lines);
    append_queues(view, lines);
    append_heap(view, lines);
    append_waits(view, lines);
    if (!view.isComplete) lines.push_back({"? some records could not be read", Style::Plain});
    return lines;
}

std::vector<Line> table_of(const std::vector<ProcessRow>& rows, std::size_t notAllowed) {
    Grid grid({word("PROCESS"), number("ID"), number("PID"), number("WORKERS"), number("PENDING"),
               number("PER S"), number("TIMERS"), word("WORST HANDLER NOW")});
    for (const ProcessRow& row : rows) {
        if (!row.id) {
            grid.Add({row.name, "?", std::to_string(row.pid), "?", "?", "?", "?",
                      "table of version " + std::to_string(row.version)});
            continue;
        }
        std::string worst = "-";
        if (row.worst.state == Activity::Running) {
            worst = row.worstThread + " for " + duration(row.worst.forMs);
            if (row.hangs) worst += ", HANGS";
        }
        grid.Add({row.name, std::to_string(static_cast<std::int32_t>(*row.id)),
                  std::to_string(row.pid), std::to_string(row.workers), std::to_string(row.pending),
                  rate(row.perSecond), std::to_string(row.timers), worst},
                 row.hangs ? Style::Alarm : Style::Plain);
    }
    std::vector<Line> lines;
    grid.AppendTo(lines);
    if (notAllowed != 0) {
        lines.emplace_back();
        lines.push_back(
            {std::to_string(notAllowed) +
                 (notAllowed == 1 ? " process of another user" : " processes of other users") +
                 " may not be looked at",
             Style::Plain});
    }
    return lines;
}

std::string text_of(const std::vector<Line>& lines, bool colours) {
    std::string text;
    for (const Line& line : lines) {
        const bool isColoured = colours && line.style != Style::Plain;
        if (isColoured) text += kStyleStarts[line.style];
        text += line.text;
        if (isColoured) text += "\033[0m";
        text += '\n';
    }
    return text;
}
