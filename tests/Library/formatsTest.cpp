#include <cctype>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Communication/PZFileGuard.h>
#include <Framework/Communication/PZMessageQueue.h>
#include <Framework/Diagnostics/PZDbgOutput.h>
#include <Framework/Foundation/PZClock.h>
#include <Framework/Foundation/PZLHeapMng.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/pz_identity.h>
#include <Framework/Pattern/PZSerializable.h>
#include <Framework/Utility/PZLSysFileOut.h>

#include "support/ChildProcess.h"
#include "support/Document.h"
#include "support/FakeSyslog.h"
#include "support/GuardFiles.h"
#include "support/OwnStreams.h"
#include "support/StdoutCapture.h"
#include "support/TempDir.h"
#include "support/TestQueue.h"

// The examples of docs/formats.md against what the library makes.

// The process of the examples, and the time of its files.
const char* pz_GetName() {
    return "player";
}
bool PZClock::GetUtc(ST_CLOCK* clock) {
    *clock = {2024, 3, 2, 5, 7, 8, 9};
    return true;
}
// The tests' own system log is not the machine's.
extern "C" void syslog(int /*priority*/, const char* /*format*/, ...) {}

namespace {

using PZSerialization::Archive;

std::string example(const std::string& kind) {
    const std::string block = pztest::block_of(pztest::read_file(PZ_ROOT "/docs/formats.md"), kind);
    EXPECT_NE("", block) << "docs/formats.md has no example " << kind;
    return block;
}

/// "01 ff" and the like.
std::string hex(const unsigned char* bytes, size_t count) {
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        char digits[4];
        std::snprintf(digits, sizeof digits, i == 0 ? "%02x" : " %02x", bytes[i]);
        text += digits;
    }
    return text;
}

