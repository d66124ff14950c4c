#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/JsonReader.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"
#include "support/Uncopyable.h"
#include "support/WaitUntil.h"

// pz-top, looking at live processes.

namespace {

using pztest::JsonValue;

constexpr char kTop[] = "'" PZ_TOP "' ";

/// A pipe whose ends close with it, and that no program started meanwhile gets.
class Pipe : private pztest::Uncopyable {
public:
    Pipe() {
        if (pipe2(ends_, O_CLOEXEC) != 0) std::abort();
    }
    ~Pipe() {
        Close(0);
        Close(1);
    }
    int ReadEnd() const { return ends_[0]; }
    int WriteEnd() const { return ends_[1]; }
    void CloseReadEnd() { Close(0); }
    void CloseWriteEnd() { Close(1); }

private:
    void Close(int end) {
        if (ends_[end] != -1) close(ends_[end]);
        ends_[end] = -1;
    }

    int ends_[2] = {-1, -1};
};

/// A running top_program; ends with this object.
class Program {
public:
    explicit Program(const std::string& mode, const std::string& name = "pz_top_test",
                     const std::string& file = PZ_TOP_PROGRAM) {
        process_.emplace([&] {
            dup2(in_.ReadEnd(), STDIN_FILENO);
            dup2(out_.WriteEnd(), STDOUT_FILENO);
            return execl(file.c_str(), "top_program", mode.c_str(), name.c_str(), nullptr);
        });
        pid_ = process_->Pid();
        in_.CloseReadEnd();
        out_.CloseWriteEnd();
    }
    ~Program() { End(); }

    pid_t Pid() const { return pid_; }
    std::string PidText() const { return std::to_string(pid_); }

    /// What it has counted itself, when it has done its work; aborts when it never comes so far.
    std::string Counted() {
        std::string line;
        for (char byte = 0; read(out_.ReadEnd(), &byte, 1) == 1;) {
            if (byte != '\n') {
                line += byte;
            } else if (line.compare(0, 6, "ready ") == 0) {
                return line.substr(6);
            } else {
                line.clear();
            }
        }
        std::abort();
    }

    /// Ends it by itself.
    void End() {
        in_.CloseWriteEnd();
        if (process_) process_->Wait();
        process_.reset();
    }

