#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Communication/PZFileGuard.h>
#include <Framework/Diagnostics/PZDbgOutput.h>

#include "support/ChildProcess.h"
#include "support/GuardFiles.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"
#include "support/TestQueue.h"
#include "support/WaitUntil.h"

using pztest::CommandResult;
using pztest::GuardSegment;
using pztest::read_file;
using pztest::run_command;
using pztest::wait_until;

namespace {

/// What the stations broadcast, as a listener reads it: a station, then its texts.
const std::vector<std::vector<std::string>> kBroadcast = {
    {" 89.30 MHz  Hörfunk", "    Jetzt: Schubert, Die schöne Müllerin",
     "    Danach: Grüße für Hörer", "    Verkehr: A9 München → Nürnberg frei"},
    {" 94.10 MHz  Dźwięk", "    Teraz: Stanisław Moniuszko, Prząśniczka", "    Śpiewa chór żeński",
     "    Bilety od 20 €"},
    {"101.90 MHz  Café 101", "    Hoy: «Corazón» en vivo", "    Mañana: entrada 5 $",
     "    ¡Buenas noches, Perú!"},
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

/// The complete lines of a text.
std::vector<std::string> lines_of(const std::string& text) {
    std::istringstream stream(text.substr(0, text.rfind('\n') + 1));
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

/// The text without the codes that colour the lines of the framework's log.
std::string without_colours(std::string text) {
    for (size_t at = 0; (at = text.find("\033[", at)) != std::string::npos;)
        text.erase(at, text.find('m', at) + 1 - at);
    return text;
}

/// The number behind `before`; 0 when the text does not tell one.
unsigned int number_behind(const std::string& before, const std::string& text) {
    const size_t at = text.find(before);
    unsigned int number = 0;
    if (at != std::string::npos) std::sscanf(text.c_str() + at + before.size(), "%u", &number);
    return number;
}

/// Whether the settings are complete: a number behind every name, and nothing else.
bool are_whole_settings(const std::string& text) {
    const std::vector<std::string> names = {
        "tuner.run=", "tuner.on=", "tuner.station=", "display.run=", "display.tuner="};
    std::string expected;
    for (const std::string& name : names)
        expected += name + std::to_string(number_behind(name, text)) + "\n";
    return text == expected;
}

bool has_whole_broadcast(const std::vector<std::string>& lines) {
    for (const auto& station : kBroadcast) {
        for (const std::string& line : station) {
            if (std::find(lines.begin(), lines.end(), line) == lines.end()) return false;
        }
    }
    return true;
}

/// Every line is a station, or a text of the station above it.
void expect_only_the_broadcast(const std::vector<std::string>& lines) {
    const std::vector<std::string>* current = nullptr;
    for (const std::string& line : lines) {
        const auto found = std::find_if(kBroadcast.begin(), kBroadcast.end(),
                                        [&line](const auto& s) { return s.front() == line; });
        if (found != kBroadcast.end()) {
            current = &*found;
            continue;
        }
        ASSERT_NE(nullptr, current) << line;
        EXPECT_NE(current->end(), std::find(current->begin(), current->end(), line)) << line;
    }
}

/// One of the two programs, with its outputs in files.
class Program {
public:
    Program(std::vector<std::string> command, const std::string& output)
        : out_(output + ".out"),
          error_(output + ".err"),
          process_(pztest::program(std::move(command), {out_, error_})) {}

    /// Lines on the standard output that are not of the framework's log.
    std::vector<std::string> Shown() const {
        std::vector<std::string> lines = lines_of(without_colours(read_file(out_)));
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [](const std::string& line) { return contains(line, "{pz_"); }),
                    lines.end());
        return lines;
    }

    /// The lines of the framework's log.
    std::string Log() const { return without_colours(read_file(out_)); }

    std::string Notes() const { return read_file(error_); }
    bool HasNoted(const std::string& note) const { return contains(Notes(), note + "\n"); }

    void Signal(int signal) const { process_.Signal(signal); }

    /// SIGKILL, and waits for the end.
    void Kill() {
        Signal(SIGKILL);
        process_.Wait();
    }

    /// Asks for the end and waits for it: the exit status.
    int End() {
        Signal(SIGTERM);
        return process_.Wait();
    }

    /// Waits for an end that comes by itself.
    int Wait() { return process_.Wait(); }

private:
    const std::string out_;
    const std::string error_;
    pztest::ChildProcess process_;
};

using ProgramPtr = std::unique_ptr<Program>;

class twoprocessTest : public testing::Test {
protected:
    twoprocessTest() : files(dir.Path() + "/", "settings") {}

