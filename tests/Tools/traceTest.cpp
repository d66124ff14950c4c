#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "PythonTool.h"
#include "TraceTool.h"
#include "support/Document.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

using pztest::checked_export;
using pztest::CommandResult;
using pztest::contains;
using pztest::lines_of;
using pztest::passed;
using pztest::read_file;
using pztest::run_command;
using pztest::run_trace;
using pztest::TempDir;
using pztest::write_file;

namespace {

size_t count_of(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++count;
    return count;
}

/// The text between `head` and the next empty line.
std::string part_of(const std::string& text, const std::string& head) {
    const size_t at = text.find(head);
    if (at == std::string::npos) return "no " + head + " in " + text;
    return text.substr(at, text.find("\n\n", at) - at);
}

/// A line of a recording: a thread of process 100 passes a probe.
std::string line(int microseconds, int thread, const std::string& probe,
                 const std::string& fields) {
    char start[64];
    std::snprintf(start, sizeof start, "  worker_%d   100/%d [001]    50.%06d000: ", thread, thread,
                  microseconds);
    return start + ("pztrace_9:" + probe) + ": (7f0010) " + fields + "\n";
}

std::string post(int microseconds, int thread, int id, const std::string& payload = "0x0") {
    return line(
        microseconds, thread, "msg_post",
        "box=0xb0 dispatcher=0xd0 id=" + std::to_string(id) + " priority=128 payload=" + payload);
}

std::string begin(int microseconds, int thread, int id, const std::string& payload = "0x0") {
    return line(
        microseconds, thread, "msg_begin",
        "box=0xb0 dispatcher=0xd0 id=" + std::to_string(id) + " priority=128 payload=" + payload);
}

std::string end(int microseconds, int thread, int id) {
    return line(microseconds, thread, "msg_end", "box=0xb0 id=" + std::to_string(id));
}

/// A recording in a file of its own.
class Recording {
public:
    explicit Recording(const std::string& text) { write_file(Path(), text); }
    std::string Path() const { return folder_.File("recording.txt"); }

private:
    TempDir folder_;
};

/// The beginning of a command whose perf is these lines of a shell.
std::string with_perf(const TempDir& folder, const std::string& lines) {
    write_file(folder.File("perf"), "#!/bin/sh\n" + lines + "\n");
    EXPECT_EQ(0, chmod(folder.File("perf").c_str(), 0755));
    return "PATH=" + folder.Path() + ":$PATH ";
}

}  // namespace

// What it makes of a recording.

TEST(traceTest, ShowsTheSlowestHandlersFirst) {
    const Recording recording(post(0, 1, 3) + post(1000, 1, 4) + begin(2000, 2, 3) +
                              end(2500, 2, 3) + begin(3000, 2, 4) + end(43000, 2, 4));
    const CommandResult shown = run_trace("show " + recording.Path());
    EXPECT_EQ(0, shown.status);
    EXPECT_EQ(
        "The slowest handlers (2 of 2)\n"
        "      ms      at s  thread    what       dispatcher\n"
        "  40.000  0.003000  worker_2  message 4  0xd0\n"
        "   0.500  0.002000  worker_2  message 3  0xd0",
        part_of(shown.output, "The slowest handlers"));
}

TEST(traceTest, ShowsTheWaitFromPostToDispatchOfEachWorker) {
    const Recording recording(line(0, 2, "worker_start", "box=0xb0 number=5 name=\"patient\"") +
                              post(100, 1, 3) + post(200, 1, 3) + post(300, 1, 3) +
                              begin(1100, 2, 3) + end(2000, 2, 3) + begin(2200, 2, 3) +
                              end(2300, 2, 3) + begin(9300, 2, 3) + end(9400, 2, 3));
    const std::string shown = run_trace("show " + recording.Path()).output;
    EXPECT_EQ(
        "From post to dispatch, by worker\n"
        "  worker               served  median ms  worst ms  what           at s  most pending\n"
        "  worker_2 (worker 5)       3      2.000     9.000  message 3  0.000300             3",
        part_of(shown, "From post to dispatch"));
}