    void Kill() { process_.reset(); }

private:
    Pipe in_;
    Pipe out_;
    std::optional<pztest::ChildProcess> process_;
    pid_t pid_ = -1;
};

pztest::CommandResult top(const std::string& arguments) {
    return pztest::run_command(kTop + arguments + " 2>&1");
}

/// The object that pz-top prints of a process.
JsonValue json_of(const std::string& process) {
    const auto result = top("--json --once --interval 50 " + process);
    const auto value = pztest::read_json(result.output);
    EXPECT_EQ(0, result.status) << result.output;
    if (!value) {
        ADD_FAILURE() << "no JSON: " << result.output;
        std::abort();
    }
    return *value;
}

/// The entry of a list whose "name" that is; aborts when there is none.
const JsonValue& named(const JsonValue& list, const std::string& name) {
    for (const auto& member : list.members) {
        if (member.second.At("name").text == name) return member.second;
    }
    ADD_FAILURE() << "no entry " << name;
    std::abort();
}

bool is_null(const JsonValue& value) {
    return value.kind == JsonValue::Kind::Null;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

/// Adds the names of the members of an object and of all objects in it.
void add_names(const JsonValue& value, std::set<std::string>& names) {
    for (const auto& member : value.members) {
        if (!member.first.empty()) names.insert(member.first);
        add_names(member.second, names);
    }
}

/// The line of a text that has the part; "" when there is none.
std::string line_with(const std::string& text, const std::string& part) {
    const std::size_t place = text.find(part);
    if (place == std::string::npos) return "";
    const std::size_t start = text.rfind('\n', place) + 1;
    return text.substr(start, text.find('\n', place) - start);
}

/// What pz-top prints to a terminal, with a shell's "script".
std::string on_terminal(const std::string& arguments, const std::string& term = "xterm") {
    return pztest::run_command("TERM=" + term + " script -qec \"" + std::string(kTop) + arguments +
                               "\" /dev/null </dev/null")
        .output;
}

}  // namespace

TEST(topTest, ShowsAHungWorkerInRedWithItsMessageWithinOneAndAHalfSeconds) {
    std::string what;
    std::string red;
    // A busy machine may be late with one program or two.
    for (int attempt = 0; red.empty() && attempt < 5; ++attempt) {
        Program program("hang");
        what = "message 42 of " + program.Counted();
        const auto start = std::chrono::steady_clock::now();
        while (red.empty() &&
               std::chrono::steady_clock::now() - start < std::chrono::milliseconds(1500)) {
            red = line_with(on_terminal("--once --interval 50 " + program.PidText()), ", HANGS");
        }
    }
    EXPECT_TRUE(contains(red, what)) << red;
    EXPECT_EQ(0U, red.find("\033[1;31maudio")) << red;
    EXPECT_TRUE(contains(red, "\033[0m")) << red;
}

TEST(topTest, TellsWhatAHungWorkerHasCountedItself) {
    Program program("hang");
    const std::string dispatcher = program.Counted();
    ASSERT_TRUE(pztest::wait_until([&program] {
        const JsonValue process = json_of(program.PidText());
        return named(process.At("threads"), "audio").At("hangs").number == 1;
    }));
    const JsonValue process = json_of(program.PidText());
    const JsonValue& thread = named(process.At("threads"), "audio");
    EXPECT_EQ("pz_top_test", process.At("name").text);
    EXPECT_EQ(77, process.At("id").number);
    EXPECT_EQ(200, thread.At("watch_ms").number);
    EXPECT_EQ("S", thread.At("state").text);
    EXPECT_EQ(251, thread.At("priority").number);
    EXPECT_EQ(0, thread.At("nice").number);
    const JsonValue& worker = thread.At("worker");
    EXPECT_EQ(3, worker.At("number").number);
    EXPECT_EQ(10, worker.At("served").number);
    EXPECT_EQ(3, worker.At("served_events").number);
    EXPECT_EQ(0, worker.At("pending").number);
    EXPECT_EQ(0, worker.At("refused").number);
    EXPECT_EQ("running", worker.At("state").text);
    EXPECT_EQ("message", worker.At("running").At("kind").text);
    EXPECT_EQ(42, worker.At("running").At("id").number);
    EXPECT_EQ(dispatcher, worker.At("running").At("dispatcher").text);
    EXPECT_LT(200, worker.At("running").At("for_ms").number);
}

TEST(topTest, PrintsNoColoursToATerminalThatHasNone) {
    Program program("hang");
    program.Counted();
    for (const char* const term : {"dumb", ""}) {
        const std::string shown = on_terminal("--once --interval 50 " + program.PidText(), term);
        EXPECT_TRUE(contains(shown, "audio")) << shown;
        EXPECT_FALSE(contains(shown, "\033")) << shown;
    }
}

TEST(topTest, TellsTheBitsOfAnEventThatHangs) {
    Program program("hang-event");
    const std::string dispatcher = program.Counted();
    const JsonValue process = json_of(program.PidText());
    const JsonValue& running = named(process.At("threads"), "audio").At("worker").At("running");
    EXPECT_EQ("event", running.At("kind").text);
    EXPECT_EQ(4, running.At("id").number);
    EXPECT_EQ(dispatcher, running.At("dispatcher").text);
}

TEST(topTest, ShowsTheRefusalsOfAFloodedBox) {
    Program program("flood");
    ASSERT_EQ("7 256", program.Counted());
    const JsonValue process = json_of(program.PidText());
    const JsonValue& worker = named(process.At("threads"), "audio").At("worker");
    EXPECT_EQ(7, worker.At("refused").number);
    EXPECT_EQ(256, worker.At("pending").number);
    EXPECT_EQ(256, worker.At("most_pending").number);
    EXPECT_EQ(5, worker.At("events").number);
    EXPECT_EQ(5, worker.At("most_events").number);
    EXPECT_EQ(0, worker.At("served").number);
    const std::string row =
        line_with(top("--once --interval 50 " + program.PidText()).output, "256/256");
    EXPECT_TRUE(contains(row, " 7 ")) << row;
}

TEST(topTest, CountsWhatAWorkerServesEachSecond) {
    Program program("serve");
    program.Counted();
    // On a machine that is busy it may get no processor for a look or two.
    EXPECT_TRUE(pztest::wait_until([&program] {
        const JsonValue process = json_of(program.PidText());
        const JsonValue& thread = named(process.At("threads"), "audio");
        return thread.At("worker").At("per_second").real > 0 && thread.At("cpu_percent").real > 0 &&
               thread.At("hangs").number == 0;
    }));
}

TEST(topTest, ShowsHowLateTimersAreAndTheCallbackThatHangs) {
    Program program("timers");
    const long long returned = std::stoll(program.Counted());
    const JsonValue process = json_of(program.PidText());
    const JsonValue* band = nullptr;
    for (const auto& member : process.At("bands").members) {
        if (member.second.At("fired").number != 0) band = &member.second;
    }
    ASSERT_NE(nullptr, band);
    EXPECT_EQ(returned, band->At("fired").number);
    // The third callback takes 150 milliseconds: the next check comes so much later.
    EXPECT_LE(100, band->At("worst_late_ms").number);
    EXPECT_LE(140, band->At("longest_ms").number);
    EXPECT_FALSE(is_null(band->At("median_late_ms")));
    EXPECT_LE(band->At("median_late_ms").number, band->At("worst_late_ms").number);
    EXPECT_EQ("running", band->At("state").text);
    EXPECT_FALSE(is_null(band->At("running").At("timer")));
}

TEST(topTest, NamesThreadsThatWaitForEachOther) {
    Program program("locks");
    program.Counted();
    const auto waits = [&program] { return json_of(program.PidText()).At("waits").members.size(); };
    ASSERT_TRUE(pztest::wait_until([&waits] { return waits() == 3; }));
    const JsonValue process = json_of(program.PidText());
    const JsonValue& left = named(process.At("waits"), "left");
    const JsonValue& right = named(process.At("waits"), "right");
    EXPECT_EQ(right.At("tid").number, left.At("holder_tid").number);
    EXPECT_EQ(left.At("tid").number, right.At("holder_tid").number);
    EXPECT_EQ("right", left.At("holder").text);
    EXPECT_NE(left.At("lock").text, right.At("lock").text);
    ASSERT_EQ(1U, process.At("deadlocks").members.size());
    const JsonValue& circle = process.At("deadlocks").members[0].second;
    EXPECT_EQ(2U, circle.members.size());
    EXPECT_EQ(left.At("tid").number, named(circle, "left").At("tid").number);
    EXPECT_EQ(right.At("tid").number, named(circle, "right").At("tid").number);
    const std::string text = top("--once --interval 50 " + program.PidText()).output;
    EXPECT_TRUE(contains(text, "DEADLOCK: ")) << text;
}

TEST(topTest, NamesALockThatAnotherProcessMayHold) {
    Program program("locks");
    const std::string name = program.Counted();
    const auto isNoted = [&program] {
        const JsonValue process = json_of(program.PidText());
        for (const auto& wait : process.At("waits").members) {
            if (wait.second.At("name").text == "outer") return true;
        }
        return false;
    };
    ASSERT_TRUE(pztest::wait_until(isNoted));
    const JsonValue process = json_of(program.PidText());
    const JsonValue& wait = named(process.At("waits"), "outer");
    EXPECT_EQ(name, wait.At("lock").text);
    EXPECT_EQ("another process", wait.At("holder").text);
    EXPECT_TRUE(is_null(wait.At("holder_tid")));
}

TEST(topTest, ShowsQueuesWithTheirFillAndCounts) {
    const std::string name = "pz_top_" + std::to_string(getpid());
    Program program("queues", name);
    program.Counted();
    const JsonValue process = json_of(program.PidText());
    const JsonValue& out = named(process.At("queues"), name + "_out");
    EXPECT_EQ(1, out.At("sends").number);
    EXPECT_EQ(0, out.At("receives").number);
    EXPECT_EQ(64, out.At("sent").number);
    EXPECT_EQ(4, out.At("refused").number);
    EXPECT_EQ(64, out.At("waiting").number);
    EXPECT_EQ(64, out.At("most").number);
    const JsonValue& in = named(process.At("queues"), name + "_in");
    EXPECT_EQ(1, in.At("receives").number);
    EXPECT_EQ(5, in.At("received").number);
    EXPECT_EQ(0, in.At("waiting").number);
}

TEST(topTest, ShowsTheAccountedHeapOfEachThread) {
    Program program("heap");
    program.Counted();
    const JsonValue process = json_of(program.PidText());
    const JsonValue& heap = process.At("heap");
    EXPECT_EQ(6, heap.At("blocks").number);
    EXPECT_EQ(6, heap.At("most_blocks").number);
    EXPECT_EQ(510, heap.At("bytes").number);
    EXPECT_EQ(1500, heap.At("most_bytes").number);
    ASSERT_EQ(2U, heap.At("threads").members.size());
    const JsonValue& own = heap.At("threads").members[0].second;
    EXPECT_EQ(program.Pid(), own.At("tid").number);
    EXPECT_EQ(500, own.At("bytes").number);
}

TEST(topTest, ShowsWhatTheKernelTellsOfAProcess) {
    Program program("idle");
    program.Counted();
    const JsonValue process = json_of(program.PidText());
    EXPECT_EQ(program.Pid(), process.At("pid").number);
    EXPECT_LT(3, process.At("descriptors").number);
    EXPECT_LT(0, process.At("descriptor_limit").number);
    EXPECT_LE(6U, process.At("threads").members.size()) << "the first and five timer threads";
    EXPECT_EQ(5U, process.At("bands").members.size());
    EXPECT_TRUE(is_null(process.At("heap")));
    EXPECT_EQ(1, process.At("complete").number);
    EXPECT_EQ(0, process.At("forked").number);
}

TEST(topTest, FindsAProcessByItsName) {
    const std::string name = "pz_top_" + std::to_string(getpid());
    Program program("idle", name);
    program.Counted();
    EXPECT_EQ(program.Pid(), json_of(name).At("pid").number);
}

TEST(topTest, AsksWhichOneWhenSeveralHaveTheName) {
    const std::string name = "pz_top_" + std::to_string(getpid());
    Program first("idle", name);
    Program second("idle", name);
    first.Counted();
    second.Counted();
    const auto result = top("--once " + name);
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("pz-top: 2 processes are called " + name + "; give the number of one: " +
                  std::to_string(std::min(first.Pid(), second.Pid())) + " " +
                  std::to_string(std::max(first.Pid(), second.Pid())) + "\n",
              result.output);
}

TEST(topTest, SaysThatAForkedProcessShowsWhatItsParentHad) {
    Program program("forked");
    const std::string child = program.Counted();
    EXPECT_EQ(1, json_of(child).At("forked").number);
    EXPECT_EQ(0, json_of(program.PidText()).At("forked").number);
    EXPECT_EQ("X", named(json_of(child).At("threads"), "audio").At("state").text);
}

TEST(topTest, ListsFiftyProcessesAtOnce) {
    const std::string name = "pz_top_" + std::to_string(getpid());
    std::vector<std::unique_ptr<Program>> programs;
    for (int i = 0; i < 50; ++i) {
        programs.push_back(std::make_unique<Program>(i == 20 ? "hang" : "idle", name));
    }
    for (const auto& program : programs) program->Counted();
    const auto result = top("--json --once --interval 250");
    ASSERT_EQ(0, result.status) << result.output;
    const auto list = pztest::read_json(result.output);
    ASSERT_TRUE(list);
    int found = 0;
    for (const auto& member : list->At("processes").members) {
        const JsonValue& row = member.second;
        if (row.At("name").text != name) continue;
        ++found;
        EXPECT_EQ(77, row.At("id").number);
        const bool isHung = row.At("pid").number == programs[20]->Pid();
        EXPECT_EQ(isHung ? 1 : 0, row.At("workers").number);
        EXPECT_EQ(isHung ? 1 : 0, row.At("hangs").number);
        if (!isHung) continue;
        EXPECT_EQ("audio", row.At("worst_thread").text);
    }
    EXPECT_EQ(50, found);
}

TEST(topTest, AProcessThatEndsBetweenTwoLooksIsNoFailureOfTheList) {
    const std::string name = "pz_top_" + std::to_string(getpid());
    Program staying("idle", name);
    staying.Counted();
    auto ending = std::make_unique<Program>("idle", name);
    ending->Counted();
    FILE* const list = popen((std::string(kTop) + "--json --interval 100").c_str(), "re");
    ASSERT_NE(nullptr, list);
    const auto count = [list, &name] {
        char line[65536] = "";
        if (std::fgets(line, sizeof line, list) == nullptr) return -1;
        const auto value = pztest::read_json(line);
        if (!value) return -2;
        int found = 0;
        for (const auto& member : value->At("processes").members) {
            if (member.second.At("name").text == name) ++found;
        }
        return found;
    };
    EXPECT_EQ(2, count());
    ending->Kill();
    EXPECT_TRUE(pztest::wait_until([&count] { return count() == 1; }));
    Program starting("idle", name);
    EXPECT_TRUE(pztest::wait_until([&count] { return count() == 2; }));
    pclose(list);
}

TEST(topTest, EndsWithTheProcessThatItLooksAt) {
    Program program("idle");
    program.Counted();
    const std::string pid = program.PidText();
    FILE* const looks =
        popen((std::string(kTop) + "--json --interval 20 " + pid + " 2>&1").c_str(), "re");
    ASSERT_NE(nullptr, looks);
    char line[65536] = "";
    ASSERT_NE(nullptr, std::fgets(line, sizeof line, looks));
    EXPECT_TRUE(pztest::read_json(line));
    program.Kill();
    std::string last;
    while (std::fgets(line, sizeof line, looks) != nullptr) last = line;
    EXPECT_EQ("pz-top: process " + pid + " has ended\n", last);
    EXPECT_EQ(0, WEXITSTATUS(pclose(looks)));
}

TEST(topTest, SaysThatThereIsNoSuchProcess) {
    Program program("end");
    const std::string pid = program.PidText();
    program.End();
    auto result = top("--once " + pid);
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("pz-top: there is no process " + pid + "\n", result.output);
    result = top("--once no_such_process");
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("pz-top: no process called no_such_process uses the library\n", result.output);
    result = top("--once 4294967297");  // the lower half of it is a number of a process
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("pz-top: no process called 4294967297 uses the library\n", result.output);
    result =
        pztest::run_command("sleep 60 & until grep -q sleep /proc/$!/comm; do :; done; " +
                            std::string(kTop) + "--once $! 2>&1; status=$?; kill $!; exit $status");
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(contains(result.output, " (sleep) does not use the library\n")) << result.output;
}

TEST(topTest, ItsManPageNamesTheMembersOfItsJsonAndNoOthers) {
    std::set<std::string> printed;
    const std::string name = "pz_top_" + std::to_string(getpid());
    for (const char* const mode : {"hang", "timers", "locks", "queues", "heap"}) {
        Program program(mode, name);
        program.Counted();
        if (std::strcmp(mode, "locks") == 0) {
            ASSERT_TRUE(pztest::wait_until([&program] {
                return !json_of(program.PidText()).At("deadlocks").members.empty();
            }));
        }
        add_names(json_of(program.PidText()), printed);
        const auto list = pztest::read_json(top("--json --once --interval 20").output);
        ASSERT_TRUE(list);
        add_names(*list, printed);
    }

    // Values, not members.
    std::set<std::string> described = {"X", "message", "event", "idle", "changing", "unknown"};
    printed.insert(described.begin(), described.end());
    const std::string page = pztest::read_file(PZ_TOP_PAGE);
    const std::size_t start = page.find(".SH JSON");
    const std::string part = page.substr(start, page.find(".SH EXIT STATUS") - start);
    const std::regex quoted("\"(\\w+)\"");
    for (std::sregex_iterator it(part.begin(), part.end(), quoted), end; it != end; ++it) {
        described.insert((*it)[1]);
    }
    EXPECT_EQ(described, printed);
}

TEST(topTest, RefusesAProcessOfAnotherReleaseAndSaysWhichTableItHas) {
    Program program("", "", PZ_TOP_OTHER_PROGRAM);
    EXPECT_EQ("2", program.Counted());
    const std::string pid = program.PidText();
    const std::string refused = "pz-top: process " + pid +
                                " (top_other_progr) shows a table of version 2, this program reads "
                                "version 1: use the pz-top of its library\n";
    for (const char* const form : {"--once ", "--json --once ", "--json --interval 50 "}) {
        const auto result = top(form + pid);
        EXPECT_EQ(1, result.status) << form;
        EXPECT_EQ(refused, result.output) << form;
    }
}

TEST(topTest, ListsAProcessOfAnotherReleaseWithItsTablesVersion) {
    Program program("", "", PZ_TOP_OTHER_PROGRAM);
    program.Counted();
    const auto list = top("--once");
    EXPECT_EQ(0, list.status);
    const std::string line = line_with(list.output, " " + program.PidText() + " ");
    EXPECT_TRUE(contains(line, "top_other_progr")) << list.output;
    EXPECT_TRUE(contains(line, "table of version 2")) << list.output;

    const auto listed = pztest::read_json(top("--json --once").output);
    ASSERT_TRUE(listed);
    for (const auto& member : listed->At("processes").members) {
        const JsonValue& row = member.second;
        if (row.At("pid").number != program.Pid()) continue;
        EXPECT_EQ("top_other_progr", row.At("name").text);
        EXPECT_EQ(2, row.At("table_version").number);
        EXPECT_EQ(3U, row.members.size());
        return;
    }
    ADD_FAILURE() << "not listed";
}

TEST(topTest, RefusesUnknownOptionsAndBadValues) {
    EXPECT_EQ(2, top("--no-such-option").status);
    EXPECT_EQ(2, top("--interval 5").status);
    EXPECT_EQ(2, top("--interval x").status);
    EXPECT_EQ(2, top("--interval").status);
    EXPECT_EQ(2, top("1 2").status);
    EXPECT_EQ(0, top("--help").status);
    EXPECT_EQ("pz-top " PZ_VERSION "\n", top("--version").output);
}

TEST(topTest, AReaderWithoutTheRightGetsStatusThree) {
    Program program("idle");
    program.Counted();
    const bool isRoot = getuid() == 0;
    const std::string target = isRoot ? program.PidText() : "1";  // a process of root
    const auto nobody = pztest::run_in_child([&target, isRoot] {
        constexpr uid_t kNobody = 65534;
        const bool isNobody =
            isRoot && setgroups(0, nullptr) == 0 && setgid(kNobody) == 0 && setuid(kNobody) == 0;
        if (isRoot && !isNobody) return 99;
        execl(PZ_TOP, "pz-top", "--once", target.c_str(), nullptr);
        return 98;
    });
    EXPECT_EQ(3, nobody.status);
    EXPECT_TRUE(contains(nobody.output, "may not be looked at")) << nobody.output;
}

TEST(topTest, ReadsAProcessWhoseLibraryFileIsGone) {
    const pztest::TempDir folder;
    const std::string copy = folder.File("libpzframework.so.1");
    ASSERT_EQ(0, pztest::run_command("cp -L '" PZ_LIBRARY "' '" + copy + "'").status);
    setenv("LD_LIBRARY_PATH", folder.Path().c_str(), 1);
    Program program("idle");
    unsetenv("LD_LIBRARY_PATH");
    program.Counted();
    ASSERT_EQ(0, unlink(copy.c_str()));
    const std::string maps = pztest::read_file("/proc/" + program.PidText() + "/maps");
    ASSERT_TRUE(contains(maps, copy + " (deleted)"));
    EXPECT_EQ(77, json_of(program.PidText()).At("id").number);
}

TEST(topTest, LooksAtAProcessWhoseFirstThreadHasEnded) {
    Program program("leave");
    program.Counted();
    ASSERT_TRUE(pztest::wait_until([&program] {
        const std::string stat = pztest::read_file("/proc/" + program.PidText() + "/stat");
        return contains(stat, ") Z ");
    }));
    const JsonValue process = json_of(program.PidText());
    EXPECT_EQ("pz_top_test", process.At("name").text);
    EXPECT_EQ(1, process.At("complete").number);
    EXPECT_FALSE(is_null(process.At("descriptors")));
    EXPECT_FALSE(is_null(process.At("private_bytes")));
    EXPECT_EQ(10, named(process.At("threads"), "audio").At("worker").At("served").number);
    const JsonValue& first = process.At("threads").members[0].second;
    EXPECT_EQ(program.Pid(), first.At("tid").number);
    EXPECT_EQ("Z", first.At("state").text);
}

#ifndef __SANITIZE_ADDRESS__  // it ends a process with two libraries that have the same names
TEST(topTest, LooksAtTheLibraryThatIsUsedWhenThereAreTwo) {
    std::vector<std::string> second = {PZ_TOP_OTHER_LIBRARY};  // as of another release
#ifndef __SANITIZE_THREAD__
    const pztest::TempDir folder;
    second.push_back(folder.File("libpzframework_copy.so"));
    ASSERT_EQ(0, pztest::run_command("cp -L '" PZ_LIBRARY "' '" + second.back() + "'").status);
#endif
    for (const std::string& library : second) {
        Program program("plugin", library);
        program.Counted();
        ASSERT_TRUE(contains(pztest::read_file("/proc/" + program.PidText() + "/maps"), library));
        const JsonValue process = json_of(program.PidText());
        EXPECT_EQ("pz_top_test", process.At("name").text);
        EXPECT_EQ(10, named(process.At("threads"), "audio").At("worker").At("served").number);
    }
}
#endif

#ifdef PZ_TOP_HAS_SCREEN
namespace {

/// pz-top on a terminal of its own; with its input from somewhere else on request.
class Screen : private pztest::Uncopyable {
public:
    explicit Screen(const std::string& target, const winsize& size = {40, 150, 0, 0},
                    const char* term = "xterm", const char* input = nullptr) {
        int program = -1;
        if (openpty(&terminal_, &program, nullptr, nullptr, &size) != 0) std::abort();
        process_.emplace([=, &target] {
            close(terminal_);
            login_tty(program);
            setenv("TERM", term, 1);
            // Curses never frees what it knows of a terminal that it has refused.
            setenv("LSAN_OPTIONS", "detect_leaks=0", 1);
            if (input != nullptr) dup2(open(input, O_RDONLY), STDIN_FILENO);
            return execl(PZ_TOP, "pz-top", "--interval", "50", target.c_str(), nullptr);
        });
        close(program);
    }
    ~Screen() {
        close(terminal_);
        process_.reset();
    }
    void Resize(const winsize& size) const { EXPECT_EQ(0, ioctl(terminal_, TIOCSWINSZ, &size)); }
    void Press(char key) const { EXPECT_EQ(1, write(terminal_, &key, 1)); }
    void StandStill() const { process_->Stop(); }
    void GoOn() const { process_->Signal(SIGCONT); }