    ProgramPtr StartTuner(const std::string& intervalMs = "5") {
        return std::make_unique<Program>(
            std::vector<std::string>{PZ_TUNER, "--dir", dir.Path(), "--queue", queue.Text(),
                                     "--interval", intervalMs},
            dir.File("tuner" + std::to_string(++tuners)));
    }

    ProgramPtr StartDisplay() {
        return std::make_unique<Program>(
            std::vector<std::string>{PZ_DISPLAY, "--dir", dir.Path(), "--queue", queue.Text()},
            dir.File("display" + std::to_string(++displays)));
    }

    std::string SettingsText() const { return read_file(dir.File("settings")); }

    /// The value of a setting; "" without it.
    std::string Setting(const std::string& name) const {
        for (const std::string& line : lines_of(SettingsText())) {
            if (line.compare(0, name.size() + 1, name + "=") == 0)
                return line.substr(name.size() + 1);
        }
        return "";
    }

    bool WaitForSetting(const std::string& name, const std::string& value) const {
        return wait_until([&] { return Setting(name) == value; });
    }

    /// Waits until a display listens to a tuner, both given by their runs.
    bool WaitForListener(const std::string& display, const std::string& tuner) const {
        return wait_until([&] {
            return Setting("display.run") == display && Setting("display.tuner") == tuner &&
                   Setting("tuner.run") == tuner;
        });
    }

    static bool WaitForNote(const Program& program, const std::string& note) {
        return wait_until([&] { return program.HasNoted(note); });
    }

    static bool WaitForBroadcast(const Program& display) {
        return wait_until([&] { return has_whole_broadcast(display.Shown()); });
    }

    bool WaitForFullQueue() const {
        return wait_until(
            [this] { return queue.Exists() && pztest::RawQueue(queue).Count() == 64; });
    }

    /// A process dies while it holds the mutex; false when somebody else holds it.
    bool DieWithTheMutex() const {
        pztest::ChildProcess victim([this]() -> int {
            PZDbgOutput::SetSink([](const auto&, void*) { return false; }, nullptr);
            PZFileGuard guard(files.Dir(), files.Name());
            _exit(guard.initForApp() && guard.tryLock() ? 0 : 1);
        });
        return victim.Wait() == 0;
    }

    /// Whether the mutex is held by somebody who has died.
    bool IsHeldByTheDead() const {
        const GuardSegment mutex(files.MutexFile());
        const pid_t owner = mutex.Exists() ? mutex.MutexOwner() : 0;
        return owner != 0 && kill(owner, 0) == -1 && errno == ESRCH;
    }

    /// A killed program may have died with the mutex; otherwise a process of ours does. Programs
    /// that live hold it for a moment only.
    bool SomebodyDiesWithTheMutex() const {
        return wait_until([this] { return IsHeldByTheDead() || DieWithTheMutex(); });
    }

    void ExpectNothingLeftBehind() const {
        EXPECT_FALSE(queue.Exists());
        EXPECT_FALSE(GuardSegment(files.MutexFile()).Exists());
        EXPECT_FALSE(GuardSegment(files.FlagFile()).Exists());
    }

    const pztest::TempDir dir;
    const pztest::GuardFiles files;
    const pztest::QueueName queue;
    int tuners = 0;
    int displays = 0;
};

}  // namespace

