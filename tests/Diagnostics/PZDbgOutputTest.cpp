#include "Framework/Diagnostics/PZDbgOutput.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/pz_framework.h>

#include "support/CancelledStack.h"
#include "support/ChildProcess.h"
#include "support/StdoutCapture.h"
#include "support/StuckStdout.h"

namespace {

using pztest::padded_line;

const std::string kRed = "\033[31m";
const std::string kDefault = "\033[49m";
const std::string kReset = "\033[0m";

struct LogEntry {
    int priority;
    std::string line;
};

bool operator==(const LogEntry& left, const LogEntry& right) {
    return left.priority == right.priority && left.line == right.line;
}

std::ostream& operator<<(std::ostream& out, const LogEntry& entry) {
    return out << entry.priority << ": " << entry.line;
}

using Log = std::vector<LogEntry>;

std::mutex system_log_mutex;
Log system_log;
pztest::StdoutCapture* watched_output = nullptr;  // what it holds when a line is logged goes
std::string printed_before_log;                   // here

bool connects = false;  // as the log does at its first line, and when its daemon was started again
int connection = -1;

bool is_cancelled = false;  // the thread that logs, at a cancellation point of the log

}  // namespace

// The system log of these tests.
extern "C" void syslog(int pri, const char* fmt, ...) {
    char line[4096];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(line, sizeof line, fmt, args);
    va_end(args);
    if (is_cancelled) {
        pthread_cancel(pthread_self());
        pthread_testcancel();
    }
    const std::lock_guard<std::mutex> lock(system_log_mutex);
    system_log.push_back({pri, line});
    if (watched_output != nullptr) printed_before_log = watched_output->Take();
    if (connects) connection = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    errno = ENOTCONN;
}

namespace {

class PZDbgOutputTest : public testing::Test {
protected:
    ~PZDbgOutputTest() override {
        watched_output = nullptr;
        is_cancelled = false;
        system_log.clear();
    }

    void ExpectError(const std::string& line) {
        EXPECT_EQ(padded_line(kRed, line), output.Take());
        EXPECT_EQ(Log({{LOG_ERR, line}}), system_log);
    }

    pztest::StdoutCapture output;
};

/// A message of `length` characters that does not repeat within ten.
std::string message_of(size_t length) {
    std::string message;
    for (size_t i = 0; i < length; ++i) message += static_cast<char>('0' + i % 10);
    return message;
}

/// `text` as it is printed when there is nothing to pad.
std::string coloured(const std::string& colour, const std::string& text) {
    return colour + text + kReset;
}

struct TagRow {
    int tag;
    std::string word;
    std::string colour;
    int priority;
    bool logged;
};

void PrintTo(const TagRow& row, std::ostream* out) {
    *out << row.word << " (" << row.tag << ")";
}

class PZDbgOutputTagTest : public PZDbgOutputTest, public testing::WithParamInterface<TagRow> {
protected:
    static PZDbgOutput::EN_TAG Tag() { return static_cast<PZDbgOutput::EN_TAG>(GetParam().tag); }

    /// What the log holds after one report of `line`.
    static Log ExpectedLog(const std::string& line) {
        return GetParam().logged ? Log{{GetParam().priority, line}} : Log{};
    }
};

// clang-format off
const TagRow kRows[] = {
    // tag     word       colour    priority     logged
    { 0,       "info",    kDefault, LOG_INFO,    false },
    { 1,       "error",   kRed,     LOG_ERR,     true  },
    { 2,       "debug",   kDefault, LOG_DEBUG,   false },
    { 3,       "verbose", kDefault, LOG_INFO,    false },
    { 4,       "warning", kDefault, LOG_WARNING, false },
    { 5,       "sys",     kDefault, LOG_NOTICE,  true  },
    { 6,       "illegal", kDefault, LOG_ERR,     true  },
    { 9,       "illegal", kDefault, LOG_ERR,     true  },
    { 256,     "illegal", kDefault, LOG_ERR,     true  },
    { -1,      "illegal", kDefault, LOG_ERR,     true  },
    { INT_MAX, "illegal", kDefault, LOG_ERR,     true  },
    { INT_MIN, "illegal", kDefault, LOG_ERR,     true  },
};
// clang-format on

}  // namespace

INSTANTIATE_TEST_SUITE_P(EveryTag, PZDbgOutputTagTest, testing::ValuesIn(kRows));

TEST_P(PZDbgOutputTagTest, AnswersTheColourOfTheTag) {
    EXPECT_EQ(GetParam().colour, PZDbgOutput::getColorTagString(Tag()));
}

