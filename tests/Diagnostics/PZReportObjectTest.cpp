#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Communication/PZFileGuard.h>
#include <Framework/Communication/PZMessageQueue.h>
#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/PZFileSys.h>
#include <Framework/Foundation/PZIDispatcher.h>
#include <Framework/Foundation/PZLMsgBox.h>
#include <Framework/Foundation/PZStorage.h>
#include <Framework/Foundation/PZThread.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/PZWatchDog.h>
#include <Framework/Foundation/PZWorker.h>

#include "support/Gate.h"
#include "support/StdoutCapture.h"
#include "support/TempDir.h"
#include "support/TestQueue.h"
#include "support/WaitUntil.h"

// The library's reports whose texts name no object: their records do.

namespace {

struct ST_SEEN {
    std::string message;
    std::string object;  // "path|thread|worker"
};

std::mutex seen_mutex;
std::vector<ST_SEEN> seen;

bool see(const PZDbgOutput::ST_RECORD& record, void* /*user*/) {
    const std::lock_guard<std::mutex> lock(seen_mutex);
    seen.push_back({record.message, std::string(record.objectPath) + "|" + record.objectThread +
                                        "|" + record.objectWorker});
    return true;
}

class PZReportObjectTest : public testing::Test {
protected:
    // The framework's start makes these two before any worker runs.
    PZReportObjectTest() {
        PZThreadMng::GetInstance();
        PZWatchDog::GetInstance();
        PZDbgOutput::SetSink(see, nullptr);
    }
    ~PZReportObjectTest() override {
        PZDbgOutput::SetSink(nullptr, nullptr);
        seen.clear();
    }

    /// What the records name whose message begins with `message`, joined by a blank.
    static std::string ObjectsOf(const std::string& message) {
        const std::lock_guard<std::mutex> lock(seen_mutex);
        std::string objects;
        for (const ST_SEEN& record : seen) {
            if (record.message.compare(0, message.size(), message) != 0) continue;
            objects += (objects.empty() ? "" : " ") + record.object;
        }
        return objects;
    }

    const pztest::TempDir dir;
    pztest::StdoutCapture output;
};

constexpr char kLastError[] = "std library error";

/// A folder whose status cannot be read: its parent is a file.
std::string below_a_file(const pztest::TempDir& dir) {
    pztest::write_file(dir.File("file"), "x");
    return dir.File("file/below");
}

class Owner {
public:
    int Initialize() { return 0; }
    void MainProc() {}
    void Finalize() {}
};

class Reporter : public PZIDispatcher {
public:
    void OnReceiveMsg(unsigned int /*id*/, const void* /*buff*/, unsigned int /*size*/) override {
        PZ_REPORT_ERROR("from a handler\n");
        isServed = true;
    }
    void OnReceiveEvent(unsigned int /*bits*/) override { gate.Pass(); }

    std::atomic<bool> isServed{false};
    pztest::Gate gate;
};

}  // namespace

// The tests' own system log is not the machine's.
extern "C" void syslog(int /*pri*/, const char* /*fmt*/, ...) {}

TEST_F(PZReportObjectTest, TellsTheFileOfFailedQuestions) {
    const std::string path = below_a_file(dir);
    EXPECT_FALSE(PZFileSys::IsExist(path.c_str()));
    EXPECT_EQ(path + "||", ObjectsOf("error["));
}

TEST_F(PZReportObjectTest, TellsTheFolderThatCannotBeMade) {
    const std::string path = below_a_file(dir);
    EXPECT_FALSE(PZFileSys::CreateDirectory(path.c_str(), false));
    EXPECT_EQ(path + "||", ObjectsOf(kLastError));
}