TEST_F(twoprocessTest, TheDisplayShowsInUtf8WhatTheTunerSendsInTheRadioSets) {
    const ProgramPtr display = StartDisplay();
    const ProgramPtr tuner = StartTuner();
    EXPECT_TRUE(WaitForBroadcast(*display));
    EXPECT_EQ(0, display->End());
    EXPECT_EQ(0, tuner->End());
    expect_only_the_broadcast(display->Shown());
    EXPECT_TRUE(tuner->Shown().empty());
    EXPECT_EQ("pz_display: display 1 listens to tuner 1\n", display->Notes());
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, BothWriteTheirHalfOfTheSettings) {
    const ProgramPtr tuner = StartTuner("60000");  // no tick before the end of the test
    ASSERT_TRUE(WaitForSetting("tuner.run", "1"));
    EXPECT_EQ("tuner.run=1\ntuner.on=1\ntuner.station=8930\ndisplay.run=0\ndisplay.tuner=0\n",
              SettingsText());
    const ProgramPtr display = StartDisplay();
    ASSERT_TRUE(WaitForSetting("display.run", "1"));
    EXPECT_EQ("tuner.run=1\ntuner.on=1\ntuner.station=8930\ndisplay.run=1\ndisplay.tuner=1\n",
              SettingsText());
    EXPECT_EQ(0, display->End());
    EXPECT_EQ("tuner.run=1\ntuner.on=1\ntuner.station=8930\ndisplay.run=1\ndisplay.tuner=0\n",
              SettingsText());
    EXPECT_EQ(0, tuner->End());
    EXPECT_EQ("tuner.run=1\ntuner.on=0\ntuner.station=8930\ndisplay.run=1\ndisplay.tuner=0\n",
              SettingsText());
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, ATunerThatIsFirstOpensNoQueueBeforeADisplayListens) {
    const ProgramPtr tuner = StartTuner();
    ASSERT_TRUE(WaitForSetting("tuner.station", "9410"));
    EXPECT_FALSE(queue.Exists());
    const ProgramPtr display = StartDisplay();
    EXPECT_TRUE(WaitForBroadcast(*display));
    EXPECT_EQ(0, tuner->End());
    EXPECT_TRUE(WaitForNote(*display, "pz_display: the tuner has gone"));
    EXPECT_EQ(0, display->End());
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, ADisplayThatIsFirstMakesNoGuard) {
    const ProgramPtr display = StartDisplay();
    ASSERT_TRUE(wait_until([this] { return queue.Exists(); }));
    EXPECT_EQ(0, display->End());
    EXPECT_TRUE(display->Shown().empty());
    EXPECT_EQ("", display->Notes());
    EXPECT_EQ("", SettingsText());
    EXPECT_NE(0, access(files.MutexFile().c_str(), F_OK));
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, GoesOnWithTheNextTunerAfterATunerWasKilled) {
    const ProgramPtr display = StartDisplay();
    const ProgramPtr killed = StartTuner();
    ASSERT_TRUE(WaitForBroadcast(*display));
    killed->Kill();
    EXPECT_TRUE(queue.Exists());

    const ProgramPtr tuner = StartTuner();
    EXPECT_TRUE(WaitForNote(*display, "pz_display: display 1 listens to tuner 2"));
    EXPECT_TRUE(WaitForNote(*tuner, "pz_tuner: display 1 listens"));
    const size_t before = display->Shown().size();
    EXPECT_TRUE(wait_until([&] { return display->Shown().size() > before + 20; }));
    EXPECT_EQ(0, tuner->End());
    EXPECT_EQ(0, display->End());
    expect_only_the_broadcast(display->Shown());
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, ATunerBeginsWithTheStationAtWhichTheLastOneWasKilled) {
    const ProgramPtr killed = StartTuner();
    ASSERT_TRUE(WaitForSetting("tuner.station", "10190"));
    killed->Kill();
    const std::string station = Setting("tuner.station");
    const ProgramPtr tuner = StartTuner("60000");
    ASSERT_TRUE(WaitForSetting("tuner.run", "2"));
    EXPECT_EQ(station, Setting("tuner.station"));
    EXPECT_EQ(0, tuner->End());
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, ATunerFillsTheQueueOfAKilledDisplayAndSaysSoOnce) {
    const ProgramPtr killed = StartDisplay();
    const ProgramPtr tuner = StartTuner();
    ASSERT_TRUE(WaitForBroadcast(*killed));
    killed->Kill();
    ASSERT_TRUE(WaitForFullQueue());
    const std::string note = "pz_tuner: the queue is full: texts are dropped\n";
    ASSERT_TRUE(wait_until([&] { return contains(tuner->Notes(), note); }));
    // A few more refused messages, each of which the framework's log has a line for.
    const std::string refused = "que full (" + queue.Text() + ") 64/64";
    ASSERT_TRUE(wait_until([&] {
        const std::string log = read_file(dir.File("tuner1.out"));
        const size_t first = log.find(refused);
        return first != std::string::npos && log.find(refused, first + 1) != std::string::npos;
    }));
    EXPECT_EQ(tuner->Notes().find(note), tuner->Notes().rfind(note));
    EXPECT_EQ(0, tuner->End());
}