TEST(traceTest, KnowsAMessageByItsPayloadOrElseByItsOrder) {
    // The second message overtakes the first one; those without a payload come in order.
    const Recording recording(post(0, 1, 3, "0xa1") + post(1000, 1, 3, "0xa2") + post(2000, 1, 9) +
                              begin(11000, 2, 3, "0xa2") + end(11001, 2, 3) +
                              begin(30000, 2, 3, "0xa1") + end(30001, 2, 3) + begin(30002, 2, 9) +
                              end(30003, 2, 9));
    const std::string shown = run_trace("show " + recording.Path()).output;
    EXPECT_TRUE(contains(part_of(shown, "From post"), "28.002    30.000  message 3")) << shown;
}

TEST(traceTest, ShowsTimersByLateness) {
    const std::string timer = "timer=0x70";
    const std::string other = "timer=0x80";
    const Recording recording(line(0, 1, "timer_add", timer + " ms=20") +
                              line(20000, 3, "timer_begin", timer + " late=0") +
                              line(21000, 3, "timer_end", timer + " again=1") +
                              line(47000, 3, "timer_begin", timer + " late=7") +
                              line(47500, 3, "timer_end", timer + " again=1") +
                              line(50000, 3, "timer_begin", other + " late=9") +
                              line(50100, 3, "timer_end", other + " again=0"));
    const std::string shown = run_trace("show " + recording.Path()).output;
    EXPECT_EQ(
        "Timers by lateness\n"
        "  timer  thread    every ms  fired  median late ms  worst late ms  longest ms\n"
        "  0x80   worker_3         ?      1               9              9       0.100\n"
        "  0x70   worker_3        20      2               7              7       1.000",
        part_of(shown, "Timers by lateness"));
}

TEST(traceTest, ShowsTheLongestWaitsForLocks) {
    const Recording recording(line(0, 1, "lock_wait", "lock=0x10 limit=4294967295") +
                              line(12000, 1, "lock_got", "lock=0x10 error=0"));
    EXPECT_TRUE(contains(run_trace("show " + recording.Path()).output,
                         "  12.000  0.000000  worker_1  0x10\n"));
}

TEST(traceTest, ExportsEverySliceWithItsEnd) {
    // One began before the recording, one ends after it, and one holds another whose end is lost.
    const Recording recording(end(100, 2, 1) + begin(1000, 2, 3) +
                              line(1100, 2, "lock_wait", "lock=0x10 limit=5") + end(2000, 2, 3) +
                              begin(3000, 2, 4));
    EXPECT_EQ("slices 3, arrows 0 (between processes 0), counters 2, threads worker_2\n",
              checked_export(recording.Path()));
}

TEST(traceTest, ExportsAnArrowOnlyWithBothEnds) {
    const Recording recording(begin(100, 2, 1) + end(200, 2, 1) + post(300, 1, 3) +
                              begin(400, 2, 3) + end(500, 2, 3) + post(600, 1, 4));
    EXPECT_EQ("slices 4, arrows 1 (between processes 0), counters 4, threads worker_1,worker_2\n",
              checked_export(recording.Path()));
}

TEST(traceTest, KnowsAMessageOfAQueueThatIsReceivedBeforeItsSenderHasSaidSo) {
    const std::string message = "name=\"radio\" size=4 priority=127";
    const Recording recording(post(10, 1, 3) + line(20, 2, "queue_receive", message) +
                              line(23, 1, "queue_send", message) +
                              line(30, 1, "queue_send", message) +
                              line(40, 2, "queue_receive", message));
    EXPECT_EQ("slices 5, arrows 2 (between processes 0), counters 1, threads worker_1,worker_2\n",
              checked_export(recording.Path()));
}