TEST_P(PZDbgOutputTagTest, PrintsAndLogsANarrowLine) {
    PZDbgOutput::DbgPrint("../x/unit", "f", 12, Tag(), "hi %d\n", 7);
    const std::string line = "[" + GetParam().word + "] f()@unit(12) {} : hi 7\n";
    EXPECT_EQ(padded_line(GetParam().colour, line), output.Take());
    EXPECT_EQ(ExpectedLog(line), system_log);
}

TEST_P(PZDbgOutputTagTest, PrintsAndLogsAWideLineWithABlankAfterTheFunction) {
    PZDbgOutput::DbgPrint("../x/unit", "f", 12, Tag(), L"hi %d\n", 7);
    const std::string line = "[" + GetParam().word + "] f ()@unit(12) {} : hi 7\n";
    EXPECT_EQ(padded_line(GetParam().colour, line), output.Take());
    EXPECT_EQ(ExpectedLog(line), system_log);
}

TEST_F(PZDbgOutputTest, NumbersItsTagsFrom0To5) {
    EXPECT_EQ(0, PZDbgOutput::en_TAG_INFO);
    EXPECT_EQ(1, PZDbgOutput::en_TAG_ERROR);
    EXPECT_EQ(2, PZDbgOutput::en_TAG_DEBUG);
    EXPECT_EQ(3, PZDbgOutput::en_TAG_VERBOSE);
    EXPECT_EQ(4, PZDbgOutput::en_TAG_WARNING);
    EXPECT_EQ(5, PZDbgOutput::en_TAG_SYS);
}

TEST_F(PZDbgOutputTest, AlignsALineToTheRightOf80Columns) {
    PZDbgOutput::DbgPrint("../x/unit", "f", 12, PZDbgOutput::en_TAG_INFO, "hi\n");
    EXPECT_EQ("\033[49m" + std::string(52, ' ') + "[info] f()@unit(12) {} : hi\n\033[0m",
              output.Take());
}

TEST_F(PZDbgOutputTest, PadsALineOf79CharactersByOneBlankAndLongerOnesNotAtAll) {
    const std::string head = "[info] f()@unit(12) {} : ";
    for (const size_t length : {79U, 80U, 81U, 200U}) {
        const std::string message = message_of(length - head.size());
        const std::string blanks = length == 79 ? " " : "";
        const std::string line = head + message;
        PZDbgOutput::DbgPrint("unit", "f", 12, PZDbgOutput::en_TAG_INFO, "%s", message.c_str());
        EXPECT_EQ(coloured(kDefault, blanks + line), output.Take());
    }
}

TEST_F(PZDbgOutputTest, PrintsAPlainMessageWithoutPrefixAndPadding) {
    PZDbgOutput::DbgPrint("%s is %d", "seven", 7);
    EXPECT_EQ("\033[49mseven is 7\033[0m", output.Take());
    PZDbgOutput::DbgPrint("two\nlines\n");
    EXPECT_EQ("\033[49mtwo\nlines\n\033[0m", output.Take());
    PZDbgOutput::DbgPrint("%s", "");
    EXPECT_EQ("\033[49m\033[0m", output.Take());
    EXPECT_EQ(Log(), system_log);
}

TEST_F(PZDbgOutputTest, PrintsAnUntaggedLineWithABlankAfterTheFunction) {
    PZDbgOutput::DbgPrint("../x/unit.cpp", "f", 12, "hi %d\n", 7);
    EXPECT_EQ(padded_line(kDefault, "f ()@unit.cpp(12) {} : hi 7\n"), output.Take());
    EXPECT_EQ(Log(), system_log);
}

TEST_F(PZDbgOutputTest, TakesAFormatBeforeAStringANumberAndAStringForAFile) {
    PZDbgOutput::DbgPrint("%s %d %s", "a", 1, "b");
    EXPECT_EQ(padded_line(kDefault, "a ()@%s %d %s(1) {} : b"), output.Take());
    PZDbgOutput::DbgPrint("%s %d", "a", 1);
    EXPECT_EQ(coloured(kDefault, "a 1"), output.Take());
}

TEST_F(PZDbgOutputTest, DropsALineNumberOfMinusOneFromAnUntaggedLine) {
    PZDbgOutput::DbgPrint("../x/unit.cpp", "f", -1, "hi\n");
    EXPECT_EQ(padded_line(kDefault, "f ()@unit.cpp{} : hi\n"), output.Take());
}