TEST_F(twoprocessTest, ADisplaySkipsWhatWasMeantForTheKilledOne) {
    const ProgramPtr killed = StartDisplay();
    const ProgramPtr tuner = StartTuner();
    ASSERT_TRUE(WaitForListener("1", "1"));
    killed->Kill();
    ASSERT_TRUE(WaitForFullQueue());

    const ProgramPtr display = StartDisplay();
    EXPECT_TRUE(WaitForBroadcast(*display));
    EXPECT_TRUE(WaitForNote(*tuner, "pz_tuner: display 2 listens"));
    EXPECT_EQ(0, display->End());
    EXPECT_EQ(0, tuner->End());
    expect_only_the_broadcast(display->Shown());
    const std::string notes = display->Notes();
    EXPECT_TRUE(contains(notes, " old messages skipped\n")) << notes;
    EXPECT_GE(number_behind("listens to tuner 1\npz_display: ", notes), 64U) << notes;
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, ATunerTellsTheStationFirstWhenAFullQueueHasRoomAgain) {
    const ProgramPtr display = StartDisplay();
    const ProgramPtr tuner = StartTuner();
    ASSERT_TRUE(WaitForListener("1", "1"));
    display->Signal(SIGSTOP);
    ASSERT_TRUE(WaitForNote(*tuner, "pz_tuner: the queue is full: texts are dropped"));
    const std::string station = Setting("tuner.station");
    ASSERT_TRUE(wait_until([&] { return Setting("tuner.station") != station; }));
    display->Signal(SIGCONT);
    const std::string room = "pz_tuner: the queue has room: ";
    EXPECT_TRUE(wait_until([&] { return number_behind(room, tuner->Notes()) > 0; }));
    EXPECT_TRUE(WaitForBroadcast(*display));
    EXPECT_EQ(0, display->End());
    EXPECT_EQ(0, tuner->End());
    expect_only_the_broadcast(display->Shown());
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, BothKilledComeUpAgainInEitherOrder) {
    for (int round = 1; round <= 4; ++round) {
        SCOPED_TRACE(round);
        const bool isTunerFirst = round % 2 == 0;
        const bool isTunerKilledFirst = round > 2;
        ProgramPtr tuner = isTunerFirst ? StartTuner() : nullptr;
        if (isTunerFirst) {
            ASSERT_TRUE(WaitForSetting("tuner.run", std::to_string(round)));
        }
        const ProgramPtr display = StartDisplay();
        if (!isTunerFirst) {
            ASSERT_TRUE(wait_until([this] { return queue.Exists(); }));
            tuner = StartTuner();
        }
        ASSERT_TRUE(WaitForBroadcast(*display));
        expect_only_the_broadcast(display->Shown());
        (isTunerKilledFirst ? tuner : display)->Kill();
        (isTunerKilledFirst ? display : tuner)->Kill();
    }
    const ProgramPtr display = StartDisplay();
    const ProgramPtr tuner = StartTuner();
    EXPECT_TRUE(WaitForBroadcast(*display));
    EXPECT_EQ(0, tuner->End());
    EXPECT_EQ(0, display->End());
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, TheQueueOfADisplayThatHasEndedDoesNotComeBack) {
    const ProgramPtr tuner = StartTuner();
    const ProgramPtr ended = StartDisplay();
    ASSERT_TRUE(WaitForBroadcast(*ended));
    EXPECT_EQ(0, ended->End());
    EXPECT_FALSE(queue.Exists());
    EXPECT_TRUE(WaitForNote(*tuner, "pz_tuner: the display has gone"));
    EXPECT_FALSE(queue.Exists());

    const ProgramPtr display = StartDisplay();
    EXPECT_TRUE(WaitForBroadcast(*display));
    EXPECT_EQ(0, display->End());
    EXPECT_EQ(0, tuner->End());
    EXPECT_FALSE(contains(display->Notes(), "skipped"));
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, ADisplayAttachesAgainWhenATunerHasRemovedTheGuard) {
    const ProgramPtr display = StartDisplay();
    const ProgramPtr ended = StartTuner();
    ASSERT_TRUE(WaitForBroadcast(*display));
    EXPECT_EQ(0, ended->End());
    EXPECT_FALSE(GuardSegment(files.MutexFile()).Exists());

    const ProgramPtr tuner = StartTuner();
    EXPECT_TRUE(WaitForNote(*display, "pz_display: display 1 listens to tuner 2"));
    EXPECT_TRUE(WaitForNote(*tuner, "pz_tuner: display 1 listens"));
    EXPECT_EQ(0, display->End());
    EXPECT_EQ("0", Setting("display.tuner"));
    EXPECT_EQ(0, tuner->End());
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, ATunerReplacesTheMutexThatADisplayDiedWith) {
    const ProgramPtr tuner = StartTuner();
    ASSERT_TRUE(WaitForSetting("tuner.run", "1"));
    ASSERT_TRUE(wait_until([this] { return DieWithTheMutex(); }));
    const ProgramPtr display = StartDisplay();
    EXPECT_TRUE(WaitForBroadcast(*display));
    EXPECT_EQ(0, display->End());
    EXPECT_EQ(0, tuner->End());
    ExpectNothingLeftBehind();
}