std::string hex(const std::string& bytes) {
    return hex(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

std::string without_trailing_blanks(const std::string& text) {
    std::string result;
    for (const std::string& line : pztest::lines_of(text)) {
        result += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
    return result;
}

/// Addresses and thread ids, of any width, as "ADDRESS".
std::string without_addresses(const std::string& text) {
    std::string result;
    for (size_t at = 0; at < text.size();) {
        const bool isAddress = text.compare(at, 2, "0x") == 0;
        if (!isAddress && text.compare(at, 10, "0000000000") != 0) {
            result += text[at++];
            continue;
        }
        result += "ADDRESS";
        at += isAddress ? 2 : 0;
        while (at < text.size() && std::isxdigit(static_cast<unsigned char>(text[at])) != 0) ++at;
    }
    return result;
}

class Lamp : public PZSerialization::PZSerializable {
public:
    void serialize() override {
        archive_.clear();
        archive_.write(static_cast<unsigned char>(7));
        archive_.write(std::string("A"));
    }
    void deserialize(const unsigned char* /*data*/, unsigned int /*size*/) override {}
};

constexpr unsigned short kUnits[] = {0x00E9, 0};

using Writes = std::map<std::string, std::function<void(Archive&)>>;

/// What the first column of the archive's example says, in C++.
const Writes& writes() {
    // clang-format off
    static const Writes calls = {
        {"write(true)",                         [](Archive& a) { a.write(true); }},
        {"write((unsigned char)0xFE)",          [](Archive& a) { a.write(static_cast<unsigned char>(0xFE)); }},
        {"write((short)-2)",                    [](Archive& a) { a.write(static_cast<short>(-2)); }},
        {"write(0x01020304)",                   [](Archive& a) { a.write(0x01020304); }},
        {"write(1LL)",                          [](Archive& a) { a.write(1LL); }},
        {"write(1.0f)",                         [](Archive& a) { a.write(1.0F); }},
        {"write(-2.5)",                         [](Archive& a) { a.write(-2.5); }},
        {"write(\"raw\", 3u)",                  [](Archive& a) { a.write("raw", 3U); }},
        {"write(std::string(\"hé\"))",          [](Archive& a) { a.write(std::string("h\u00e9")); }},
        {"write(std::string(\"héllo\"), 2)",    [](Archive& a) { a.write(std::string("h\u00e9llo"), 2); }},
        {"write(std::wstring(L\"é\"))",         [](Archive& a) { a.write(std::wstring(L"\u00e9")); }},
        {"write(PZString(\"é\"))",              [](Archive& a) { a.write(PZString("\u00e9")); }},
        {R"(write(PZString("\xE9", XCP_ISO8859_1)))", [](Archive& a) { a.write(PZString("\xE9", XCP_ISO8859_1)); }},
        {"write(PZString(L\"é\"))",             [](Archive& a) { a.write(PZString(L"\u00e9")); }},
        {"write(PZString(units, XCP_UTF16LE))", [](Archive& a) { a.write(PZString(kUnits, XCP_UTF16LE)); }},
        {"write(lamp)",                         [](Archive& a) { Lamp lamp; a.write(lamp); }},
    };
    // clang-format on
    return calls;
}

/// A record as the example shows it.
std::string shown(const pztest::RawQueue::Message& record) {
    return "priority " + std::to_string(record.priority) + "  " + hex(record.bytes);
}

/// The columns of an example behind the first, with two blanks between them.
std::string rest_of(const std::vector<std::string>& columns) {
    std::string rest;
    for (size_t i = 1; i < columns.size(); ++i) rest += (i == 1 ? "" : "  ") + columns[i];
    return rest;
}

/// What the process of the heap's example does; answers whether it has written one file.
int make_blocks_and_report() {
    const pztest::FakeSyslog syslogFolder;
    InitMemMng();
    Malloc(100);
    auto* const overrun = static_cast<char*>(Malloc(24));
    Free(Malloc(8));
    overrun[24] = '\0';
    FinMemMng();
    for (const std::string& name : syslogFolder.Names()) {
        std::printf("FILE %s\n%s", name.c_str(), syslogFolder.Content(name).c_str());
    }
    return syslogFolder.Names().size() == 1 ? 0 : 1;
}

/// The files that a log leaves which is opened so often that all its names are in use.
std::set<std::string> names_of_log(int fileCount) {
    const pztest::FakeSyslog noSync;
    const pztest::TempDir dir;
    const pztest::StdoutCapture output;  // shifts that find a generation in their way are reported
    const std::wstring folder = PZString((dir.File("log")).c_str()).ToWCHAR();
    for (int i = 0; i <= 3; ++i) {
        PZLSysFileOut log(folder.c_str(), L"app", L"txt", false, 0, fileCount);
        if (!log.Open()) return {"cannot be opened"};
        log.Close();
    }
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir.File("log"))) {
        names.insert("log/" + entry.path().filename().string());
    }
    return names;
}

std::set<std::string> words_of(const std::string& line) {
    std::set<std::string> words;
    for (size_t at = line.find_first_not_of(' '); at < line.size();) {
        const size_t end = line.find(' ', at);
        words.insert(line.substr(at, end - at));
        at = line.find_first_not_of(' ', end);
    }
    return words;
}

/// The two escapes of the report's example as the characters that they stand for.
std::string unescaped(const std::string& text) {
    std::string result;
    for (size_t at = 0; at < text.size(); ++at) {
        if (text.compare(at, 4, "\\033") == 0) {
            result += '\033';
            at += 3;
        } else if (text.compare(at, 2, "\\n") == 0) {
            result += '\n';
            at += 1;
        } else {
            result += text[at];
        }
    }
    return result;
}

}  // namespace

TEST(formatsTest, AnArchiveHoldsTheBytesOfTheExample) {
    std::set<std::string> shownCalls;
    for (const std::string& line : pztest::lines_of(example("archive"))) {
        const std::vector<std::string> columns = pztest::columns_of(line);
        ASSERT_EQ(2U, columns.size()) << line;
        const auto call = writes().find(columns[0]);
        ASSERT_NE(writes().end(), call) << columns[0];
        Archive archive;
        call->second(archive);
        EXPECT_EQ(columns[1], hex(archive.getBuff(), archive.getSize())) << columns[0];
        shownCalls.insert(columns[0]);
    }
    EXPECT_EQ(writes().size(), shownCalls.size());
}

TEST(formatsTest, ARecordHoldsTheBytesOfTheExample) {
    const std::vector<std::string> lines = pztest::lines_of(example("queue"));
    ASSERT_EQ(2U, lines.size());
    const pztest::QueueName name;
    PZMsgQ::PZMessageQueue<2> queue;
    ASSERT_TRUE(queue.open({name.Get(), 2}));
    const pztest::RawQueue other(name);

    const auto data = pztest::columns_of(lines[0]);
    ASSERT_EQ("send(1, \"on\", 2, 128)", data.at(0));
    ASSERT_EQ(0, queue.send(PZMsgQ::en_MSG_TYPE_USER, "on", 2, 128));
    EXPECT_EQ(rest_of(data), shown(other.Receive()));

    const auto quit = pztest::columns_of(lines[1]);
    ASSERT_EQ(R"(send(2, "\0", 1, 0))", quit.at(0));
    ASSERT_EQ(0, queue.send(PZMsgQ::en_MSG_TYPE_QUIT, "\0", 1, 0));
    EXPECT_EQ(rest_of(quit), shown(other.Receive()));
    queue.close(true);
}