TEST_F(PZDbgOutputTest, PrintsEveryOtherLineNumber) {
    for (const int number : {0, 1, -2, INT_MAX, INT_MIN}) {
        PZDbgOutput::DbgPrint("unit", "f", number, "hi\n");
        const std::string place = "@unit(" + std::to_string(number) + ") {} : hi\n";
        EXPECT_EQ(padded_line(kDefault, "f ()" + place), output.Take());
    }
    PZDbgOutput::DbgPrint("unit", "f", -1, PZDbgOutput::en_TAG_INFO, "hi\n");
    EXPECT_EQ(padded_line(kDefault, "[info] f()@unit(-1) {} : hi\n"), output.Take());
}

TEST_F(PZDbgOutputTest, PrintsAnUntaggedWideLine) {
    PZDbgOutput::DbgPrint("../x/unit.cpp", "f", 12, L"hi %d\n", 7);
    EXPECT_EQ(padded_line(kDefault, "f ()@unit.cpp(12) {} : hi 7\n"), output.Take());
    EXPECT_EQ(Log(), system_log);
}

TEST_F(PZDbgOutputTest, PrintsALineNumberOfMinusOneInAWideLine) {
    PZDbgOutput::DbgPrint("../x/unit.cpp", "f", -1, L"hi\n");
    EXPECT_EQ(padded_line(kDefault, "f ()@unit.cpp(-1) {} : hi\n"), output.Take());
    PZDbgOutput::DbgPrint("../x/unit.cpp", "f", -1, PZDbgOutput::en_TAG_INFO, L"hi\n");
    EXPECT_EQ(padded_line(kDefault, "[info] f ()@unit.cpp(-1) {} : hi\n"), output.Take());
}

TEST_F(PZDbgOutputTest, PrintsAWideMessageInUtf8) {
    PZDbgOutput::DbgPrint("unit", "f", 1, L"%ls %s\n", L"\u00e9\u20ac\U0001f600", "narrow");
    PZDbgOutput::DbgPrint("unit", "f", 1, PZDbgOutput::en_TAG_SYS, L"\u00e9\u20ac\U0001f600\n");
    const std::string notice = "[sys] f ()@unit(1) {} : \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\n";
    EXPECT_EQ(
        padded_line(kDefault, "f ()@unit(1) {} : \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80 narrow\n") +
            padded_line(kDefault, notice),
        output.Take());
    EXPECT_EQ(Log({{LOG_NOTICE, notice}}), system_log);
}

TEST_F(PZDbgOutputTest, PrintsAnEmptyWideMessage) {
    PZDbgOutput::DbgPrint("unit", "f", 1, L"%ls", L"");
    PZDbgOutput::DbgPrint("unit", "f", 1, PZDbgOutput::en_TAG_INFO, L"%ls", L"");
    EXPECT_EQ(padded_line(kDefault, "f ()@unit(1) {} : ") +
                  padded_line(kDefault, "[info] f ()@unit(1) {} : "),
              output.Take());
}

TEST_F(PZDbgOutputTest, KeepsTheFirst510CharactersOfAWideMessage) {
    for (const size_t length : {509U, 510U, 511U, 512U, 2000U, 100000U}) {
        const std::string whole = message_of(length);
        const std::wstring wide(whole.begin(), whole.end());
        const std::string kept = whole.substr(0, 510);
        PZDbgOutput::DbgPrint("unit", "f", 1, L"%ls", wide.c_str());
        EXPECT_EQ(coloured(kDefault, "f ()@unit(1) {} : " + kept), output.Take());
        PZDbgOutput::DbgPrint("unit", "f", 1, PZDbgOutput::en_TAG_SYS, L"%s", whole.c_str());
        EXPECT_EQ(coloured(kDefault, "[sys] f ()@unit(1) {} : " + kept), output.Take());
        EXPECT_EQ("[sys] f ()@unit(1) {} : " + kept, system_log.back().line);
    }
}

namespace {

/// A wide message of equal characters, and these characters in UTF-8.
struct WideMessage {
    size_t count;
    wchar_t character;
    std::string utf8;
};

}  // namespace

TEST_F(PZDbgOutputTest, PrintsAWideMessageOfUpTo511BytesWhole) {
    const WideMessage rows[] = {
        {255, L'\u00e9', "\xc3\xa9"},
        {170, L'\u20ac', "\xe2\x82\xac"},
        {127, L'\U0001f600', "\xf0\x9f\x98\x80"},
    };
    for (const WideMessage& row : rows) {
        // One more byte, so that the messages of two-byte characters have 511 bytes.
        const std::wstring message = L"a" + std::wstring(row.count, row.character);
        PZDbgOutput::DbgPrint("unit", "f", 1, L"%ls", message.c_str());
        std::string line = kDefault + "f ()@unit(1) {} : a";
        for (size_t i = 0; i < row.count; ++i) line += row.utf8;
        EXPECT_EQ(line + kReset, output.Take());
    }
}