// It is part of the wait; what comes of the wait has its line.
TEST_F(twoprocessTest, AMutexThatIsHeldMakesNoLineInTheLogEachTime) {
    const ProgramPtr tuner = StartTuner();
    ASSERT_TRUE(WaitForSetting("tuner.run", "1"));
    ASSERT_TRUE(wait_until([this] { return DieWithTheMutex(); }));
    EXPECT_TRUE(wait_until([&] { return contains(tuner->Log(), "destroyMutexForSystem()"); }));
    EXPECT_EQ(0, tuner->End());
    EXPECT_FALSE(contains(tuner->Log(), "tryLock()")) << tuner->Log();
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, ATunerReplacesTheMutexThatATunerDiedWith) {
    const ProgramPtr killed = StartTuner();
    const ProgramPtr display = StartDisplay();
    ASSERT_TRUE(WaitForListener("1", "1"));
    killed->Kill();
    ASSERT_TRUE(SomebodyDiesWithTheMutex());
    const ProgramPtr tuner = StartTuner();
    EXPECT_TRUE(WaitForNote(*tuner, "pz_tuner: display 1 listens"));
    EXPECT_TRUE(WaitForBroadcast(*display));
    EXPECT_EQ(0, display->End());
    EXPECT_EQ(0, tuner->End());
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, ADisplayEndsAlthoughATunerDiedWithTheMutex) {
    const ProgramPtr killed = StartTuner();
    const ProgramPtr display = StartDisplay();
    ASSERT_TRUE(WaitForListener("1", "1"));
    killed->Kill();
    ASSERT_TRUE(SomebodyDiesWithTheMutex());
    EXPECT_EQ(0, display->End());
    EXPECT_FALSE(queue.Exists());

    // The display stays listed for a run that is over: the next tuner does not send.
    EXPECT_EQ("1", Setting("display.tuner"));
    const ProgramPtr tuner = StartTuner();
    ASSERT_TRUE(WaitForSetting("tuner.run", "2"));
    const std::string station = Setting("tuner.station");
    ASSERT_TRUE(wait_until([&] { return Setting("tuner.station") != station; }));
    EXPECT_FALSE(queue.Exists());
    EXPECT_EQ(0, tuner->End());
    EXPECT_EQ("", tuner->Notes());
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, TheSettingsAreWholeWheneverATunerIsKilled) {
    for (int run = 1; run <= 20; ++run) {
        const ProgramPtr tuner = StartTuner("1");
        ASSERT_TRUE(WaitForSetting("tuner.run", std::to_string(run)));
        const std::string station = Setting("tuner.station");
        // The file is being replaced at these moments.
        ASSERT_TRUE(wait_until([&] {
            EXPECT_TRUE(are_whole_settings(SettingsText())) << SettingsText();
            return Setting("tuner.station") != station;
        }));
        tuner->Kill();
        EXPECT_TRUE(are_whole_settings(SettingsText())) << SettingsText();
    }
}

