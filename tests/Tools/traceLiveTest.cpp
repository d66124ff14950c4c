#include <signal.h>
#include <unistd.h>

#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "TraceTool.h"
#include "support/ChildProcess.h"
#include "support/Document.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

// pz-trace on running programs. Where the machine or the user may not make probes, it has to say
// so.

using pztest::checked_export;
using pztest::CommandResult;
using pztest::contains;
using pztest::passed;
using pztest::run_command;
using pztest::run_trace;
using pztest::TempDir;

namespace {

/// Runs a command where the kernel's events can be made, without mounting anything for others.
std::string with_tracefs(const std::string& command) {
    return "unshare -m sh -c 'grep -q \" tracefs \" /proc/mounts || mount -t tracefs nodev "
           "/sys/kernel/tracing; exec " +
           command + "' 2>&1";
}

bool may_record() {
    static const bool may =
        geteuid() == 0 && run_command("command -v perf >/dev/null && " +
                                      with_tracefs("test -w /sys/kernel/tracing/uprobe_events"))
                                  .status == 0;
    return may;
}

/// Records; where this machine does not allow it, the tool has to say why, in one line.
bool record(const std::string& file, const std::string& target) {
    const CommandResult run =
        run_command(with_tracefs(PZ_TRACE " record -o " + file + " " + target));
    if (may_record()) {
        EXPECT_EQ(0, run.status) << run.output;
        return run.status == 0;
    }
    EXPECT_EQ(1, run.status);
    EXPECT_TRUE(contains("\n" + run.output, "\npz-trace: ")) << run.output;
    return false;
}

std::string kernel_events() {
    return run_command(with_tracefs("cat /sys/kernel/tracing/uprobe_events")).output;
}

/// Records a process until the kernel has counted the end of `wanted` messages, and sends the
/// signal to the recording then. How many of them it has.
int noted_until_interrupted(const TempDir& folder, const std::string& signal,
                            const std::string& pid, int wanted) {
    const std::string file = folder.File(signal);
    pztest::write_file(folder.File("commands"),
                       PZ_TRACE " record -o " + file + " -p " + pid +
                           " & trace=$!\n"
                           "passed() { awk '/msg_end/ {n = $3} END {exit n < " +
                           std::to_string(wanted) +
                           "}' /sys/kernel/tracing/uprobe_profile; }\n"
                           "for i in $(seq 600); do passed && break; sleep 0.1; done\n"
                           "kill -" +
                           signal + " $trace; wait $trace\n");
    const CommandResult run = run_command(with_tracefs("sh " + folder.File("commands")));
    EXPECT_EQ(0, run.status) << run.output;
    return passed(run_trace("show " + file).output, "msg_end");
}

}  // namespace

TEST(traceLiveTest, ShowsWhatAProgramHasCountedItself) {
    const TempDir folder;
    const std::string file = folder.File("data");
    if (!record(file, "-- " PZ_PROGRAM)) return;
    EXPECT_FALSE(contains(kernel_events(), "pztrace_")) << "removed at the end";

    const std::string shown = run_trace("show " + file).output;
    for (const char* probe : {"msg_post", "msg_begin", "msg_end"}) {
        EXPECT_EQ(11, passed(shown, probe)) << shown;
    }
    for (const char* probe : {"event_post", "event_begin", "event_end", "worker_start"}) {
        EXPECT_EQ(1, passed(shown, probe)) << shown;
    }
    EXPECT_EQ(2, passed(shown, "timer_add"));
    EXPECT_EQ(4, passed(shown, "timer_begin"));
    EXPECT_EQ(4, passed(shown, "timer_end"));
    EXPECT_EQ(3, passed(shown, "heap_allocate"));
    EXPECT_EQ(3, passed(shown, "heap_release"));
    // Its slow handler, for which ten others wait.
    EXPECT_TRUE(std::regex_search(
        shown, std::regex("slowest handlers \\(12 of 12\\)\n[^\n]+\n +[2-9]\\d\\d\\.\\d+  [^\n]+  "
                          "patient  message 7 ")))
        << shown;
    EXPECT_TRUE(std::regex_search(
        shown,
        std::regex(
            "patient \\(worker 5\\) +12 +[1-9]\\d\\d\\.\\d+ +[1-9]\\d\\d\\.\\d+ [^\n]+ 1[12]\n")))
        << shown;
    // The timer that another one's callback delays.
    EXPECT_TRUE(std::regex_search(
        shown, std::regex("worst late ms[^\n]+\n  0x\\w+ +\\S+ +20 +3 +\\d+ +\\d{2,3} +\\d+\\.")))
        << shown;
    EXPECT_TRUE(std::regex_search(
        shown, std::regex("waits for locks[^\n]+\n[^\n]+\n +([4-9]\\d|\\d{3})\\.\\d+  ")))
        << shown;
    EXPECT_LT(passed(shown, "lock_wait"), 100) << "a free lock is not waited for";
    const std::string exported = checked_export(file);
    EXPECT_TRUE(contains(exported, " arrows 12 ")) << exported;
    EXPECT_TRUE(contains(exported, "patient")) << exported;
}