TEST_F(PZDbgOutputTest, PrintsAWideLineWithoutItsMessageWhenThatNeedsMoreThan511Bytes) {
    const WideMessage rows[] = {
        {256, L'\u00e9', ""},     // 512 bytes: the terminator has no room
        {257, L'\u00e9', ""},     // 514
        {510, L'\u00e9', ""},     //
        {5000, L'\u20ac', ""},    // 510 characters are left of it
        {128, L'\U0001f600', ""}  // 512
    };
    for (const WideMessage& row : rows) {
        const std::wstring message(row.count, row.character);
        PZDbgOutput::DbgPrint("unit", "f", 1, L"%ls", message.c_str());
        std::string text = output.Take();
        EXPECT_EQ(1U, pztest::error_messages(text).size()) << row.count;  // the converter's
        EXPECT_EQ(1U, pztest::count_of(text, padded_line(kDefault, "f ()@unit(1) {} : ")));

        PZDbgOutput::DbgPrint("unit", "f", 1, PZDbgOutput::en_TAG_SYS, L"%ls", message.c_str());
        text = output.Take();
        EXPECT_EQ(1U, pztest::error_messages(text).size()) << row.count;
        EXPECT_EQ(1U, pztest::count_of(text, padded_line(kDefault, "[sys] f ()@unit(1) {} : ")));
        EXPECT_EQ("[sys] f ()@unit(1) {} : ", system_log.back().line);
    }
}

TEST_F(PZDbgOutputTest, ReportsAWideMessageThatDoesNotFitWithTheWordsOfTheConverter) {
    PZDbgOutput::DbgPrint("unit", "f", 1, L"%ls", std::wstring(256, L'\u00e9').c_str());
    EXPECT_EQ(std::vector<std::string>{"buffer size is too few."},
              pztest::error_messages(output.Take()));
    PZDbgOutput::DbgPrint("unit", "f", 1, L"%ls", std::wstring(257, L'\u00e9').c_str());
    EXPECT_EQ(std::vector<std::string>{"conv_character_code : iconv error [-1] [7:Argument list "
                                       "too long] : dst[UTF-8] sz[512] : src[WCHAR_T] sz[1028]"},
              pztest::error_messages(output.Take()));
}

TEST_F(PZDbgOutputTest, PrintsAWideLineWithoutItsMessageWhenThatIsNoText) {
    const wchar_t surrogate[] = {L'a', static_cast<wchar_t>(0xd800), L'\0'};
    PZDbgOutput::DbgPrint("unit", "f", 1, PZDbgOutput::en_TAG_INFO, L"%ls", surrogate);
    const std::string text = output.Take();
    EXPECT_EQ(1U, pztest::error_messages(text).size());  // the converter's
    EXPECT_EQ(1U, pztest::count_of(text, padded_line(kDefault, "[info] f ()@unit(1) {} : ")));
}

TEST_F(PZDbgOutputTest, AddsNoLineFeed) {
    PZDbgOutput::DbgPrint("unit", "f", 1, "a");
    PZDbgOutput::DbgPrint("unit", "f", 1, PZDbgOutput::en_TAG_SYS, "b");
    errno = 0;
    PZDbgOutput::DbgPrintStdErr("unit", "f", 1, "c");
    EXPECT_EQ(padded_line(kDefault, "f ()@unit(1) {} : a") +
                  padded_line(kDefault, "[sys] f()@unit(1) {} : b") +
                  padded_line(kRed, "[error] f()@unit(1) {} : std library error [0 : Success] c"),
              output.Take());
}

TEST_F(PZDbgOutputTest, PrintsTheFileWithoutItsFolders) {
    const std::map<std::string, std::string> names = {
        {"../../../../src/Framework/Foundation/private/PZSync.cpp", "PZSync.cpp"},
        {"/unit", "unit"},
        {"unit", "unit"},
        {"folder/", ""},
        {"", ""},
    };
    for (const auto& [path, name] : names) {
        const std::string place = "@" + name + "(1) {} : ";
        PZDbgOutput::DbgPrint(path.c_str(), "f", 1, "hi\n");
        EXPECT_EQ(padded_line(kDefault, "f ()" + place + "hi\n"), output.Take());
        PZDbgOutput::DbgPrint(path.c_str(), "f", 1, PZDbgOutput::en_TAG_INFO, "hi\n");
        EXPECT_EQ(padded_line(kDefault, "[info] f()" + place + "hi\n"), output.Take());
        errno = EPERM;
        PZDbgOutput::DbgPrintStdErr(path.c_str(), "f", 1, "hi\n");
        EXPECT_EQ(padded_line(kRed, "[error] f()" + place +
                                        "std library error [1 : Operation not permitted] hi\n"),
                  output.Take());
    }
}