TEST(traceTest, ReadsTheRecordingsOfRealRuns) {
    for (const char* name : {PZ_DATA "/trace_scan.txt", PZ_DATA "/trace_twoprocess.txt"}) {
        const std::string text = read_file(name);
        const CommandResult shown = run_trace(std::string("show ") + name);
        EXPECT_EQ(0, shown.status) << shown.output;
        EXPECT_TRUE(
            contains(shown.output, ": " + std::to_string(lines_of(text).size()) + " events"));
        for (const char* probe : {"msg_post", "msg_begin", "msg_end", "lock_got", "worker_start"}) {
            EXPECT_EQ(count_of(text, std::string(":") + probe + ":"),
                      static_cast<size_t>(passed(shown.output, probe)))
                << name << " " << probe;
        }
        std::smatch arrows;
        const std::string exported = checked_export(name);
        ASSERT_TRUE(std::regex_search(exported, arrows, std::regex("arrows (\\d+)"))) << exported;
        EXPECT_GE(std::stoul(arrows[1]), count_of(text, ":msg_begin:")) << exported;
    }
    EXPECT_FALSE(contains(checked_export(PZ_DATA "/trace_twoprocess.txt"), "processes 0"));
}

TEST(traceTest, DrawsAPictureAsWellFormedXml) {
    const Recording recording(post(0, 1, 3) + begin(2000, 2, 3) + end(42000, 2, 3) +
                              line(50000, 1, "timer_begin", "timer=0x70 late=3") +
                              line(90000, 1, "timer_end", "timer=0x70 again=0"));
    const std::string picture = run_command(PZ_TRACE " svg " + recording.Path()).output;
    const CommandResult parsed =
        run_command(PZ_TRACE " svg " + recording.Path() +
                    " | " PZ_PYTHON
                    " -c 'import sys, xml.dom.minidom as m; d = m.parse(sys.stdin); "
                    "print(d.documentElement.tagName, len(d.getElementsByTagName(\"script\")))'");
    EXPECT_EQ("svg 0\n", parsed.output);
    EXPECT_TRUE(contains(picture, "prefers-color-scheme: dark"));
    EXPECT_TRUE(contains(picture, "<title>message 3: 40.000 ms, 2.000 ms after its post</title>"));
    EXPECT_TRUE(contains(picture, "<title>timer 0x70: 40.000 ms, 3 ms late</title>"));
    EXPECT_TRUE(contains(picture, "<title>message 3: 2.000 ms</title>")) << picture;

    const std::string cut = run_command(PZ_TRACE " svg --to 0.045 " + recording.Path()).output;
    EXPECT_TRUE(contains(cut, "message 3: 40.000 ms"));
    EXPECT_FALSE(contains(cut, "timer 0x70"));
}

TEST(traceTest, KnowsEveryProbeOfThePageWithItsArguments) {
    std::string page;
    const std::regex row(R"(\| ([a-z_]+) \| ([^|]+) \|[^|]+\|)");
    for (const std::string& text : lines_of(read_file(PZ_ROOT "/docs/probes.md"))) {
        std::smatch match;
        if (!std::regex_match(text, match, row)) continue;
        page += match[1].str() + " " + std::regex_replace(match[2].str(), std::regex("[`,]"), "") +
                "\n";
    }
    const std::string known =
        run_command(PZ_PYTHON
                    " -B -c 'import sys, importlib.machinery as m; t = m.SourceFileLoader(\"t\", "
                    "sys.argv[1]).load_module(); [print(n, *[a for a, _ in p]) for n, p in "
                    "t.PROBES.items()]' " PZ_TRACE " 2>/dev/null")
            .output;
    EXPECT_NE("", page);
    EXPECT_EQ(page, known);
}

