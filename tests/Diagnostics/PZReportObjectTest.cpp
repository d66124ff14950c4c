#include <pthread.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <syslog.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Communication/PZFileGuard.h>
#include <Framework/Communication/PZMessageQueue.h>
#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/PZFileSys.h>
#include <Framework/Foundation/PZIDispatcher.h>
#include <Framework/Foundation/PZLMsgBox.h>
#include <Framework/Foundation/PZStorage.h>
#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZThread.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/PZWatchDog.h>
#include <Framework/Foundation/PZWorker.h>
#include <Framework/SharedMemory/PZSharedSyncObject.h>

#include "support/FewDescriptors.h"
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

TEST_F(PZReportObjectTest, TellsTheFileWhoseExistenceCannotBeChecked) {
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
    bool isCopied = true;
    {
        const pztest::FewDescriptors none(0);
        isCopied = PZFileSys::Copy(source.c_str(), copy.c_str(), false, true);
    }
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

TEST_F(PZReportObjectTest, TellsTheGuardedFileThatCannotBeAttached) {
    PZFileGuard guard(dir.Path() + "/none", "settings");
    EXPECT_FALSE(guard.initForApp());
    EXPECT_EQ(dir.Path() + "/none/settings||",
              ObjectsOf("error").substr(0, ObjectsOf("error").find(' ')));
}

TEST_F(PZReportObjectTest, TellsTheGuardedFileOfEveryFailureOfItsMutex) {
    const std::string path = dir.Path() + "/settings||";
    PZFileGuard guard(dir.Path(), "settings");
    EXPECT_FALSE(guard.lock());
    EXPECT_EQ(path, ObjectsOf("error not initialized"));
    ASSERT_TRUE(guard.initForSystem());
    EXPECT_FALSE(guard.initForSystem());
    EXPECT_FALSE(guard.setFileName("other"));
    EXPECT_FALSE(guard.setFilePath(dir.Path(), "other"));
    ASSERT_TRUE(guard.lock());
    std::thread([&guard] { EXPECT_FALSE(guard.tryLock()); }).join();
    EXPECT_TRUE(guard.unlock());
    EXPECT_EQ(path + " " + path + " " + path + " " + path + " " + path, ObjectsOf("error"));
    const int id = shmget(ftok((dir.Path() + "/settings_mutex").c_str(), 1), 0, 0);
    auto* const mutex = static_cast<pthread_mutex_t*>(shmat(id, nullptr, 0));
    const pthread_mutex_t sound = *mutex;
    mutex->__data.__kind = 0x7F;
    EXPECT_FALSE(guard.lock());
    EXPECT_FALSE(guard.tryLock());
    EXPECT_FALSE(guard.unlock());
    *mutex = sound;
    shmdt(mutex);
    for (const char* const operation : {"lock", "tryLock", "unlock"}) {
        EXPECT_EQ(path, ObjectsOf(std::string("PZFileGuard::") + operation + "() "));
    }
    EXPECT_TRUE(guard.destroyMutex());
}

TEST_F(PZReportObjectTest, TellsTheNameOfALockOrItsAddress) {
    PZSync refused("no/such", PZSync::en_TYPE_NAMED);
    EXPECT_EQ(2U, refused.Lock(0));
    refused.Unlock();
    EXPECT_EQ("no/such||", ObjectsOf("create error : errno[2"));
    EXPECT_EQ("no/such|| no/such||", ObjectsOf("handle is not created"));
    const std::string longest(32, 'x');  // has no terminator where it is kept
    const PZSync unknown((longest + "y").c_str(), static_cast<PZSync::EN_TYPE>(7));
    EXPECT_EQ(longest + "||", ObjectsOf("invalid arg"));
    seen.clear();
    PZSync nameless(nullptr, PZSync::en_TYPE_UNNAMED);
    EXPECT_EQ(2U, nameless.Lock(0));
    nameless.Unlock();
    std::ostringstream address;
    address << &nameless << "||";
    EXPECT_EQ(address.str(), ObjectsOf("invalid arg : name is null"));
    EXPECT_EQ(address.str() + " " + address.str(), ObjectsOf("handle is not created"));
}

TEST_F(PZReportObjectTest, TellsTheSharedLockThatIsNotFreeInTime) {
    const PZSharedSyncObject refused("no/such");
    refused.lock();
    EXPECT_EQ("no/such||", ObjectsOf("PZSync.Lock() error [2]"));
}

TEST_F(PZReportObjectTest, TellsTheQueueThatRefusesAMessage) {
    const pztest::QueueName name;
    PZMsgQ::PZMessageQueue<0> queue;
    ASSERT_TRUE(queue.open({name.Get()}));
    const char text[] = "x";
    EXPECT_EQ(-3, queue.send(text, 2000, 1));
    EXPECT_EQ(name.Text() + "||", ObjectsOf("size over(2000)"));
    EXPECT_EQ(-3, queue.send(text, 1, 0));
    EXPECT_EQ(name.Text() + "||", ObjectsOf("invalid priority(0)"));
    EXPECT_EQ(-3, queue.send(nullptr, 1, 1));
    EXPECT_EQ(name.Text() + "||", ObjectsOf("invalid args"));
    queue.close();
    EXPECT_EQ(-1, queue.send(text, 1, 1));
    EXPECT_EQ(name.Text() + "||", ObjectsOf("not opened"));
    const std::string tooLong(40, 'q');
    EXPECT_FALSE(queue.open({tooLong.c_str()}));
    EXPECT_EQ(tooLong + "||", ObjectsOf("name is too long."));
    EXPECT_EQ(tooLong + "||", ObjectsOf("#########\n#########\nASSERT Failed!"));
    PZMsgQ::PZMessageQueue<1> receiver;
    EXPECT_FALSE(receiver.open({name.Get(), nullptr}));
    EXPECT_EQ(name.Text() + "|| " + name.Text() + "||", ObjectsOf("invalid args"));
}

#ifndef __SANITIZE_ADDRESS__  // its checks of types need a pipe of their own
TEST_F(PZReportObjectTest, TellsTheWorkerThatCannotStart) {
    int answer = 0;
    {
        const pztest::FewDescriptors none(0);
        PZWorker refused(1, 1000, 8);
        answer = refused.Start("tuner");
    }
    EXPECT_EQ(-1, answer);
    EXPECT_NE(std::string::npos, ObjectsOf(kLastError).find("||tuner"));
}
#endif

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