TEST_F(PZDbgOutputTest, PrintsNullInThePlaceOfAMissingFileAndFunction) {
    PZDbgOutput::DbgPrint(nullptr, nullptr, 1, "hi\n");
    PZDbgOutput::DbgPrint(nullptr, nullptr, -1, "hi\n");
    PZDbgOutput::DbgPrint(nullptr, nullptr, 1, PZDbgOutput::en_TAG_INFO, "hi\n");
    EXPECT_EQ(padded_line(kDefault, "(null) ()@(null)(1) {} : hi\n") +
                  padded_line(kDefault, "(null) ()@(null){} : hi\n") +
                  padded_line(kDefault, "[info] (null)()@(null)(1) {} : hi\n"),
              output.Take());
}

TEST_F(PZDbgOutputTest, PrintsTheNameOfTheProcess) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        if (pz_FwInitialize("app", 1) == 0) return 1;
        PZDbgOutput::DbgPrint("../x/unit", "f", 12, PZDbgOutput::en_TAG_INFO, "hi\n");
        PZDbgOutput::DbgPrint("../x/unit", "f", 12, PZDbgOutput::en_TAG_INFO, L"wide\n");
        PZDbgOutput::DbgPrint("../x/unit", "f", 12, "untagged\n");
        PZDbgOutput::DbgPrint("../x/unit", "f", -1, "no number\n");
        PZDbgOutput::DbgPrint("../x/unit", "f", -1, L"wide untagged\n");
        errno = 0;
        PZDbgOutput::DbgPrintStdErr("../x/unit", "f", 12, "hi\n");
        return 0;
    });
    EXPECT_EQ(0, child.status) << child.output;
    for (const std::string& line : {
             padded_line(kDefault, "[info] f()@unit(12) {app} : hi\n"),
             padded_line(kDefault, "[info] f ()@unit(12) {app} : wide\n"),
             padded_line(kDefault, "f ()@unit(12) {app} : untagged\n"),
             padded_line(kDefault, "f ()@unit{app} : no number\n"),
             padded_line(kDefault, "f ()@unit(-1) {app} : wide untagged\n"),
             padded_line(kRed, "[error] f()@unit(12) {app} : std library error [0 : Success] hi\n"),
         }) {
        EXPECT_EQ(1U, pztest::count_of(child.output, line)) << line;
    }
}

TEST_F(PZDbgOutputTest, PrintsTheLongestNameOfAProcessWhole) {
    const std::string name(63, 'n');
    const pztest::ChildResult child = pztest::run_in_child([&name] {
        if (pz_FwInitialize(name.c_str(), 1) == 0) return 1;
        PZDbgOutput::DbgPrint("unit", "f", 12, "hi\n");
        return 0;
    });
    EXPECT_EQ(0, child.status) << child.output;
    EXPECT_EQ(1U, pztest::count_of(child.output,
                                   padded_line(kDefault, "f ()@unit(12) {" + name + "} : hi\n")));
}

TEST_F(PZDbgOutputTest, LogsTheNameOfTheProcess) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        if (pz_FwInitialize("app", 1) == 0) return 1;
        system_log.clear();
        PZDbgOutput::DbgPrint("../x/unit", "f", 12, PZDbgOutput::en_TAG_WARNING, "hi\n");
        PZDbgOutput::DbgPrint("../x/unit", "f", 12, PZDbgOutput::en_TAG_SYS, "hi\n");
        return system_log == Log{{LOG_NOTICE, "[sys] f()@unit(12) {app} : hi\n"}} ? 0 : 2;
    });
    EXPECT_EQ(0, child.status) << child.output;
}

TEST_F(PZDbgOutputTest, ReportsTheLastErrorLikeATaggedError) {
    errno = ENOENT;
    PZDbgOutput::DbgPrintStdErr("../x/unit", "f", 12);
    ExpectError("[error] f()@unit(12) {} : std library error [2 : No such file or directory]\n");
}

TEST_F(PZDbgOutputTest, ReportsTheLastErrorFollowedByAMessage) {
    errno = ENOENT;
    PZDbgOutput::DbgPrintStdErr("../x/unit", "f", 12, "open [%s]\n", "/x");
    ExpectError(
        "[error] f()@unit(12) {} : std library error [2 : No such file or directory] open [/x]\n");
}

