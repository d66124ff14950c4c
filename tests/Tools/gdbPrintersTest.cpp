#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Golden.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

// What gdb shows of the objects in gdb_objects.cpp, with the printers of tools/gdb.

using pztest::CommandResult;
using pztest::run_command;
using pztest::TempDir;
using pztest::write_file;

namespace {

const char kMark[] = "----\n";  // stands behind what a command printed
const char kPrintMark[] = "echo ----\\n\n";

/// Runs the program to its inspection in gdb, then the commands; what they printed, one by one.
/// `load` makes the printers known, `environment` is put before the call of gdb.
std::vector<std::string> run_gdb(const std::vector<std::string>& commands,
                                 const std::string& load = "source " PZ_PRINTERS,
                                 const std::string& environment = "LC_ALL=C.UTF-8",
                                 const std::string& program = PZ_PROGRAM) {
    const TempDir dir;
    std::string script = "set debuginfod enabled off\nset print thread-events off\n" + load +
                         "\nbreak inspect\nrun\n" + kPrintMark;
    for (const std::string& command : commands) {
        // An error ends a script, but not the command that Python runs.
        script += "python\ntry: gdb.execute(r'''" + command +
                  "''')\nexcept gdb.error as error: print('error: %s' % error)\nend\necho \\n\n" +
                  kPrintMark;
    }
    write_file(dir.File("commands"), script);
    const CommandResult result = run_command(environment + " " PZ_GDB " -nx -batch -x " +
                                             dir.File("commands") + " " + program + " 2>&1");
    std::vector<std::string> outputs;
    size_t start = 0;
    for (size_t end = 0; (end = result.output.find(kMark, start)) != std::string::npos;) {
        std::string output = result.output.substr(start, end - start);
        while (!output.empty() && output.back() == '\n') output.pop_back();
        outputs.push_back(output);
        start = end + sizeof kMark - 1;
    }
    if (outputs.size() != commands.size() + 1) {
        ADD_FAILURE() << result.output;
        outputs.resize(commands.size() + 1);
    }
    outputs.erase(outputs.begin());
    return outputs;
}

/// What differs between two runs.
std::string without_chance(std::string text) {
    text = std::regex_replace(text, std::regex("0x[0-9a-f]{5,}"), "ADDRESS");
    text = std::regex_replace(text, std::regex("pipe \\d+ to \\d+"), "pipe W to R");
    text = std::regex_replace(text, std::regex("\\(\\d+ ms\\)"), "(N ms)");
    return std::regex_replace(text, std::regex("due at tick \\d+, in \\d+ ms"), "due later");
}

/// An expression and what `output` prints of it.
struct Row {
    const char* expression;
    std::string shown;
};

void expect_shown(const std::vector<Row>& rows) {
    std::vector<std::string> commands;
    for (const Row& row : rows) commands.push_back(std::string("output ") + row.expression);
    const std::vector<std::string> outputs = run_gdb(commands);
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].shown, without_chance(outputs[i])) << rows[i].expression;
    }
}

std::string repeated(const std::string& text, int times) {
    std::string result;
    for (int i = 0; i < times; ++i) result += text;
    return result;
}

/// The milliseconds behind `mark`.
long milliseconds_after(const std::string& text, const std::string& mark) {
    const size_t at = text.find(mark);
    return at != std::string::npos ? std::atol(text.c_str() + at + mark.size()) : -1;
}

const char kThreads[] =
    "6 threads = {\n"
    "  thread 2 = \"ZLTimerSubMng_0\", priority 196, waiting, watch time 4000 ms,\n"
    "  thread 3 = \"ZLTimerSubMng_1\", priority 197, waiting, watch time 4000 ms,\n"
    "  thread 4 = \"ZLTimerSubMng_2\", priority 198, waiting, watch time 4000 ms,\n"
    "  thread 5 = \"ZLTimerSubMng_3\", priority 199, waiting, watch time 4000 ms,\n"
    "  thread 6 = \"ZLTimerSubMng_4\", priority 200, waiting, watch time 4000 ms,\n"
    "  thread 7 = \"lamp \\\"A\\\"\", priority 251, running message 1 for Lamp at ADDRESS (N ms), "
    "watch time 600000 ms\n"
    "}";

const char kTimers[] =
    "5 bands = {\n"
    "  priorities 177 to 207 = \"ZLTimerSubMng_0\", 0 timers,\n"
    "  priorities 208 to 219 = \"ZLTimerSubMng_1\", 0 timers,\n"
    "  priorities 220 to 231 = \"ZLTimerSubMng_2\", 0 timers,\n"
    "  priorities 232 to 243 = \"ZLTimerSubMng_3\", 0 timers,\n"
    "  priorities 244 to 255 = \"ZLTimerSubMng_4\", 2 timers = {\n"
    "    Chime at ADDRESS = interval 1800000 ms, due later,\n"
    "    Blink at ADDRESS = interval 3600000 ms, due later\n"
    "  }\n"
    "}";

}  // namespace