TEST_F(PZReportObjectTest, TellsTheFolderThatCannotBeListedForLackOfDescriptors) {
    const std::string source = dir.File("source");
    const std::string copy = dir.File("copy");
    for (const std::string& folder : {source, copy}) {
        ASSERT_EQ(0, mkdir(folder.c_str(), 0777));
    }
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none = {0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const bool isCopied = PZFileSys::Copy(source.c_str(), copy.c_str(), false, true);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_FALSE(isCopied);
    EXPECT_EQ(source + "||", ObjectsOf(kLastError));
}

TEST_F(PZReportObjectTest, TellsTheFileThatCannotBeOpened) {
    PZStorage storage;
    const std::string path = dir.File("missing/file");
    EXPECT_EQ(1, storage.Open(path.c_str(), "rb"));
    EXPECT_EQ(path + "||", ObjectsOf(kLastError));
}

TEST_F(PZReportObjectTest, TellsTheThreadWhosePriorityCannotBeSet) {
    Owner owner;
    PZThread<Owner> thread(&owner, 1000);
    ASSERT_TRUE(thread.Start("tuner"));
    thread.WaitExit();
    EXPECT_EQ(-1, thread.GetPriority());
    EXPECT_EQ("|tuner|", ObjectsOf("invalid thread id"));
}

TEST_F(PZReportObjectTest, TellsTheLabelOfARegisteredThread) {
    PZThreadMng* const registry = PZThreadMng::GetInstance();
    const unsigned long self = pthread_self();
    registry->registerThreadInfo(self, "main", 251, 1000);
    EXPECT_FALSE(registry->SetPriority(self, 251, INT_MAX));
    EXPECT_EQ(0, registry->GetPriority(self, INT_MAX));
    EXPECT_EQ("|main| |main|", ObjectsOf("error : errno[3 : No such process]"));
    registry->unregisterThreadInfo(self);
    EXPECT_EQ(0, registry->GetPriority(self, INT_MAX));
    EXPECT_EQ("|main| |main| ||", ObjectsOf("error : errno[3 : No such process]"));
}

TEST_F(PZReportObjectTest, TellsTheWorkerThatReports) {
    PZWorker worker(1, 1000, 7);
    ASSERT_EQ(0, worker.Start("tuner"));
    Reporter reporter;
    const unsigned long id = worker.GetMsgBox()->Registory(&reporter);
    PZIMsgBox::ST_PUSH_MSG_DATA msg = {id, 1, 128, nullptr, 0};
    ASSERT_EQ(0U, worker.GetMsgBox()->PushMsg(msg));
    EXPECT_TRUE(pztest::wait_until([&reporter] { return reporter.isServed.load(); }));
    EXPECT_EQ("||tuner", ObjectsOf("from a handler"));
    worker.End(0);
}

TEST_F(PZReportObjectTest, TellsTheWorkerWhoseBoxIsFull) {
    PZWorker worker(1, 1000, 7);
    ASSERT_EQ(0, worker.Start("tuner"));
    Reporter reporter;
    const unsigned long id = worker.GetMsgBox()->Registory(&reporter);
    ASSERT_EQ(0U, worker.GetMsgBox()->SetEvent(1, id));  // keeps it busy
    ASSERT_TRUE(reporter.gate.WaitForArrival());
    PZIMsgBox::ST_PUSH_MSG_DATA msg = {id, 1, 128, nullptr, 0};
    unsigned int result = 0;
    for (int i = 0; i <= 256 && result == 0; ++i) result = worker.GetMsgBox()->PushMsg(msg);
    EXPECT_EQ("||tuner", ObjectsOf("msg queue is full : worker[7]"));
    msg.Buff = &msg;
    EXPECT_NE(0U, worker.GetMsgBox()->PushMsg(msg));
    EXPECT_EQ("||tuner", ObjectsOf("param is NG"));
    result = 0;
    for (int i = 0; i <= 256 && result == 0; ++i) result = worker.GetMsgBox()->SetEvent(1, id);
    EXPECT_EQ("||tuner", ObjectsOf("event is full : worker[7]"));
    reporter.gate.Open();
    worker.End(0);
}

TEST_F(PZReportObjectTest, TellsTheGuardedFile) {
    PZFileGuard guard(dir.Path() + "/none", "settings");
    EXPECT_FALSE(guard.initForApp());
    EXPECT_EQ(dir.Path() + "/none/settings||",
              ObjectsOf("error").substr(0, ObjectsOf("error").find(' ')));
}

TEST_F(PZReportObjectTest, TellsTheQueue) {
    const pztest::QueueName name;
    PZMsgQ::PZMessageQueue<0> queue;
    ASSERT_TRUE(queue.open({name.Get()}));
    const char text[] = "x";
    EXPECT_EQ(-3, queue.send(text, 2000, 1));
    EXPECT_EQ(name.Text() + "||", ObjectsOf("size over(2000)"));
    EXPECT_EQ(-3, queue.send(text, 1, 0));
    EXPECT_EQ(name.Text() + "||", ObjectsOf("invalid priority(0)"));
    queue.close();
}

TEST_F(PZReportObjectTest, TellsTheObjectOfAReportOfTheProgramsOwn) {
    PZ_REPORT_ERROR_ON(WORKER, "tuner", "no %s\n", "signal");
    errno = ENOENT;
    PZ_REPORT_LAST_ERROR_ON(PATH, "/data");
    EXPECT_EQ(ENOENT, errno);
    PZ_REPORT_ERROR("other\n");
    EXPECT_EQ("||tuner", ObjectsOf("no signal"));
    EXPECT_EQ("/data||", ObjectsOf("std library error [2 : No such file or directory]"));
    EXPECT_EQ("||", ObjectsOf("other"));
    const std::string printed = output.Take();
    for (const char* const message :
         {"no signal", "std library error [2 : No such file or directory]"}) {
        EXPECT_TRUE(pztest::has_report(printed, "TestBody", "PZReportObjectTest.cpp", message));
    }
}