TEST(traceLiveTest, ARecordingOfTheDemoHoldsTheEndOfEveryMessageAndWorker) {
    const TempDir folder;
    const std::string file = folder.File("data");
    if (!record(file, "-- " PZ_SCAN " " PZ_ROOT "/examples/data")) return;
    const std::string shown = run_trace("show " + file).output;
    const int messages = passed(shown, "msg_post");
    EXPECT_GE(messages, 13) << "one for each file at least";
    EXPECT_EQ(messages, passed(shown, "msg_end"));
    EXPECT_EQ(4, passed(shown, "worker_end"));
    const std::string exported = checked_export(file);
    EXPECT_TRUE(
        contains(exported, "arrows " + std::to_string(messages + passed(shown, "event_end"))))
        << exported;
    EXPECT_TRUE(contains(exported, "scan_checksum,scan_reader,scan_scanner,scan_text")) << exported;
}

TEST(traceLiveTest, RecordsTwoProcessesOfAScript) {
    const TempDir folder;
    const std::string file = folder.File("data");
    std::string shown;
    bool hasBoth = false;
    // On a busy machine the kernel now and then makes no probes in a process that perf's command
    // has started: then once more.
    for (int attempt = 0; !hasBoth && attempt < 5; ++attempt) {
        if (!record(file, "--library " PZ_LIBRARY " -- " PZ_TWOPROCESS_RUN " 1")) return;
        shown = run_trace("show " + file).output;
        hasBoth = contains(shown, "pz_display (") && contains(shown, "pz_tuner (");
    }
    EXPECT_TRUE(hasBoth) << shown;
    EXPECT_GT(passed(shown, "queue_send"), 2) << shown;
    // The display ends first: what is sent to it after that stays.
    EXPECT_NEAR(passed(shown, "queue_send"), passed(shown, "queue_receive"), 3) << shown;
    const std::string exported = checked_export(file);
    EXPECT_TRUE(contains(exported, "display")) << exported;
    EXPECT_EQ(0U, exported.find("slices ")) << exported;
}

TEST(traceLiveTest, RecordsARunningProcessForSomeTimeOrUntilItIsInterrupted) {
    if (!may_record()) return;
    pztest::ChildProcess program([] { return execl(PZ_PROGRAM, PZ_PROGRAM, "for ever", nullptr); });
    const TempDir folder;
    const std::string file = folder.File("data");
    const std::string pid = std::to_string(program.Pid());
    ASSERT_TRUE(pztest::wait_until([&] {
        return contains(run_command("cat /proc/" + pid + "/task/*/comm").output, "patient");
    }));
    std::string shown;
    // A busy machine may let little happen in so short a time: then once more, for longer.
    for (const std::string seconds : {"0.3", "3", "30"}) {
        ASSERT_TRUE(record(file, "-t " + seconds + " --only msg -p " + pid));
        shown = run_trace("show " + file).output;
        if (passed(shown, "msg_end") > 20) break;
    }
    EXPECT_GT(passed(shown, "msg_end"), 20) << shown;
    EXPECT_EQ(-1, passed(shown, "lock_wait")) << "only what was asked for";

    for (const std::string signal : {"INT", "TERM"}) {
        // On a busy machine the kernel counts long before perf notes: then once more, for longer.
        int noted = 0;
        for (int wanted = 50; noted <= 20 && wanted <= 5000; wanted *= 10) {
            noted = noted_until_interrupted(folder, signal, pid, wanted);
        }
        EXPECT_GT(noted, 20) << signal;
        EXPECT_FALSE(contains(kernel_events(), "pztrace_")) << signal;
    }
    EXPECT_EQ(0, kill(program.Pid(), 0)) << "the process goes on";
}

TEST(traceLiveTest, RemovesWhatAKilledRunHasLeft) {
    if (!may_record()) return;
    const std::string left = "p:pztrace_4194305/msg_end " PZ_LIBRARY ":0x1000";
    ASSERT_EQ(
        0, run_command(with_tracefs("echo \"" + left + "\" >> /sys/kernel/tracing/uprobe_events"))
               .status);
    EXPECT_TRUE(contains(kernel_events(), "pztrace_4194305"));
    const TempDir folder;
    ASSERT_TRUE(record(folder.File("data"), "-- " PZ_PROGRAM));
    EXPECT_FALSE(contains(kernel_events(), "pztrace_"));
}

TEST(traceLiveTest, TheLineForPerfOfThePageOfProbesDoesWhatItSays) {
    if (!may_record()) return;
    std::string line = pztest::block_of(pztest::read_file(PZ_ROOT "/docs/probes.md"), "text perf");
    line = std::regex_replace(line, std::regex("LIBRARY"), PZ_LIBRARY);
    line = std::regex_replace(line, std::regex(" -p PID\\s*"), " -o data -- " PZ_PROGRAM "\n");
    const TempDir folder;
    // perf keeps what it has added in the home folder.
    pztest::write_file(folder.File("commands"), "cd " + folder.Path() + "\nHOME=" + folder.Path() +
                                                    "\nexport HOME\n" + line +
                                                    "perf probe -q -d 'sdt_pzframework:*'\n");
    const CommandResult run = run_command(with_tracefs("sh " + folder.File("commands")));
    const std::string shown = run_trace("show " + folder.File("data")).output;
    EXPECT_EQ(4, passed(shown, "timer_begin")) << run.output << shown;
}