TEST(gdbPrintersTest, ShowsTextsInTheirFormAndCodePage) {
    expect_shown({
        {"objects->textNothing", "nothing"},
        {"objects->textEmpty", "XCP_UTF8 \"\""},
        {"objects->textUtf8", "XCP_UTF8 \"Grüße \\\"7\\\\8\\\"\\n\""},
        {"objects->textBroken", "XCP_UTF8 \"a\\xffz\""},
        {"objects->textKoi8", "XCP_KOI8_R \"лес\""},
        {"objects->textShiftJis", "XCP_SJIS \"日本\""},
        {"objects->textRadio", "XCP_RDS \"D\\x80\""},
        {"objects->textWide", "wide \"Ж😀\""},
        {"objects->textBigEndian", "XCP_UTF16BE \"A€\""},
        {"objects->textLittleEndian", "XCP_UTF16LE \"A€\""},
    });
}

TEST(gdbPrintersTest, EscapesWhatTheTerminalDoesNotHave) {
    const std::vector<std::string> outputs =
        run_gdb({"output objects->textUtf8", "output objects->textWide"}, "source " PZ_PRINTERS,
                "LC_ALL=C");
    EXPECT_EQ("XCP_UTF8 \"Gr\\xfc\\xdfe \\\"7\\\\8\\\"\\n\"", outputs[0]);
    EXPECT_EQ("wide \"\\u0416\\U0001f600\"", outputs[1]);
}

TEST(gdbPrintersTest, ShowsBytesWithCursorAndReadPosition) {
    expect_shown({
        {"objects->binaryEmpty", "0 bytes, cursor at 0"},
        {"objects->binary", "4 bytes, cursor at 3: 01 02 fe 00"},
        {"objects->archiveEmpty", "0 bytes, read up to 0"},
        {"objects->archive", "5 bytes, read up to 4: 01 02 03 04 01"},
    });
}

TEST(gdbPrintersTest, CutsWhatIsLongerThanGdbIsToPrint) {
    expect_shown({
        {"objects->textLong", "XCP_UTF8 \"" + repeated("x", 200) + "\"..."},
        {"objects->binaryLong", "201 bytes, cursor at 0: " + repeated("00 ", 200) + "..."},
    });
    const std::vector<std::string> outputs =
        run_gdb({"set print elements 0", "output objects->textLong", "set print elements 2",
                 "output objects->binary"});
    EXPECT_EQ("XCP_UTF8 \"" + repeated("x", 201) + "\"", outputs[1]);
    EXPECT_EQ("4 bytes, cursor at 3: 01 02 ...", outputs[3]);
}

TEST(gdbPrintersTest, ShowsWhoHoldsALock) {
    expect_shown({
        {"objects->lockFree", "lock, free"},
        {"objects->lockHeld", "lock, held by thread 1"},
        {"objects->lockNested", "lock \"display\", held by thread 1, 3 times"},
        {"objects->lockNamed", "named lock \"pz_gdb_objects\", not held here"},
    });
}

TEST(gdbPrintersTest, CountsTheSignalsOfAnEventAndLeavesThemThere) {
    expect_shown({
        {"objects->eventUnset", "0 signals, pipe W to R"},
        {"objects->eventTwice", "2 signals, pipe W to R"},
        {"objects->eventTwice", "2 signals, pipe W to R"},
    });
}

TEST(gdbPrintersTest, ListsAMessageBoxInTheOrderOfService) {
    const std::vector<std::string> outputs =
        run_gdb({"set print pretty on", "output *objects->box", "output objects->boxUnused"});
    EXPECT_EQ(
        "worker 7, 3 messages, 2 events = {\n"
        "  message lock = lock, free,\n"
        "  dispatcher lock = lock, held by thread 7,\n"
        "  message 0 = id 4, emergency, for null, 1 byte: 7f,\n"
        "  message 1 = id 3, priority 64, for Lamp at ADDRESS,\n"
        "  message 2 = id 2, priority 192, for Lamp at ADDRESS, 4 bytes: 6c 61 74 65,\n"
        "  event 0 = 0x10 for Lamp at ADDRESS,\n"
        "  event 1 = 0x3 for Lamp at ADDRESS,\n"
        "  dispatcher 0 = Lamp at ADDRESS\n"
        "}",
        without_chance(outputs[1]));
    EXPECT_EQ(
        "not served yet, 0 messages, 0 events = {\n"
        "  message lock = lock, free,\n"
        "  dispatcher lock = lock, free\n"
        "}",
        outputs[2]);
}