TEST(traceTest, HandsArgumentsToTheKernelAsItsMachineNamesThem) {
    const std::string fetched =
        run_command(PZ_PYTHON
                    " -B -W ignore -c 'import sys, importlib.machinery as m; t = "
                    "m.SourceFileLoader(\"t\", sys.argv[1]).load_module(); "
                    "[print(t.kernel_arguments(t.Place(\"queue_send\", 0, a), int(m), int(b))) "
                    "for m, b, a in zip(*[iter(sys.argv[2:])] * 3)]' " PZ_TRACE
                    " 62 64 '8@%rbp 4@%r9d 1@%r12b'"
                    " 62 64 '8@-8(%rsp) 4@$5 -4@(%rsi)'"
                    " 3 32 '4@-28(%ebp) 4@%edi 4@%eax'"
                    " 40 32 '4@r4 4@[sp, #20] 4@[r8]'"
                    " 183 64 '8@x19 4@w3 4@[sp, 16]'"
                    " 62 64 '8@%rbp 4@8(%rax,%rbx,4) 4@%esi'")
            .output;
    EXPECT_EQ(
        "name=+0(%bp):string size=%r9:u32 priority=%r12:u8\n"
        "name=+0(-8(%sp)):string size=\\5:u32 priority=+0(%si):s32\n"
        // A pointer in memory is no wider than its process has them: the kernel would read too
        // much.
        "name=-28(%bp):x32 size=%di:u32 priority=%ax:u32\n"
        "name=+0(%r4):string size=+20(%sp):u32 priority=+0(%r8):u32\n"
        "name=+0(%x19):string size=%x3:u32 priority=+16(%sp):u32\n"
        "None\n",
        fetched);
}

TEST(traceTest, ReadsTheProbesThatPerfItselfHasMade) {
    const Recording recording(
        " radio 100/100 [000] 50.000001: sdt_pzframework:timer_begin: (7f) arg1=112 arg2=4\n"
        " radio 100/100 [000] 50.000002: sdt_pzframework:timer_end_1: (7f) arg1=112 arg2=0\n"
        " radio 100/100 [000] 50.000003: sched:sched_switch: (7f) a=b\n");
    const CommandResult shown = run_trace("show " + recording.Path());
    EXPECT_EQ(0, shown.status) << shown.output;
    EXPECT_TRUE(contains(shown.output, "0x70   radio ")) << shown.output;
}

// What it cannot read.

TEST(traceTest, TellsOfEveryLineThatItCannotReadAndShowsTheRest) {
    const Recording recording(post(0, 1, 3) + "hello\n" + line(1, 1, "msg_begin", "box=0xb0") +
                              begin(2000, 2, 3) + end(2500, 2, 3) +
                              " radio 1/1 [000] 60.000000: PERF_RECORD_LOST lost 17\n");
    const CommandResult shown = run_trace("show " + recording.Path());
    EXPECT_EQ(1, shown.status);
    const std::string start = "pz-trace: " + recording.Path() + ": ";
    EXPECT_TRUE(contains(shown.output, start + "line 2: is no line of an event\n"));
    EXPECT_TRUE(contains(shown.output, start + "line 3: has no dispatcher\n")) << shown.output;
    EXPECT_TRUE(contains(shown.output, start + "perf has lost 17 events")) << shown.output;
    EXPECT_TRUE(contains(shown.output, "  0.500  0.002000")) << shown.output;
}

TEST(traceTest, RefusesWhatIsNoRecordingWithOneLine) {
    const TempDir folder;
    write_file(folder.File("empty"), "");
    EXPECT_EQ("pz-trace: " + folder.File("empty") + ": holds no event of the library\n",
              run_trace("show " + folder.File("empty")).output);
    EXPECT_EQ("pz-trace: " + folder.File("missing") + ": No such file or directory\n",
              run_trace("show " + folder.File("missing")).output);
    EXPECT_EQ("pz-trace: " + folder.Path() + ": is no regular file\n",
              run_trace("show " + folder.Path()).output);
    ASSERT_EQ(0, mkfifo(folder.File("pipe").c_str(), 0600));
    const CommandResult pipe =
        run_command("timeout 20 " PZ_TRACE " show " + folder.File("pipe") + " 2>&1");
    EXPECT_EQ(1, pipe.status);
    EXPECT_EQ("pz-trace: " + folder.File("pipe") + ": is no regular file\n", pipe.output);
}

TEST(traceTest, NamesTheFileThatCannotBeRead) {
    const CommandResult shown = run_trace("show /proc/self/mem");  // its first page is no memory
    EXPECT_EQ(1, shown.status);
    EXPECT_EQ("pz-trace: /proc/self/mem: Input/output error\n", shown.output);
}