TEST_F(PZDbgOutputTest, ReadsTheLastErrorAfterTheMessageIsFormatted) {
    errno = ENOENT;
    // The "C" locale has no such character: formatting fails and leaves an error of its own.
    PZDbgOutput::DbgPrintStdErr("unit", "f", 1, "a%lsb\n", L"\u20ac");
    const std::string error = "[" + std::to_string(EILSEQ) + " : " + std::strerror(EILSEQ) + "] ";
    EXPECT_EQ(
        1U, pztest::count_of(output.Take(), "[error] f()@unit(1) {} : std library error " + error));
}

TEST_F(PZDbgOutputTest, LogsALineAfterItHasBeenPrinted) {
    watched_output = &output;
    PZDbgOutput::DbgPrint("unit", "f", 1, PZDbgOutput::en_TAG_SYS, "hi\n");
    EXPECT_EQ(padded_line(kDefault, "[sys] f()@unit(1) {} : hi\n"), printed_before_log);
    printed_before_log.clear();
    errno = 0;
    PZDbgOutput::DbgPrintStdErr("unit", "f", 1, "hi\n");
    EXPECT_EQ(padded_line(kRed, "[error] f()@unit(1) {} : std library error [0 : Success] hi\n"),
              printed_before_log);
    EXPECT_EQ(2U, system_log.size());
}

TEST_F(PZDbgOutputTest, TakesPercentSignsOfAMessageAsText) {
    PZDbgOutput::DbgPrint("%s", "100%s%n");
    PZDbgOutput::DbgPrint("unit%d", "f%s", 1, PZDbgOutput::en_TAG_SYS, "%s", "100%s%n");
    errno = 0;
    PZDbgOutput::DbgPrintStdErr("unit", "f", 1, "%s", "100%s%n");
    const std::string notice = "[sys] f%s()@unit%d(1) {} : 100%s%n";
    const std::string error = "[error] f()@unit(1) {} : std library error [0 : Success] 100%s%n";
    EXPECT_EQ("\033[49m100%s%n\033[0m" + padded_line(kDefault, notice) + padded_line(kRed, error),
              output.Take());
    EXPECT_EQ(Log({{LOG_NOTICE, notice}, {LOG_ERR, error}}), system_log);
}

TEST_F(PZDbgOutputTest, KeepsTheFirst510CharactersOfAMessage) {
    for (const size_t length : {509U, 510U, 511U, 512U, 2000U, 100000U}) {
        const std::string whole = message_of(length);
        const std::string kept = whole.substr(0, 510);
        PZDbgOutput::DbgPrint("%s", whole.c_str());
        EXPECT_EQ(coloured(kDefault, kept), output.Take());
        PZDbgOutput::DbgPrint("unit", "f", 1, "%s", whole.c_str());
        EXPECT_EQ(coloured(kDefault, "f ()@unit(1) {} : " + kept), output.Take());
        PZDbgOutput::DbgPrint("unit", "f", -1, "%s", whole.c_str());
        EXPECT_EQ(coloured(kDefault, "f ()@unit{} : " + kept), output.Take());
        PZDbgOutput::DbgPrint("unit", "f", 1, PZDbgOutput::en_TAG_SYS, "%s", whole.c_str());
        EXPECT_EQ(coloured(kDefault, "[sys] f()@unit(1) {} : " + kept), output.Take());
        EXPECT_EQ("[sys] f()@unit(1) {} : " + kept, system_log.back().line);
        errno = 0;
        PZDbgOutput::DbgPrintStdErr("unit", "f", 1, "%s", whole.c_str());
        EXPECT_EQ(
            coloured(kRed, "[error] f()@unit(1) {} : std library error [0 : Success] " + kept),
            output.Take());
        EXPECT_EQ("[error] f()@unit(1) {} : std library error [0 : Success] " + kept,
                  system_log.back().line);
    }
}

TEST_F(PZDbgOutputTest, PrintsTheLongestLineWhole) {
    const std::string file(255, 'u');  // the longest name that Linux gives to a file
    const std::string func(255, 'f');
    const std::string message = message_of(510);
    const std::string line = "[sys] " + func + "()@" + file + "(-2147483648) {} : " + message;
    PZDbgOutput::DbgPrint(("../" + file).c_str(), func.c_str(), INT_MIN, PZDbgOutput::en_TAG_SYS,
                          "%s", message.c_str());
    EXPECT_EQ(kDefault + line + kReset, output.Take());
    EXPECT_EQ(Log({{LOG_NOTICE, line}}), system_log);
}