    /// Whether the text comes to the screen from now on.
    bool Shows(const std::string& text) const { return contains(ShownUntil(text), text); }

    /// What comes to the screen from now on, up to the text, or as far as it comes.
    std::string ShownUntil(const std::string& text) const {
        std::string shown;
        for (char part[4096]; !contains(shown, text);) {
            pollfd ready = {terminal_, POLLIN, 0};
            constexpr int kLimitMs = 20000;
            if (poll(&ready, 1, kLimitMs) != 1) break;
            const ssize_t size = read(terminal_, part, sizeof part);
            if (size <= 0) break;
            shown.append(part, static_cast<std::size_t>(size));
        }
        return shown;
    }

    /// How it ends by itself: its exit status, and what it has shown meanwhile.
    int Status(std::string* shown = nullptr) {
        const std::string rest = ShownUntil("\n no such text");
        if (shown != nullptr) *shown = rest;
        const int status = process_->Wait();
        process_.reset();
        return status;
    }

private:
    int terminal_ = -1;
    std::optional<pztest::ChildProcess> process_;
};

}  // namespace

TEST(topScreenTest, ItsKeysSortPauseChangeTheViewAndEndIt) {
    Program program("hang");
    program.Counted();
    Screen screen(program.PidText());
    EXPECT_TRUE(screen.Shows("sorted by name"));
    screen.Press('s');
    EXPECT_TRUE(screen.Shows("load"));
    screen.Press('p');
    EXPECT_TRUE(screen.Shows("PAUSED"));
    screen.Press('h');
    EXPECT_TRUE(screen.Shows("next of: name"));
    screen.Press('h');
    EXPECT_TRUE(screen.Shows("TimerSubMng_"));
    screen.Press('q');
    EXPECT_EQ(0, screen.Status());
}

TEST(topScreenTest, ObeysAllKeysThatWaitBeforeItLooksAndDrawsAgain) {
    Program program("idle");
    program.Counted();
    Screen screen(program.PidText());
    EXPECT_TRUE(screen.Shows("sorted by name"));
    screen.StandStill();
    screen.Press('h');
    screen.Press('q');
    screen.GoOn();
    std::string shown;
    EXPECT_EQ(0, screen.Status(&shown));
    EXPECT_FALSE(contains(shown, "next of: name")) << shown;
}

TEST(topScreenTest, CutsWhatIsWiderThanTheTerminal) {
    Program program("hang");
    program.Counted();
    Screen screen(program.PidText(), {10, 40, 0, 0});
    // The first line is longer, and would go on in the second one, which is empty.
    const std::string shown = screen.ShownUntil("sorted by name");
    EXPECT_TRUE(contains(shown, "descript")) << shown;
    EXPECT_FALSE(contains(shown, "private")) << shown;
    EXPECT_TRUE(contains(shown, "THREAD")) << shown;
    EXPECT_FALSE(contains(shown, "WATCH")) << shown;
    screen.Resize({40, 150, 0, 0});
    EXPECT_TRUE(screen.Shows("private memory"));
    for (const winsize& size : {winsize{1, 1, 0, 0}, winsize{2, 5, 0, 0}}) screen.Resize(size);
    screen.Press('q');
    EXPECT_EQ(0, screen.Status());
}

TEST(topScreenTest, RefusesWhatCannotShowAScreenOrHasNoKeys) {
    Program program("idle");
    program.Counted();
    const std::string refusal = "pz-top: this terminal cannot show a screen; try --once\r\n";
    for (const char* const term : {"dumb", "", "no-such-terminal"}) {
        std::string shown;
        Screen screen(program.PidText(), {24, 80, 0, 0}, term);
        EXPECT_EQ(2, screen.Status(&shown)) << term;
        EXPECT_TRUE(contains(shown, refusal)) << term << shown;
        EXPECT_FALSE(contains(shown, "\033")) << term;
    }
    std::string shown;
    Screen noKeys(program.PidText(), {24, 80, 0, 0}, "xterm", "/dev/null");
    EXPECT_EQ(2, noKeys.Status(&shown));
    EXPECT_EQ("pz-top: the standard input or output is no terminal; try --once\r\n", shown);
    const auto piped = pztest::run_command("TERM=xterm " + std::string(kTop) + program.PidText() +
                                           " 2>&1 </dev/null; echo $?");
    EXPECT_EQ("pz-top: the standard input or output is no terminal; try --once\n2\n", piped.output);
}

TEST(topScreenTest, KeepsTheLastTableOfAProcessThatHasEnded) {
    Program program("idle");
    program.Counted();
    Screen screen(program.PidText());
    EXPECT_TRUE(screen.Shows("sorted by name"));
    const std::string pid = program.PidText();
    program.Kill();
    EXPECT_TRUE(screen.Shows("process " + pid + " has ended"));
    screen.Press('q');
    EXPECT_EQ(0, screen.Status());
}
#endif

#ifdef PZ_TOP_PROGRAM_32
TEST(topTest, ReadsA32BitProcess) {
    Program program("hang", "pz_top_32", PZ_TOP_PROGRAM_32);
    const std::string dispatcher = program.Counted();
    const JsonValue process = json_of(program.PidText());
    EXPECT_EQ("pz_top_32", process.At("name").text);
    EXPECT_EQ(1, process.At("complete").number);
    const JsonValue& worker = named(process.At("threads"), "audio").At("worker");
    EXPECT_EQ(10, worker.At("served").number);
    EXPECT_EQ(42, worker.At("running").At("id").number);
    EXPECT_EQ(dispatcher, worker.At("running").At("dispatcher").text);
    EXPECT_EQ(5U, process.At("bands").members.size());
}

TEST(topTest, NamesThreadsOfA32BitProcessThatWaitForEachOther) {
    Program program("locks", "pz_top_32", PZ_TOP_PROGRAM_32);
    program.Counted();
    EXPECT_TRUE(pztest::wait_until(
        [&program] { return json_of(program.PidText()).At("deadlocks").members.size() == 1; }));
}
#endif