TEST_F(twoprocessTest, ADraftThatAKilledProcessLeftIsOverwritten) {
    pztest::write_file(dir.File("settings.tuner"), "tuner.run=9\ntuner.o");
    const ProgramPtr tuner = StartTuner("60000");
    ASSERT_TRUE(WaitForSetting("tuner.run", "1"));
    EXPECT_EQ("tuner.run=1\ntuner.on=1\ntuner.station=8930\ndisplay.run=0\ndisplay.tuner=0\n",
              SettingsText());
    EXPECT_EQ(0, tuner->End());
    EXPECT_NE(0, access(dir.File("settings.tuner").c_str(), F_OK));
}

TEST_F(twoprocessTest, BothPutRightASettingsFileThatWasSpoiled) {
    const ProgramPtr tuner = StartTuner();
    const ProgramPtr display = StartDisplay();
    ASSERT_TRUE(WaitForListener("1", "1"));
    pztest::write_file(dir.File("spoiled"), "no settings\n=\ntuner.run=x\n");
    ASSERT_EQ(0, rename(dir.File("spoiled").c_str(), dir.File("settings").c_str()));
    EXPECT_TRUE(WaitForListener("1", "1"));
    EXPECT_EQ(0, display->End());
    EXPECT_EQ(0, tuner->End());
    EXPECT_TRUE(are_whole_settings(SettingsText())) << SettingsText();
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, ADisplayDropsMessagesOfOtherPrograms) {
    const std::string mark = std::string("\x01RT", 3);
    const std::vector<std::string> foreign = {
        "\x01hello",
        mark,
        mark + std::string("\x00\x00\x00\x05\x01\x00\x00\x00\x01", 9),  // cut
        mark + std::string("\xFF\xFF\xFF\xFF", 4),                      // longer than it is
        mark + std::string(200, '\xFF'),
    };
    const ProgramPtr display = StartDisplay();
    ASSERT_TRUE(wait_until([this] { return queue.Exists(); }));
    const pztest::RawQueue sender(queue);
    std::string notes;
    for (const std::string& message : foreign) {
        ASSERT_EQ(0, sender.Send(message, 1));
        notes += "pz_display: a message that is no telegram was dropped\n";
    }
    EXPECT_TRUE(wait_until([&] { return display->Notes() == notes; })) << display->Notes();
    EXPECT_EQ(0, display->End());
    EXPECT_TRUE(display->Shown().empty());
}