TEST_F(PZDbgOutputTest, CutsALineWithAnEndlessPlaceInsteadOfOverrunning) {
    const std::string file(5000, 'u');
    const std::string func(1000, 'f');
    PZDbgOutput::DbgPrint(file.c_str(), func.c_str(), 1, "hi\n");
    PZDbgOutput::DbgPrint(file.c_str(), func.c_str(), -1, "hi\n");
    PZDbgOutput::DbgPrint(file.c_str(), func.c_str(), 1, PZDbgOutput::en_TAG_INFO, "hi\n");
    errno = 0;
    PZDbgOutput::DbgPrintStdErr(file.c_str(), func.c_str(), 1, "hi\n");
    const std::string text = output.Take();
    EXPECT_EQ(0U, text.find(kDefault + func + " ()@uuuuuuuuuu"));
    EXPECT_EQ(2U, pztest::count_of(text, kDefault + func + " ()@uuuuuuuuuu"));
    EXPECT_EQ(1U, pztest::count_of(text, kDefault + "[info] " + func + "()@uuuuuuuuuu"));
    EXPECT_EQ(1U, pztest::count_of(text, kRed + "[error] " + func + "()@uuuuuuuuuu"));
    EXPECT_EQ(4U, pztest::count_of(text, "u" + kReset));
}

TEST_F(PZDbgOutputTest, FlushesEachLine) {
    // _exit drops what is still buffered.
    const pztest::ChildResult plain = pztest::run_in_child([]() -> int {
        PZDbgOutput::DbgPrint("hi");
        _exit(0);
    });
    EXPECT_EQ("\033[49mhi\033[0m", plain.output);
    const pztest::ChildResult wide = pztest::run_in_child([]() -> int {
        PZDbgOutput::DbgPrint("unit", "f", 1, L"hi\n");
        _exit(0);
    });
    EXPECT_EQ(padded_line(kDefault, "f ()@unit(1) {} : hi\n"), wide.output);
    const pztest::ChildResult untagged = pztest::run_in_child([]() -> int {
        PZDbgOutput::DbgPrint("unit", "f", 1, "hi\n");
        _exit(0);
    });
    EXPECT_EQ(padded_line(kDefault, "f ()@unit(1) {} : hi\n"), untagged.output);
    const pztest::ChildResult tagged = pztest::run_in_child([]() -> int {
        PZDbgOutput::DbgPrint("unit", "f", 1, PZDbgOutput::en_TAG_INFO, "hi\n");
        _exit(0);
    });
    EXPECT_EQ(padded_line(kDefault, "[info] f()@unit(1) {} : hi\n"), tagged.output);
    const pztest::ChildResult stdErr = pztest::run_in_child([]() -> int {
        errno = 0;
        PZDbgOutput::DbgPrintStdErr("unit", "f", 1, "hi\n");
        _exit(0);
    });
    EXPECT_EQ(padded_line(kRed, "[error] f()@unit(1) {} : std library error [0 : Success] hi\n"),
              stdErr.output);
}

TEST_F(PZDbgOutputTest, TheConnectionToTheLogTakesNoNumberOfAClosedStandardDescriptor) {
    for (const int closed : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        const pztest::ChildResult result = pztest::run_in_child([closed] {
            connects = true;
            ::close(closed);
            PZDbgOutput::DbgPrint("a.cpp", "f", 1, PZDbgOutput::en_TAG_ERROR, "x\n");
            if (connection <= STDERR_FILENO) return 1;
            PZDbgOutput::DbgPrintStdErr("a.cpp", "f", 1, "x\n");
            if (connection <= STDERR_FILENO) return 2;
            return ::fcntl(closed, F_GETFD) == -1 ? 42 : 3;  // and it is free again
        });
        EXPECT_EQ(42, result.status) << closed;
    }
}

TEST_F(PZDbgOutputTest, KeepsTheCallersErrno) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        ::close(STDOUT_FILENO);  // printing fails, and so does the system log of these tests
        errno = EBUSY;
        PZDbgOutput::DbgPrint("hi\n");
        if (errno != EBUSY) return 1;
        PZDbgOutput::DbgPrint("unit", "f", 1, "hi\n");
        if (errno != EBUSY) return 2;
        PZDbgOutput::DbgPrint("unit", "f", 1, PZDbgOutput::en_TAG_SYS, "hi\n");
        if (errno != EBUSY) return 3;
        PZDbgOutput::DbgPrint("unit", "f", 1, L"hi\n");
        if (errno != EBUSY) return 4;
        PZDbgOutput::DbgPrint("unit", "f", 1, PZDbgOutput::en_TAG_SYS, L"hi\n");
        if (errno != EBUSY) return 5;
        PZDbgOutput::DbgPrintStdErr("unit", "f", 1);
        if (errno != EBUSY) return 6;
        PZDbgOutput::DbgPrintStdErr("unit", "f", 1, "hi\n");
        return errno == EBUSY ? 0 : 7;
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.status);
}