TEST(gdbPrintersTest, ListsTheActiveTimersTheNextOneFirst) {
    const std::vector<std::string> outputs =
        run_gdb({"set print pretty on", "output *objects->timers",
                 "output objects->timersNotStarted", "pz-timers"});
    EXPECT_EQ(kTimers, without_chance(outputs[1]));
    EXPECT_EQ("not started, 0 timers", outputs[2]);
    EXPECT_EQ(kTimers, without_chance(outputs[3]));
    const long left = milliseconds_after(outputs[1].substr(outputs[1].find("Chime")), ", in ");
    EXPECT_GT(left, 1800000 - 300000);  // what gdb has taken of the half hour
    EXPECT_LE(left, 1800000);
}

TEST(gdbPrintersTest, ListsTheBoxesOfTheProcessWithWhatWaitsInThem) {
    std::string boxes = pztest::golden("gdb_boxes.txt");
    boxes.pop_back();  // the last line feed
    const TempDir dir;
    const std::string core = dir.File("core");
    const std::vector<std::string> outputs = run_gdb(
        {"pz-boxes", "generate-core-file " + core, "kill", "core-file " + core, "pz-boxes"});
    EXPECT_EQ(boxes, without_chance(outputs[0]));
    EXPECT_EQ(boxes,
              std::regex_replace(without_chance(outputs[4]), std::regex("thread \\d"), "thread 7"));
}

TEST(gdbPrintersTest, NamesThePackageWithTheSymbolsThatAreMissing) {
    const TempDir dir;
    const std::string library = dir.File("libpzframework.so.1");
    const CommandResult strip = run_command(PZ_STRIP " -s -o " + library + " " PZ_LIBRARY " 2>&1");
    ASSERT_EQ(0, strip.status) << strip.output;
    const std::vector<std::string> outputs =
        run_gdb({"pz-boxes", "pz-threads", "pz-timers"},
                "source " PZ_PRINTERS "\nset environment LD_LIBRARY_PATH " + dir.Path());
    const std::string missing = library +
                                " has no debug symbols: install the package "
                                "libpzframework1-dbgsym, or build the library with -g";
    for (const std::string& output : outputs) EXPECT_EQ(missing, output);
}

TEST(gdbPrintersTest, TellsThatTheFrameworkIsNotLoaded) {
    const CommandResult result =
        run_command(PZ_GDB " -nx -batch -ex 'source " PZ_PRINTERS "' -ex pz-boxes 2>&1");
    EXPECT_EQ("the framework is not loaded\n", result.output);
}

TEST(gdbPrintersTest, ListsTheRegisteredThreads) {
    const std::vector<std::string> outputs =
        run_gdb({"set print pretty on", "output *objects->threads", "pz-threads"});
    EXPECT_EQ(kThreads, without_chance(outputs[1]));
    EXPECT_EQ(kThreads, without_chance(outputs[2]));
}

TEST(gdbPrintersTest, TellsWaitingRunningAndStuckThreadsApart) {
    const TempDir dir;
    const std::string core = dir.File("core");
    const std::vector<std::string> outputs = run_gdb(
        {"pz-threads", "generate-core-file " + core, "kill", "core-file " + core, "pz-threads"},
        "source " PZ_PRINTERS, "LC_ALL=C.UTF-8", PZ_WORKERS);
    for (const std::string& output : {outputs[0], outputs[4]}) {
        const std::string shown = without_chance(output);
        for (const char* const line :
             {"\"idle\", priority 251, waiting, watch time 600000 ms",
              "\"busy\", priority 251, running message 3 for Unit at ADDRESS (N ms), watch time "
              "600000 "
              "ms",
              "\"stuck\", priority 251, stuck in event 0x30 for Unit at ADDRESS (N ms), watch time "
              "1 ms",
              "\"blocked\", priority 251, stuck, waits for lock \"door\", held by thread 1, at "
              "ADDRESS "
              "(N ms) in message 5 for Unit at ADDRESS (N ms), watch time 1 ms",
              "\"queued\", priority 251, waits for lock \"door\", held by thread 1, at ADDRESS (N "
              "ms) "
              "in message 6 for Unit at ADDRESS (N ms), watch time 600000 ms",
              "stuck in timer Late at ADDRESS (N ms), watch time 1 ms"}) {
            // The numbers of the threads of a core file may differ.
            const std::string wanted =
                std::regex_replace(shown, std::regex("held by thread \\d"), "held by thread 1");
            EXPECT_NE(std::string::npos, wanted.find(line)) << line << "\n" << shown;
        }
    }
}