TEST(formatsTest, AQueueHasTheAttributesOfTheExample) {
    const pztest::QueueName name;
    PZMsgQ::PZMessageQueue<0> queue;
    ASSERT_TRUE(queue.open({name.Get()}));
    const mq_attr attributes = pztest::RawQueue(name).Attributes();
    EXPECT_EQ("mq_maxmsg     " + std::to_string(attributes.mq_maxmsg) + "\nmq_msgsize  " +
                  std::to_string(attributes.mq_msgsize) + "\n",
              example("queue-attributes"));
}

TEST(formatsTest, AGuardShowsTheBytesOfTheExample) {
    const std::vector<std::string> lines = pztest::lines_of(example("guard"));
    ASSERT_EQ(3U, lines.size());
    const auto shownByte = [&lines](size_t i) { return pztest::columns_of(lines[i]).at(1); };
    const pztest::GuardFiles files;  // of the file "data"
    const pztest::StdoutCapture output;
    files.Make();
    PZFileGuard app(files.Dir(), files.Name());
    ASSERT_TRUE(app.initForApp());
    const pztest::GuardSegment flag(files.FlagFile());
    ASSERT_TRUE(flag.Exists());
    const auto byte = [&flag] {
        const unsigned char state = flag.Byte();
        return "data_initflag " + hex(&state, 1);
    };
    EXPECT_EQ(shownByte(0), byte());
    PZFileGuard system(files.Dir(), files.Name());
    ASSERT_TRUE(system.initForSystem());
    EXPECT_EQ(shownByte(1), byte());
    EXPECT_EQ(sizeof(void*) == 4 ? 24U : 40U, pztest::GuardSegment(files.MutexFile()).Size());
    EXPECT_EQ(1U, flag.Size());
    ASSERT_TRUE(system.destroyMutex());
    EXPECT_EQ(shownByte(2), byte());
}

TEST(formatsTest, TheThreadDumpIsTheExample) {
    const pztest::TempDir dir;
    static std::string target;
    target = dir.File("ThreadInfo");
    PZThreadMng& manager = *PZThreadMng::GetInstance();
    manager.registerThreadInfo(1, "tuner", 251, 4000);
    manager.registerThreadInfo(pthread_self(), "mq_radio", 251, 4000);
    manager.notifyToWaiting();
    pztest::open_call.Replace([](const char* /*path*/, int flags, mode_t mode) {
        return pztest::open_call.Real(target.c_str(), flags, mode);
    });
    manager.dumpThreadStatus();
    pztest::open_call.Replace(nullptr);
    EXPECT_EQ(example("thread-dump"), pztest::read_file(target));
}

TEST(formatsTest, TheHeapReportIsTheExample) {
    const pztest::ChildResult child = pztest::run_in_child(&make_blocks_and_report);
    ASSERT_TRUE(child.exited);
    ASSERT_EQ(0, child.status);
    const size_t file = child.output.find("FILE ");
    ASSERT_NE(std::string::npos, file);
    const size_t table = child.output.find('\n', file) + 1;
    EXPECT_EQ(example("heap-name"), child.output.substr(file + 5, table - file - 5));
    EXPECT_EQ(without_addresses(example("heap-file")),
              without_addresses(child.output.substr(table)));
    EXPECT_EQ(without_addresses(example("heap-output")),
              without_addresses(without_trailing_blanks(child.output.substr(0, file))));
}

TEST(formatsTest, LogsHaveTheNamesOfTheExample) {
    const std::vector<std::string> lines = pztest::lines_of(example("log-names"));
    ASSERT_EQ(3U, lines.size());
    for (const std::string& line : lines) {
        const auto columns = pztest::columns_of(line);
        ASSERT_EQ(2U, columns.size()) << line;
        EXPECT_EQ(words_of(columns[1]), names_of_log(std::stoi(columns[0]))) << line;
    }
}

TEST(formatsTest, AReportIsTheLineOfTheExample) {
    pztest::StdoutCapture output;
    PZDbgOutput::DbgPrint("src/Framework/Foundation/private/PZSync.cpp", "Lock", 42,
                          PZDbgOutput::en_TAG_ERROR, "handle is not created\n");
    EXPECT_EQ(unescaped(pztest::lines_of(example("report")).at(0)), output.Take());
}