TEST(traceTest, SaysThatPerfFailsAtARecordingThatWasCut) {
    const TempDir folder;
    write_file(folder.File("cut"), "PERFILE2 and no more");
    // What perf does then: it says something else first, and may even crash.
    const std::string noise = "echo \"'trace' not valid for hardware events. Ignoring.\" >&2; ";
    const auto told = [&folder, &noise](const std::string& end) {
        const CommandResult shown = run_command(with_perf(folder, noise + end) + PZ_TRACE " show " +
                                                folder.File("cut") + " 2>&1");
        EXPECT_EQ(1, shown.status);
        return shown.output;
    };
    const std::string start = "pz-trace: " + folder.File("cut") + ": perf script: ";
    EXPECT_EQ(start + "failed (is the file whole?)\n", told("kill -SEGV $$"));
    EXPECT_EQ(start + "incompatible file format\n",
              told("echo 'incompatible file format' >&2; exit 255"));
}

TEST(traceTest, ShowsWhatPerfCouldReadOfARecording) {
    const TempDir folder;
    write_file(folder.File("cut"), "PERFILE2 and no more");
    write_file(folder.File("events"), begin(2000, 2, 3) + end(2500, 2, 3));
    const CommandResult shown =
        run_command(with_perf(folder, "cat " + folder.File("events") + "; kill -SEGV $$") +
                    PZ_TRACE " show " + folder.File("cut") + " 2>&1");
    EXPECT_EQ(1, shown.status);
    EXPECT_TRUE(contains(shown.output, ": perf script: failed (is the file whole?)\n"));
    EXPECT_TRUE(contains(shown.output, "  0.500  0.000000")) << shown.output;
}

TEST(traceTest, RefusesAFileThatMemoryCannotHold) {
    const TempDir folder;
    write_file(folder.File("large"), "");
    std::filesystem::resize_file(folder.File("large"), std::uintmax_t{1} << 40);
    const CommandResult shown = run_trace("show " + folder.File("large"));
    EXPECT_EQ(1, shown.status);
    EXPECT_EQ("pz-trace: " + folder.File("large") + ": is larger than 1024 MiB\n", shown.output);
}

TEST(traceTest, SaysThatItsAnswerCannotBeWritten) {
    const Recording recording(begin(2000, 2, 3) + end(2500, 2, 3));
    const std::string command = PZ_TRACE " show " + recording.Path();
    const CommandResult full = run_command(command + " 2>&1 >/dev/full");
    EXPECT_EQ(1, full.status);
    EXPECT_EQ("pz-trace: standard output: No space left on device\n", full.output);
    const CommandResult closed = run_command(command + " 2>&1 >&-");
    EXPECT_EQ(1, closed.status);
    EXPECT_EQ("pz-trace: standard output: is closed\n", closed.output);
}

TEST(traceTest, PrintsWhatTheTerminalHasNoLettersForAsQuestionMarks) {
    const Recording recording(std::regex_replace(begin(2000, 2, 3) + end(2500, 2, 3),
                                                 std::regex("worker"), "t\xc3\xb8y"));
    const std::string command = "PYTHONIOENCODING=ascii " PZ_TRACE " ";
    const std::string shown = run_command(command + "show " + recording.Path() + " 2>&1").output;
    EXPECT_TRUE(contains(shown, "  t?y_2  ")) << shown;
    // A picture is not for the terminal.
    const std::string drawn = run_command(command + "svg " + recording.Path()).output;
    EXPECT_TRUE(contains(drawn, "t\xc3\xb8y_2")) << drawn;
}

/// Stands for a fuzz target, which Python has none of.
TEST(traceTest, ShowsHostileRecordingsOrRefusesThemWithOneLine) {
    const CommandResult run = run_command(PZ_PYTHON " -B " PZ_TRACE_MUTATE " " PZ_TRACE " " PZ_DATA
                                                    "/trace_scan.txt 60 2>&1");
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_EQ(0U, run.output.find("shown ")) << run.output;
}