namespace {

/// Shorter and longer than the 80 columns.
std::string text_of_thread(int number) {
    return std::string(static_cast<size_t>(20 * number), static_cast<char>('a' + number));
}

std::string plain_line_of(int number) {
    return coloured(kDefault, "plain " + text_of_thread(number));
}

std::string tagged_line_of(int number) {
    const std::string place = "[sys] f()@unit(" + std::to_string(number) + ") {} : ";
    return padded_line(kDefault, place + text_of_thread(number) + "\n");
}

}  // namespace

// The address sanitizer takes the unwinding of a cancelled thread for an overrun.
#ifndef __SANITIZE_ADDRESS__
TEST_F(PZDbgOutputTest, LetsItsThreadBeCancelledWhileTheStandardOutputIsStuck) {
    using Report = void (*)();
    static Report report = nullptr;
    const Report reports[] = {
        [] { PZDbgOutput::DbgPrint("plain\n"); },
        [] { PZDbgOutput::DbgPrint("f", "g", 1, "untagged\n"); },
        [] { PZDbgOutput::DbgPrint("f", "g", 1, L"wide\n"); },
        [] { PZDbgOutput::DbgPrint("f", "g", 1, PZDbgOutput::en_TAG_ERROR, "tagged\n"); },
        [] { PZDbgOutput::DbgPrint("f", "g", 1, PZDbgOutput::en_TAG_ERROR, L"tagged, wide\n"); },
        [] { PZDbgOutput::DbgPrintStdErr("f", "g", 1); },
        [] { PZDbgOutput::DbgPrintStdErr("f", "g", 1, "error\n"); },
        [] { pz_report_assertion("f", 1); },
    };
    for (const Report each : reports) {
        const pztest::ChildResult result = pztest::run_in_child([each]() -> int {
            report = each;
            void* end = nullptr;
            {
                const pztest::StuckStdout stuck;
                pthread_t thread = {};
                const auto body = [](void*) -> void* {
                    report();
                    return nullptr;
                };
                if (pthread_create(&thread, nullptr, body, nullptr) != 0) return 1;
                if (!stuck.WaitUntilOthersSleep()) return 2;
                pthread_cancel(thread);
                pthread_join(thread, &end);
            }
            if (end != PTHREAD_CANCELED) return 3;
            std::thread([] { PZDbgOutput::DbgPrint("afterwards"); }).join();
            return 0;
        });
        EXPECT_TRUE(result.exited);
        EXPECT_EQ(0, result.status);
        EXPECT_NE(std::string::npos, result.output.find("afterwards")) << result.output;
    }
}
#endif

// Where no daemon listens the C library's log writes to the console, through a stream on its own
// stack: a thread that ended there would leave a pointer to it behind.
TEST_F(PZDbgOutputTest, LetsACancelledThreadEndOnlyAfterTheLineIsInTheSystemLog) {
    is_cancelled = true;
    pthread_t thread = {};
    const auto body = [](void*) -> void* {
        const pztest::CancelledStack stack;
        PZDbgOutput::DbgPrint("unit", "f", 12, PZDbgOutput::en_TAG_SYS, "hi\n");
        pthread_testcancel();
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, nullptr, body, nullptr));
    void* end = nullptr;
    pthread_join(thread, &end);
    EXPECT_EQ(PTHREAD_CANCELED, end);
    EXPECT_EQ(Log({{LOG_NOTICE, "[sys] f()@unit(12) {} : hi\n"}}), system_log);
}

TEST_F(PZDbgOutputTest, NeverMixesTheLinesOfDifferentThreads) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 200;
    std::map<std::string, int> missing;
    for (int i = 0; i < kThreads; ++i) {
        missing[plain_line_of(i)] += kRounds;
        missing[tagged_line_of(i)] += kRounds;
    }

    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([i] {
            const std::string text = text_of_thread(i);
            for (int round = 0; round < kRounds; ++round) {
                PZDbgOutput::DbgPrint("plain %s", text.c_str());
                PZDbgOutput::DbgPrint("unit", "f", i, PZDbgOutput::en_TAG_SYS, "%s\n",
                                      text.c_str());
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    const std::string printed = output.Take();
    size_t start = 0;
    while (start < printed.size()) {
        const size_t end = printed.find(kReset, start);
        ASSERT_NE(std::string::npos, end);
        const std::string line = printed.substr(start, end + kReset.size() - start);
        ASSERT_EQ(1U, missing.count(line)) << line;
        --missing[line];
        start = end + kReset.size();
    }
    for (const auto& [line, count] : missing) EXPECT_EQ(0, count) << line;
    EXPECT_EQ(static_cast<size_t>(kThreads * kRounds), system_log.size());
}