TEST(gdbPrintersTest, ShowsTheObjectsInACoreFileAsWell) {
    const TempDir dir;
    const std::string core = dir.File("core");
    const std::vector<std::string> outputs =
        run_gdb({"generate-core-file " + core, "kill", "core-file " + core,
                 "output objects->textUtf8", "output objects->lockHeld",
                 "output objects->eventTwice", "set print pretty on", "pz-threads", "pz-timers"});
    EXPECT_EQ("XCP_UTF8 \"Grüße \\\"7\\\\8\\\"\\n\"", outputs[3]);
    EXPECT_TRUE(std::regex_match(outputs[4], std::regex("lock, held by thread \\d"))) << outputs[4];
    EXPECT_EQ("pipe W to R", without_chance(outputs[5]));
    EXPECT_EQ(0U, outputs[7].find("6 threads = {")) << outputs[7];
    EXPECT_NE(std::string::npos, outputs[7].find(" = \"lamp \\\"A\\\"\", priority 251, running"));
    EXPECT_TRUE(std::regex_search(
        outputs[8], std::regex("Chime at 0x[0-9a-f]+ = interval 1800000 ms, due at tick \\d+,\n")))
        << outputs[8];
}

TEST(gdbPrintersTest, ShowsObjectsOfZerosAsNotCreated) {
    expect_shown({
        {"*(PZString*)&objects->zeros", "nothing, XCP_LATIN_ASCII"},
        {"*(PZBinary*)&objects->zeros", "0 bytes, cursor at 0"},
        {"*(PZSerialization::Archive*)&objects->zeros", "0 bytes, read up to 0"},
        {"*(PZSync*)&objects->zeros", "not created"},
        {"*(PZEvent*)&objects->zeros", "not created"},
        {"*(PZLMsgBox*)&objects->zeros",
         "not served yet, 0 messages, 0 events = {message lock = not created, "
         "dispatcher lock = not created}"},
        {"*(PZLTimerSubMng*)&objects->zeros", "not started, 0 timers"},
        {"*(PZLTimerMng*)&objects->zeros", "0 bands"},
        {"*(PZThreadMng*)&objects->zeros", "0 threads"},
    });
}

TEST(gdbPrintersTest, PrintsGarbageAndNullOfEveryClassWithoutAnError) {
    std::vector<std::string> commands;
    for (const char* type :
         {"PZString", "PZBinary", "PZSerialization::Archive", "PZSync", "PZEvent", "PZLMsgBox",
          "PZLTimerSubMng", "PZLTimerMng", "PZThreadMng"}) {
        for (const char* address : {"&objects->pattern", "&objects->ones", "0", "8"}) {
            commands.push_back(std::string("output *(") + type + "*)" + address);
        }
    }
    const std::vector<std::string> outputs = run_gdb(commands);
    for (size_t i = 0; i < commands.size(); ++i) {
        EXPECT_FALSE(outputs[i].empty()) << commands[i];
        for (const char* failure : {"Python Exception", "Traceback", "Error occurred in Python"}) {
            EXPECT_EQ(std::string::npos, outputs[i].find(failure)) << commands[i] << outputs[i];
        }
    }
}

TEST(gdbPrintersTest, TheRawFieldsAreStillThere) {
    const std::vector<std::string> outputs =
        run_gdb({"output/r objects->binary", "disable pretty-printer global pzframework;PZBinary",
                 "output objects->binary"});
    EXPECT_NE(std::string::npos, outputs[0].find("cursor_ = 3"));
    EXPECT_NE(std::string::npos, outputs[2].find("cursor_ = 3"));
}

TEST(gdbPrintersTest, GdbLoadsTheInstalledPrintersWithTheLibrary) {
    const TempDir dir;
    const std::string prefix = dir.File("prefix");
    const std::string libraries = prefix + "/" PZ_LIBDIR;
    const CommandResult install = run_command(
        PZ_CMAKE " -DCMAKE_INSTALL_PREFIX=" + prefix + " -P " PZ_INSTALL_SCRIPT " && mkdir -p " +
        libraries + " && cp " PZ_LIBRARY " " + libraries + " && ln -s libpzframework.so.1.0.0 " +
        libraries + "/libpzframework.so.1 2>&1");
    ASSERT_EQ(0, install.status) << install.output;
    const std::string scripts = prefix + "/share/gdb/auto-load";
    const std::vector<std::string> outputs =
        run_gdb({"output objects->binary", "output objects->lockHeld"},
                "set auto-load safe-path " + scripts + "\nset auto-load scripts-directory " +
                    scripts + "\nset environment LD_LIBRARY_PATH " + libraries);
    EXPECT_EQ("4 bytes, cursor at 3: 01 02 fe 00", outputs[0]);
    EXPECT_EQ("lock, held by thread 1", outputs[1]);
}