TEST(traceTest, RefusesWrongUsageWithStatus2) {
    const std::vector<std::string> wrong = {"",
                                            "draw x",
                                            "show",
                                            "show a b",
                                            "show --from 1 x",
                                            "record",
                                            "record true",
                                            "record -p 0",
                                            "record -p 1 -- a",
                                            "record -t soon -p 1",
                                            "record -p",
                                            "svg --to x y",
                                            "record -t 0 -- a",
                                            "record -t 0.0 -p 1"};
    pztest::expect_refused(PZ_TRACE, "pz-trace", wrong);
    EXPECT_EQ(2, run_trace("").status);
    EXPECT_EQ(0, run_trace("--help").status);
    EXPECT_EQ("pz-trace " PZ_VERSION "\n", run_trace("--version").output);
}

// What it cannot record.

/// The machine's own one, which every user can run; else that of the build.
const std::string kPython = "$(command -pv python3 || echo " PZ_PYTHON ")";

TEST(traceTest, SaysInOneLineWhatIsMissingToRecord) {
    EXPECT_EQ(
        "pz-trace: perf is missing: install the package linux-perf (Debian), linux-tools (Ubuntu) "
        "or perf (others)\n",
        run_command("python=" + kPython + " && PATH=/nowhere $python " PZ_TRACE " record -p 1 2>&1")
            .output);
    const std::string perf = "fake=$(mktemp -d) && ln -s /bin/true $fake/perf && PATH=$fake:$PATH ";
    EXPECT_EQ("pz-trace: /bin/true: is no library with probes\n",
              run_command(perf + PZ_TRACE " record --library /bin/true -- /bin/true 2>&1").output);
    EXPECT_EQ("pz-trace: no-such-program: no such program\n",
              run_command(perf + PZ_TRACE " record -- no-such-program 2>&1").output);
    EXPECT_EQ("pz-trace: no process 4194305\n",
              run_command(perf + PZ_TRACE " record -p 4194305 2>&1").output);

    // A device, say, which root could remove.
    const TempDir folder;
    ASSERT_EQ(0, mkfifo(folder.File("pipe").c_str(), 0600));
    EXPECT_EQ("pz-trace: " + folder.File("pipe") + ": is no regular file\n",
              run_command(perf + PZ_TRACE " record -o " + folder.File("pipe") +
                          " --library " PZ_LIBRARY " -- /bin/true 2>&1")
                  .output);
    EXPECT_TRUE(std::filesystem::is_fifo(folder.File("pipe")));
    EXPECT_EQ("pz-trace: " + folder.File("pipe") + ": is no library with probes\n",
              run_command(perf + "timeout 20 " PZ_TRACE " record --library " + folder.File("pipe") +
                          " -- /bin/true 2>&1")
                  .output);
    EXPECT_EQ("pz-trace: " + folder.Path() + ": is no regular file\n",
              run_command(perf + PZ_TRACE " record -o " + folder.Path() +
                          " --library " PZ_LIBRARY " -- /bin/true 2>&1")
                  .output);
    // Without ldd nothing is known of a program but its file.
    const CommandResult bare =
        run_command("python=" + kPython + " && ln -s /bin/true " + folder.File("perf") +
                    " && PATH=" + folder.Path() + " $python " PZ_TRACE " record -o " +
                    folder.File("data") + " -- /bin/true 2>&1");
    EXPECT_EQ(1, bare.status);
    EXPECT_FALSE(contains(bare.output, "Traceback")) << bare.output;

    const CommandResult refused = run_command(
        perf + (geteuid() == 0 ? "setpriv --reuid 65534 --clear-groups " : "") + kPython +
        " " PZ_TRACE " record -o /no-such-folder/data --library " PZ_LIBRARY " -- /bin/true 2>&1");
    EXPECT_EQ(1, refused.status);
    EXPECT_TRUE(std::regex_match(
        refused.output,
        std::regex("pz-trace: (no right to write .*/uprobe_events: run as root|tracefs is not "
                   "mounted: mount -t tracefs nodev /sys/kernel/tracing \\(as root\\)|"
                   "kernel.perf_event_paranoid is .*)\n")))
        << refused.output;
}
