#include "Watcher.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <utility>

#include "Json.h"
#include "ProcFolder.h"
#include "Reading.h"
#include "Text.h"

namespace {

class MachineWatcher : public Watcher {
public:
    int Look() override {
        before_ = std::exchange(now_, read_machine());
        if (!now_->processes.empty() || !now_->others.empty()) return kExitDone;
        problem_ = "no process uses the library";
        if (!now_->notAllowed.empty()) {
            problem_ += "; " + std::to_string(now_->notAllowed.size()) +
                        " of other users may not be looked at";
        }
        return kExitNothing;
    }

    std::vector<Line> Table(SortKey key) const override {
        auto rows = Rows();
        sort_rows(rows, key);
        return table_of(rows, now_->notAllowed.size());
    }

    std::string Json() const override { return json_of(Rows(), now_->notAllowed.size()); }

private:
    std::vector<ProcessRow> Rows() const { return rows_of(before_ ? &*before_ : nullptr, *now_); }

    std::optional<MachineReading> before_;
    std::optional<MachineReading> now_;
};

class ProcessWatcher : public Watcher {
public:
    explicit ProcessWatcher(pid_t pid) : pid_(pid) {}

    int Look() override {
        Reading reading;
        const ::Look look = read_process(pid_, true, reading);
        // One that is just ending has no memory any more, and so no library.
        const bool isOver = now_ && look != ::Look::Gone &&
                            (now_->startTime != reading.startTime || look == ::Look::NoLibrary);
        if (look != ::Look::Done || isOver) return Failed(isOver ? ::Look::Gone : look, reading);
        before_ = std::exchange(now_, std::move(reading));
        return kExitDone;
    }

    std::vector<Line> Table(SortKey key) const override {
        ProcessView view = View();
        sort_threads(view, key);
        return table_of(view);
    }

    std::string Json() const override { return json_of(View()); }

private:
    ProcessView View() const { return view_of(before_ ? &*before_ : nullptr, *now_); }

    int Failed(::Look look, const Reading& reading) {
        const std::string process = "process " + std::to_string(pid_);
        const std::string named = process + " (" + reading.name + ")";
        switch (look) {
            case ::Look::NotAllowed:
                problem_ = named +
                           " may not be looked at: only its own user or root may, as with a "
                           "debugger (see also kernel.yama.ptrace_scope)";
                return kExitNotAllowed;
            case ::Look::Gone:
                problem_ = now_ ? process + " has ended" : "there is no " + process;
                return kExitNothing;
            case ::Look::NoLibrary:
                problem_ = named + " does not use the library";
                return kExitNothing;
            case ::Look::TooWide:
                problem_ = named + " is a 64-bit process: use a 64-bit pz-top";
                return kExitNothing;
            case ::Look::OtherVersion:
                problem_ = named + " shows a table of version " + std::to_string(reading.version) +
                           ", this program reads version 1: use the pz-top of its library";
                return kExitNothing;
            default:
                problem_ = named + " has a table that makes no sense";
                return kExitNothing;
        }
    }

    const pid_t pid_;
    std::optional<Reading> before_;
    std::optional<Reading> now_;
};

bool is_number(const std::string& text) {
    return !text.empty() && text.size() < 10 &&
           text.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

std::unique_ptr<Watcher> watch_machine() {
    return std::make_unique<MachineWatcher>();
}

std::unique_ptr<Watcher> watch_process(pid_t pid) {
    return std::make_unique<ProcessWatcher>(pid);
}

pid_t find_process(const std::string& nameOrNumber, int& status, std::string& problem) {
    if (is_number(nameOrNumber))
        return static_cast<pid_t>(std::strtol(nameOrNumber.c_str(), nullptr, 10));
    const MachineReading machine = read_machine();
    std::vector<pid_t> found;
    for (const auto* readings : {&machine.processes, &machine.others}) {
        for (const Reading& reading : *readings) {
            const bool isNamed =
                reading.name == nameOrNumber || ProcFolder(reading.pid).Name() == nameOrNumber;
            if (isNamed) found.push_back(reading.pid);
        }
    }
    if (found.size() == 1) return found.front();
    const std::string shown = printable(nameOrNumber);
    if (!found.empty()) {
        status = kExitUsage;
        problem = std::to_string(found.size()) + " processes are called " + shown +
                  "; give the number of one:";
        for (const pid_t pid : found) problem += " " + std::to_string(pid);
        return 0;
    }
    const bool mayBeForbidden =
        std::any_of(machine.notAllowed.begin(), machine.notAllowed.end(),
                    [&](pid_t pid) { return ProcFolder(pid).Name() == nameOrNumber; });
    status = mayBeForbidden ? kExitNotAllowed : kExitNothing;
    problem = mayBeForbidden ? "a process called " + shown + " may not be looked at"
                             : "no process called " + shown + " uses the library";
    return 0;
}