TEST_F(twoprocessTest, SettingsThatCannotBeWrittenEndATuner) {
    ASSERT_EQ(0, mkdir(dir.File("settings").c_str(), 0700));
    const ProgramPtr tuner = StartTuner();
    EXPECT_EQ(1, tuner->Wait());
    EXPECT_EQ("pz_tuner: the settings cannot be written\n", tuner->Notes());
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, SettingsThatCannotBeWrittenEndADisplay) {
    ASSERT_EQ(0, mkdir(dir.File("settings.display").c_str(), 0700));
    const ProgramPtr tuner = StartTuner();
    const ProgramPtr display = StartDisplay();
    EXPECT_EQ(1, display->Wait());
    EXPECT_EQ("pz_display: the settings cannot be written\n", display->Notes());
    EXPECT_EQ(0, tuner->End());
    ExpectNothingLeftBehind();
}

TEST_F(twoprocessTest, AQueueThatCannotBeOpenedEndsADisplay) {
    const CommandResult result =
        run_command(PZ_DISPLAY " --dir " + dir.Path() + " --queue . 2>&1 >/dev/null");
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("pz_display: the queue . cannot be opened\n", result.output);
}

TEST_F(twoprocessTest, BothTellTheirUsageAndRefuseBadArguments) {
    const std::string good = " --dir " + dir.Path() + " --queue " + queue.Text();
    for (const std::string program : {PZ_TUNER, PZ_DISPLAY}) {
        SCOPED_TRACE(program);
        const std::string name = program.substr(program.rfind('/') + 1);
        const CommandResult help = run_command(program + " --help");
        EXPECT_EQ(0, help.status);
        EXPECT_EQ(0U, help.output.find("usage: " + name + " --dir DIR --queue NAME"));

        const std::vector<std::pair<std::string, std::string>> mistakes = {
            {"", "--dir is missing"},
            {" --dir " + dir.Path(), "--queue is missing"},
            {" --queue x --dir " + dir.File("none"), "--dir is not a folder"},
            {" --dir /tmp --queue a/b", "the name of --queue holds a '/'"},
            {" --dir /tmp --queue " + std::string(33, 'q'),
             "the name of --queue has more than 32 characters"},
            {good + " --nonsense", "unknown option --nonsense"},
        };
        for (const auto& [arguments, text] : mistakes) {
            const CommandResult result = run_command(program + arguments + " 2>&1 >/dev/null");
            EXPECT_EQ(2, result.status) << arguments;
            EXPECT_EQ(0U, result.output.find(name + ": " + text + "\nusage: " + name))
                << result.output;
        }
    }
    for (const std::string interval : {"0", "60001", "-1", "5x", "x", ""}) {
        const CommandResult result =
            run_command(PZ_TUNER + good + " --interval '" + interval + "' 2>&1");
        EXPECT_EQ(2, result.status);
        EXPECT_EQ(
            0U, result.output.find("pz_tuner: --interval is not a number from 1 to 60000\nusage:"));
    }
    EXPECT_EQ(2, run_command(PZ_DISPLAY + good + " --interval 5 2>&1").status);
}

TEST_F(twoprocessTest, OneCommandRunsBothAndTellsWhetherAllWentWell) {
    const CommandResult result = run_command(PZ_TWOPROCESS_RUN " 1 2>&1");
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_TRUE(contains(result.output, " 89.30 MHz  Hörfunk\n")) << result.output;

    EXPECT_EQ("usage: run SECONDS\n", run_command(PZ_TWOPROCESS_RUN " 2>&1").output);
    EXPECT_EQ(2, run_command(PZ_TWOPROCESS_RUN " soon 2>&1").status);

    // A tuner that ends early, a display that shows nothing.
    run_command("cp " PZ_TWOPROCESS_RUN " " + dir.Path());
    EXPECT_EQ(1, run_command(dir.File("run") + " 1 2>&1").status);
    run_command("ln -s " PZ_DISPLAY " " + dir.Path() + "; ln -s /bin/false " +
                dir.File("pz_tuner"));
    const CommandResult broken = run_command(dir.File("run") + " 1 2>&1");
    EXPECT_EQ(1, broken.status);
    EXPECT_TRUE(contains(broken.output, "run: pz_tuner failed\n")) << broken.output;
    EXPECT_TRUE(contains(broken.output, "run: no station was shown\n")) << broken.output;
}
