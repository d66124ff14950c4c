#include "Framework/Foundation/PZEvent.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/CancelledStack.h"
#include "support/CancelledThread.h"
#include "support/ChildProcess.h"
#include "support/Interposed.h"
#include "support/Interruptions.h"
#include "support/OpenDescriptors.h"
#include "support/StdoutCapture.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(epoll_create1, 1);
PZ_INTERPOSE(epoll_ctl, 4);
PZ_INTERPOSE(epoll_wait, 4);
PZ_INTERPOSE(read, 3);
PZ_INTERPOSE(write, 3);
PZ_INTERPOSE(close, 1);

using pztest::error_messages;
using pztest::has_report;
using pztest::Interruptions;
using pztest::open_descriptors;
using pztest::StdoutCapture;
using pztest::wait_until;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr unsigned int kNoLimit = 0xFFFFFFFF;
constexpr unsigned int kMaxEvents = 64;
constexpr int kTimedOut = -2;
constexpr int kError = -3;

pztest::Interposed<int(int*, int)> pipe_call("pipe2");

bool fcntl_fails = false;
int fcntl_calls = 0;
std::atomic<long> allocations{0};

/// The descriptors of the pipe that was made last.
struct PipeFds {
    int readFd;
    int writeFd;
};
PipeFds last_pipe = {-1, -1};

/// An event with a view into its pipe.
struct OpenEvent {
    PZEvent event;
    const int readFd = last_pipe.readFd;
    const int writeFd = last_pipe.writeFd;

    /// The number of signals, seen from outside.
    int Pending() const {
        int bytes = -1;
        return ioctl(readFd, FIONREAD, &bytes) == 0 ? bytes : -1;
    }

    void Set(int times) {
        for (int i = 0; i < times; ++i) ASSERT_EQ(1, event.SetEvent());
    }
};

/// As many events as one wait can take.
struct FullHouse {
    std::array<OpenEvent, kMaxEvents> open;
    std::array<PZEvent*, kMaxEvents> list = {};

    FullHouse() {
        for (unsigned int i = 0; i < kMaxEvents; ++i) list[i] = &open[i].event;
    }
};

std::string std_error(int error) {
    return "std library error [" + std::to_string(error) + " : " + strerror(error) + "]";
}

bool sigpipe_is(sighandler_t handler) {
    struct sigaction action = {};
    return sigaction(SIGPIPE, nullptr, &action) == 0 && action.sa_handler == handler;
}

// Stand-ins for the system calls. What they need to know stands beside them.

struct WaitArguments {
    int room;
    int timeoutMs;
};
std::vector<WaitArguments> waits_seen;

int remember_wait(int epollFd, epoll_event* ready, int room, int timeoutMs) {
    waits_seen.push_back({room, timeoutMs});
    return epoll_wait_call.Real(epollFd, ready, room, timeoutMs);
}

PZEvent* late_event = nullptr;

int remember_wait_and_set_late_event(int epollFd, epoll_event* ready, int room, int timeoutMs) {
    const int count = remember_wait(epollFd, ready, room, timeoutMs);
    if (late_event != nullptr) late_event->SetEvent();
    late_event = nullptr;
    return count;
}

/// The first wait takes 60 milliseconds, and the event ends it.
int set_late_event_after_a_while(int epollFd, epoll_event* ready, int room, int timeoutMs) {
    if (late_event != nullptr) {
        std::this_thread::sleep_for(milliseconds(60));
        late_event->SetEvent();
        late_event = nullptr;
    }
    return epoll_wait_call.Real(epollFd, ready, room, timeoutMs);
}

std::vector<int> ready_fds;

int answer_ready_fds(int /*epollFd*/, epoll_event* ready, int room, int /*timeoutMs*/) {
    int count = 0;
    for (const int fd : ready_fds) {
        if (count == room) break;
        ready[count].events = EPOLLIN;
        ready[count].data.fd = fd;
        ++count;
    }
    return count;
}

std::atomic<int> waiters_past_epoll{0};

int let_two_waiters_see_the_signal(int epollFd, epoll_event* ready, int room, int timeoutMs) {
    const int count = epoll_wait_call.Real(epollFd, ready, room, timeoutMs);
    ++waiters_past_epoll;
    wait_until([] { return waiters_past_epoll >= 2; });
    return count;
}

int refuse_to_delete(int epollFd, int operation, int fd, epoll_event* entry) {
    if (operation == EPOLL_CTL_DEL) {
        errno = ENOENT;
        return -1;
    }
    return epoll_ctl_call.Real(epollFd, operation, fd, entry);
}

struct CtlArguments {
    int operation;
    int fd;
    unsigned int interest;
    int data;
};
std::vector<CtlArguments> ctls_seen;

int remember_ctl(int epollFd, int operation, int fd, epoll_event* entry) {
    const bool adds = operation == EPOLL_CTL_ADD;
    ctls_seen.push_back({operation, fd, adds ? entry->events : 0U, adds ? entry->data.fd : -1});
    return epoll_ctl_call.Real(epollFd, operation, fd, entry);
}

/// Of the descriptor that is waited with.
int last_epoll_flags = -1;

int remember_epoll_flags(int epollFd, epoll_event* ready, int room, int timeoutMs) {
    last_epoll_flags = fcntl(epollFd, F_GETFD);
    return epoll_wait_call.Real(epollFd, ready, room, timeoutMs);
}

std::string bytes_written;

ssize_t remember_bytes(int fd, const void* bytes, size_t size) {
    bytes_written.append(static_cast<const char*>(bytes), size);
    return write_call.Real(fd, bytes, size);
}

ssize_t write_nothing(int /*fd*/, const void* /*bytes*/, size_t /*size*/) {
    return 0;
}

ssize_t read_nothing(int /*fd*/, void* /*bytes*/, size_t /*size*/) {
    errno = ENODATA;  // what the report is to find
    return 0;
}

/// Closes, and says that it failed: nothing is left open behind a test.
int close_with_error(int fd) {
    close_call.Real(fd);
    errno = EIO;
    return -1;
}

int failing_close_fd = -1;

int close_one_with_error(int fd) {
    return fd == failing_close_fd ? close_with_error(fd) : close_call.Real(fd);
}

std::atomic<int> usr1_signals{0};

void count_usr1(int /*signal*/) {
    ++usr1_signals;
}

/// Expects one report, of `function`, that the system has answered `error`.
void expect_only_report(const std::string& output, const char* function, int error) {
    EXPECT_TRUE(has_report(output, function, "PZEvent.cpp", std_error(error)));
    EXPECT_EQ(1U, error_messages(output).size());
}

class PZEventTest : public testing::Test {
protected:
    void SetUp() override { DisarmAll(); }
    void TearDown() override { DisarmAll(); }

    /// Waits for one event and for all, after `spoil` has spoilt the reads: each reports `error`.
    void ExpectReportOfRead(const std::function<void()>& spoil, int error) {
        StdoutCapture output;
        const int before = open_descriptors();
        a.Set(1);
        for (const bool waitAll : {false, true}) {
            spoil();
            const int result = PZEvent::WaitMultipleEvent(2, both, kNoLimit, waitAll);
            read_call.Reset();
            EXPECT_EQ(kError, result);
            expect_only_report(output.Take(), "timedMultiWait", error);
        }
        EXPECT_EQ(before, open_descriptors());
    }

    OpenEvent a;
    OpenEvent b;
    PZEvent* both[2] = {&a.event, &b.event};

private:
    static void DisarmAll() {
        pipe_call.Reset();
        epoll_create1_call.Reset();
        epoll_ctl_call.Reset();
        epoll_wait_call.Reset();
        read_call.Reset();
        write_call.Reset();
        close_call.Reset();
        fcntl_fails = false;
        fcntl_calls = 0;
        waits_seen.clear();
        ctls_seen.clear();
        ready_fds.clear();
        bytes_written.clear();
        waiters_past_epoll = 0;
    }
};

/// Each in a process of its own, that has never waited: these stay the first in this file, and
/// wait in the child only.
class PZEventSigpipeTest : public testing::Test {};

static_assert(!std::is_copy_constructible_v<PZEvent>);
static_assert(!std::is_copy_assignable_v<PZEvent>);
static_assert(!std::is_polymorphic_v<PZEvent>);
static_assert(sizeof(PZEvent) == 2 * sizeof(int));

}  // namespace

extern "C" int pipe2(int* pipedes, int flags) noexcept {
    const int result = pipe_call(pipedes, flags);
    if (result == 0) last_pipe = {pipedes[0], pipedes[1]};
    return result;
}
// The name behind fcntl in code that is built for large files, as the library is.
extern "C" int fcntl64(int fd, int cmd, ...) {
    va_list arguments;
    va_start(arguments, cmd);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    ++fcntl_calls;
    if (!fcntl_fails) return fcntl(fd, cmd, argument);
    errno = EPERM;
    return -1;
}

// Out of line, or the compiler sees a free of what operator new returned.
__attribute__((noinline)) void* operator new(size_t size) {
    ++allocations;
    void* const memory = std::malloc(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
__attribute__((noinline)) void operator delete(void* memory) noexcept {
    std::free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, size_t /*size*/) noexcept {
    std::free(memory);
}

// SIGPIPE

namespace {

constexpr int kIgnored = 10;
constexpr int kLeftAlone = 11;

/// What has become of the signal in a process that has run `body`, which answers whether it went
/// as it should.
int sigpipe_after(const std::function<bool()>& body) {
    const pztest::ChildResult child = pztest::run_in_child([&body] {
        signal(SIGPIPE, SIG_DFL);
        if (!body()) return 2;
        if (sigpipe_is(SIG_IGN)) return kIgnored;
        return sigpipe_is(SIG_DFL) ? kLeftAlone : 3;
    });
    EXPECT_TRUE(child.exited);
    return child.status;
}

}  // namespace

TEST_F(PZEventSigpipeTest, IsLeftAloneUntilTheFirstWait) {
    EXPECT_EQ(kLeftAlone, sigpipe_after([] { return PZEvent().SetEvent() == 1; }));
}

TEST_F(PZEventSigpipeTest, IsIgnoredFromTheFirstWait) {
    EXPECT_EQ(kIgnored, sigpipe_after([] { return PZEvent().WaitEvent(0) == kTimedOut; }));
}

TEST_F(PZEventSigpipeTest, IsIgnoredEvenFromAWaitForNothing) {
    EXPECT_EQ(kIgnored,
              sigpipe_after([] { return PZEvent::timedMultiWait(0, nullptr, true, 0) == -1; }));
}

TEST_F(PZEventSigpipeTest, IsLeftAloneByAMultipleWaitWithoutEvents) {
    EXPECT_EQ(kLeftAlone, sigpipe_after([] {
                  return PZEvent::WaitMultipleEvent(1, nullptr, 0, true) == kError;
              }));
}

TEST_F(PZEventSigpipeTest, IsSetToBeIgnoredOnlyOnce) {
    EXPECT_EQ(kLeftAlone, sigpipe_after([] {
                  PZEvent event;
                  event.WaitEvent(0);
                  signal(SIGPIPE, SIG_DFL);
                  return event.WaitEvent(0) == kTimedOut;
              }));
}

TEST_F(PZEventSigpipeTest, DoesNotEndAProcessThatSetsAnEventWithoutAReadEnd) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        signal(SIGPIPE, SIG_DFL);
        OpenEvent open;
        open.event.WaitEvent(0);
        close(open.readFd);
        return open.event.SetEvent();
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.status);
    EXPECT_TRUE(has_report(child.output, "SetEvent", "PZEvent.cpp", std_error(EPIPE)));
    EXPECT_TRUE(has_report(child.output, "~PZEvent", "PZEvent.cpp", std_error(EBADF)));
}

// Birth and death

TEST_F(PZEventTest, IsBornInitialisedAndWithoutSignals) {
    EXPECT_TRUE(a.event.isInitialized());
    EXPECT_EQ(0, a.Pending());
    EXPECT_EQ(kTimedOut, a.event.WaitEvent(0));
}

TEST_F(PZEventTest, DoesNotUseItsName) {
    PZEvent first("door");
    PZEvent second("door");
    PZEvent nameless(nullptr);
    EXPECT_TRUE(first.isInitialized());
    EXPECT_TRUE(second.isInitialized());
    EXPECT_TRUE(nameless.isInitialized());
    first.SetEvent();
    EXPECT_EQ(kTimedOut, second.WaitEvent(0));
    EXPECT_EQ(0, first.WaitEvent(0));
}

TEST_F(PZEventTest, MakesItsWriteEndOnlyNonBlocking) {
    EXPECT_EQ(0, fcntl(a.readFd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(O_NONBLOCK, fcntl(a.writeFd, F_GETFL) & O_NONBLOCK);
}

TEST_F(PZEventTest, KeepsItsPipeFromStartedPrograms) {
    EXPECT_EQ(FD_CLOEXEC, fcntl(a.readFd, F_GETFD));
    EXPECT_EQ(FD_CLOEXEC, fcntl(a.writeFd, F_GETFD));
}

TEST_F(PZEventTest, KeepsItsPipeAboveTheStandardDescriptors) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        OpenEvent open;
        if (!open.event.isInitialized() || open.event.SetEvent() != 1) return 1;
        for (int fd = STDIN_FILENO; fd <= STDOUT_FILENO; ++fd) {
            if (fcntl(fd, F_GETFD) != -1) return 2;
        }
        return open.event.WaitEvent(0) == 0 ? 0 : 3;
    });
    EXPECT_EQ(0, child.status);
}

TEST_F(PZEventTest, HasNoPipeThatCouldOnlyTakeTheStandardDescriptors) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        const rlimit onlyStandard = {3, 3};
        setrlimit(RLIMIT_NOFILE, &onlyStandard);
        close(STDIN_FILENO);
        close(STDERR_FILENO);
        const PZEvent event;
        if (event.isInitialized()) return 1;
        return fcntl(STDIN_FILENO, F_GETFD) == -1 && fcntl(STDERR_FILENO, F_GETFD) == -1 ? 0 : 2;
    });
    EXPECT_EQ(0, child.status);
    EXPECT_EQ(1U, error_messages(child.output).size());
}

TEST_F(PZEventTest, ServesSetsAndWaitsWhenItsPipeCannotBeConfigured) {
    StdoutCapture output;
    fcntl_fails = true;
    fcntl_calls = 0;
    PZEvent event;
    EXPECT_EQ(1, fcntl_calls);
    EXPECT_TRUE(event.isInitialized());
    EXPECT_EQ(1, event.SetEvent());
    EXPECT_EQ(0, event.WaitEvent(0));
    EXPECT_EQ("", output.Take());
}

TEST_F(PZEventTest, ReportsAPipeThatCannotBeMade) {
    StdoutCapture output;
    pipe_call.FailNext(EMFILE);
    const PZEvent event;
    const std::string text = output.Take();
    EXPECT_FALSE(event.isInitialized());
    EXPECT_TRUE(has_report(text, "init", "PZEvent.cpp", std_error(EMFILE)));
    EXPECT_EQ(1U, error_messages(text).size());
}

TEST_F(PZEventTest, SetsNothingWithoutAPipeAndStaysSilent) {
    StdoutCapture output;
    pipe_call.FailNext(EMFILE);
    PZEvent event;
    output.Take();
    EXPECT_EQ(0, event.SetEvent());
    EXPECT_EQ("", output.Take());
}

TEST_F(PZEventTest, ClosesNothingWithoutAPipe) {
    StdoutCapture output;
    pipe_call.FailNext(EMFILE);
    auto* const event = new PZEvent;
    output.Take();
    close_call.Reset();
    delete event;
    EXPECT_EQ(0, close_call.Calls());
    EXPECT_EQ("", output.Take());
}

TEST_F(PZEventTest, GetsItsPipeFromALaterInit) {
    StdoutCapture output;
    pipe_call.FailNext(EMFILE);
    PZEvent event;
    event.init("again");
    EXPECT_TRUE(event.isInitialized());
    EXPECT_EQ(1, event.SetEvent());
    EXPECT_EQ(0, event.WaitEvent(0));
}

TEST_F(PZEventTest, ClosesThePipeItHadWhenInitialisedAgain) {
    const int before = open_descriptors();
    a.Set(2);
    a.event.init(nullptr);
    EXPECT_TRUE(a.event.isInitialized());
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ(kTimedOut, a.event.WaitEvent(0));
    EXPECT_EQ(1, a.event.SetEvent());
    EXPECT_EQ(0, a.event.WaitEvent(0));
}

TEST_F(PZEventTest, HasNoPipeWhenInitialisedAgainInVain) {
    StdoutCapture output;
    const int before = open_descriptors();
    pipe_call.FailNext(ENFILE);
    a.event.init(nullptr);
    EXPECT_FALSE(a.event.isInitialized());
    EXPECT_EQ(before - 2, open_descriptors());
    EXPECT_TRUE(has_report(output.Take(), "init", "PZEvent.cpp", std_error(ENFILE)));
}

TEST_F(PZEventTest, ReportsAFailingCloseWhenInitialisedAgain) {
    StdoutCapture output;
    close_call.Replace(close_with_error);
    a.event.init(nullptr);
    close_call.Replace(nullptr);
    EXPECT_TRUE(has_report(output.Take(), "init", "PZEvent.cpp", std_error(EIO)));
    EXPECT_TRUE(a.event.isInitialized());
}

TEST_F(PZEventTest, ClosesBothEndsWhenItDies) {
    StdoutCapture output;
    const int before = open_descriptors();
    {
        const PZEvent event;
        EXPECT_EQ(before + 2, open_descriptors());
    }
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ("", output.Take());
}

/// An event of whose pipe `failing` cannot be closed dies, and reports that once.
void expect_report_of_close(const int& failing) {
    StdoutCapture output;
    {
        const PZEvent event;
        failing_close_fd = failing;
        close_call.Replace(close_one_with_error);
    }
    expect_only_report(output.Take(), "~PZEvent", EIO);
    EXPECT_EQ(2, close_call.Calls());
}

TEST_F(PZEventTest, ReportsAReadEndThatCannotBeClosed) {
    expect_report_of_close(last_pipe.readFd);
}

TEST_F(PZEventTest, ReportsAWriteEndThatCannotBeClosed) {
    expect_report_of_close(last_pipe.writeFd);
}

TEST_F(PZEventTest, ReportsOnceWhenNeitherEndCanBeClosed) {
    StdoutCapture output;
    {
        const PZEvent event;
        close_call.Replace(close_with_error);
    }
    close_call.Replace(nullptr);
    EXPECT_EQ(std::vector<std::string>{std_error(EIO)}, error_messages(output.Take()));
}

// SetEvent and ResetEvent

TEST_F(PZEventTest, Answers1AndKeepsOneSignalForEverySet) {
    EXPECT_EQ(1, a.event.SetEvent());
    EXPECT_EQ(1, a.Pending());
    EXPECT_EQ(1, a.event.SetEvent());
    EXPECT_EQ(2, a.Pending());
}

TEST_F(PZEventTest, WritesTheByte1) {
    write_call.Replace(remember_bytes);
    a.event.SetEvent();
    write_call.Replace(nullptr);
    EXPECT_EQ(std::string(1, '\x01'), bytes_written);
}

TEST_F(PZEventTest, GivesAsManyWaitsAsItWasSet) {
    a.Set(3);
    EXPECT_EQ(0, a.event.WaitEvent(0));
    EXPECT_EQ(0, a.event.WaitEvent(0));
    EXPECT_EQ(0, a.event.WaitEvent(0));
    EXPECT_EQ(kTimedOut, a.event.WaitEvent(0));
}

TEST_F(PZEventTest, DrainsAFullPipeAndLeavesOneSignal) {
    StdoutCapture output;
    const int capacity = fcntl(a.writeFd, F_GETPIPE_SZ);
    int accepted = 0;
    while (accepted <= capacity && a.event.SetEvent() == 1) ++accepted;
    EXPECT_EQ(capacity, accepted);
    EXPECT_EQ(1, a.Pending());
    EXPECT_EQ(0, a.event.WaitEvent(0));
    EXPECT_EQ(kTimedOut, a.event.WaitEvent(0));
    expect_only_report(output.Take(), "SetEvent", EAGAIN);
}

TEST_F(PZEventTest, TakesSignalsAgainAfterAFullPipe) {
    StdoutCapture output;
    a.Set(2);
    write_call.FailNext(EAGAIN);
    EXPECT_EQ(0, a.event.SetEvent());
    EXPECT_EQ(1, a.event.SetEvent());
    EXPECT_EQ(2, a.Pending());
}

TEST_F(PZEventTest, WritesOnlyOnceMoreAfterAFullPipe) {
    StdoutCapture output;
    a.Set(2);
    write_call.Reset();
    write_call.FailNext(EAGAIN, 2);
    EXPECT_EQ(0, a.event.SetEvent());
    EXPECT_EQ(2, write_call.Calls());
    EXPECT_EQ(0, a.Pending());
}

TEST_F(PZEventTest, ReportsABrokenPipeAndAnswers0) {
    StdoutCapture output;
    a.Set(1);
    write_call.FailNext(EPIPE);
    EXPECT_EQ(0, a.event.SetEvent());
    expect_only_report(output.Take(), "SetEvent", EPIPE);
    EXPECT_EQ(1, a.Pending());
}

TEST_F(PZEventTest, Answers0SilentlyToEveryOtherWriteError) {
    StdoutCapture output;
    for (const int error : {EIO, EBADF, EINTR, EFAULT, ENOSPC}) {
        write_call.FailNext(error);
        EXPECT_EQ(0, a.event.SetEvent()) << error;
    }
    EXPECT_EQ("", output.Take());
    EXPECT_EQ(0, a.Pending());
}

TEST_F(PZEventTest, Answers0SilentlyWhenNothingWasWritten) {
    StdoutCapture output;
    write_call.Replace(write_nothing);
    errno = EAGAIN;  // of some earlier call
    const int result = a.event.SetEvent();
    write_call.Replace(nullptr);
    EXPECT_EQ(0, result);
    EXPECT_EQ("", output.Take());
}

TEST_F(PZEventTest, TakesAllSignalsWithReset) {
    a.Set(5);
    EXPECT_TRUE(a.event.ResetEvent());
    EXPECT_EQ(0, a.Pending());
    EXPECT_EQ(kTimedOut, a.event.WaitEvent(0));
}

TEST_F(PZEventTest, ResetsWithoutSignals) {
    EXPECT_TRUE(a.event.ResetEvent());
    EXPECT_EQ(1, a.event.SetEvent());
    EXPECT_EQ(0, a.event.WaitEvent(0));
}

TEST_F(PZEventTest, AnswersTrueToAResetThatFails) {
    StdoutCapture output;
    a.Set(2);
    epoll_create1_call.FailNext(EMFILE);
    EXPECT_TRUE(a.event.ResetEvent());
    EXPECT_EQ(2, a.Pending());
    EXPECT_TRUE(has_report(output.Take(), "timedMultiWait", "PZEvent.cpp", std_error(EMFILE)));
}

TEST_F(PZEventTest, ResetsEventsOneByOneWithPolls) {
    a.Set(2);
    epoll_wait_call.Replace(remember_wait);
    a.event.ResetEvent();
    ASSERT_EQ(3U, waits_seen.size());
    for (const WaitArguments& wait : waits_seen) {
        EXPECT_EQ(1, wait.room);
        EXPECT_EQ(0, wait.timeoutMs);
    }
}

// WaitEvent

TEST_F(PZEventTest, WaitsNotLessThanItsTimeOut) {
    const auto start = steady_clock::now();
    EXPECT_EQ(kTimedOut, a.event.WaitEvent(60));
    const auto waited = steady_clock::now() - start;
    EXPECT_GE(waited, milliseconds(60));
    EXPECT_LT(waited, std::chrono::seconds(60));
}

TEST_F(PZEventTest, WaitsWithoutLimitUntilAnotherThreadSetsIt) {
    int result = 99;
    std::thread waiter([&] { result = a.event.WaitEvent(kNoLimit); });
    EXPECT_TRUE(wait_until([] { return epoll_wait_call.Calls() == 1; }));
    EXPECT_EQ(1, a.event.SetEvent());
    waiter.join();
    EXPECT_EQ(0, result);
    EXPECT_EQ(0, a.Pending());
}

TEST_F(PZEventTest, HandsItsTimeOutToEpollAsASignedNumber) {
    epoll_wait_call.Replace(remember_wait);
    for (const unsigned int timeout : {0U, 250U, 0x7FFFFFFFU, kNoLimit}) {
        a.Set(1);
        EXPECT_EQ(0, a.event.WaitEvent(timeout));
    }
    ASSERT_EQ(4U, waits_seen.size());
    EXPECT_EQ(0, waits_seen[0].timeoutMs);
    EXPECT_EQ(250, waits_seen[1].timeoutMs);
    EXPECT_EQ(0x7FFFFFFF, waits_seen[2].timeoutMs);
    EXPECT_EQ(-1, waits_seen[3].timeoutMs);
}

TEST_F(PZEventTest, HandsAWideTimeOutToEpollAsASignedNumber) {
    epoll_wait_call.Replace(remember_wait);
    a.Set(2);
    EXPECT_EQ(0, PZEvent::timedMultiWait(1, both, true, 0xFFFFFFFFUL));
    EXPECT_EQ(0, PZEvent::timedMultiWait(1, both, true, ~0UL));
    ASSERT_EQ(2U, waits_seen.size());
    EXPECT_EQ(-1, waits_seen[0].timeoutMs);
    EXPECT_EQ(-1, waits_seen[1].timeoutMs);
}

TEST_F(PZEventTest, AnswersAnErrorToAWaitWithoutAPipe) {
    StdoutCapture output;
    pipe_call.FailNext(EMFILE);
    PZEvent event;
    output.Take();
    EXPECT_EQ(kError, event.WaitEvent(0));
    const std::string text = output.Take();
    EXPECT_TRUE(has_report(text, "timedMultiWait", "PZEvent.cpp", "handle error"));
    EXPECT_EQ(1U, error_messages(text).size());
    EXPECT_TRUE(event.ResetEvent());
}

// Wait for any

TEST_F(PZEventTest, AnswersTheIndexOfTheSetEventAndTakesOneOfItsSignals) {
    b.Set(2);
    EXPECT_EQ(1, PZEvent::WaitMultipleEvent(2, both, kNoLimit, false));
    EXPECT_EQ(1, b.Pending());
}

TEST_F(PZEventTest, AnswersIndex0ForTheFirstEvent) {
    a.Set(1);
    EXPECT_EQ(0, PZEvent::WaitMultipleEvent(2, both, kNoLimit, false));
    EXPECT_EQ(0, a.Pending());
}

TEST_F(PZEventTest, TakesOneSignalOnlyWhenBothAreSet) {
    a.Set(1);
    b.Set(1);
    const int first = PZEvent::WaitMultipleEvent(2, both, 0, false);
    ASSERT_TRUE(first == 0 || first == 1);
    EXPECT_EQ(first == 0 ? 0 : 1, a.Pending());
    EXPECT_EQ(first == 1 ? 0 : 1, b.Pending());
    EXPECT_EQ(1 - first, PZEvent::WaitMultipleEvent(2, both, 0, false));
    EXPECT_EQ(kTimedOut, PZEvent::WaitMultipleEvent(2, both, 0, false));
}

TEST_F(PZEventTest, TakesTheSignalOfTheFirstReadyEntry) {
    a.Set(1);
    b.Set(1);
    ready_fds = {b.readFd, a.readFd};
    epoll_wait_call.Replace(answer_ready_fds);
    EXPECT_EQ(1, PZEvent::WaitMultipleEvent(2, both, 0, false));
    EXPECT_EQ(1, a.Pending());
    EXPECT_EQ(0, b.Pending());
}

TEST_F(PZEventTest, TimesOutWhenNoneIsSet) {
    const auto start = steady_clock::now();
    EXPECT_EQ(kTimedOut, PZEvent::WaitMultipleEvent(2, both, 30, false));
    EXPECT_GE(steady_clock::now() - start, milliseconds(30));
}

TEST_F(PZEventTest, WakesFromAWaitForAnyWhenAnotherThreadSetsOne) {
    int result = 99;
    std::thread waiter([&] { result = PZEvent::WaitMultipleEvent(2, both, kNoLimit, false); });
    EXPECT_TRUE(wait_until([] { return epoll_wait_call.Calls() == 1; }));
    EXPECT_EQ(1, b.event.SetEvent());
    waiter.join();
    EXPECT_EQ(1, result);
}

TEST_F(PZEventTest, ReportsADescriptorThatIsNoneOfItsOwn) {
    StdoutCapture output;
    OpenEvent foreign;
    foreign.Set(1);
    ready_fds = {foreign.readFd, b.readFd};
    b.Set(1);
    epoll_wait_call.Replace(answer_ready_fds);
    const int before = open_descriptors();
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(2, both, 0, false));
    EXPECT_EQ(before, open_descriptors());
    const std::string text = output.Take();
    const std::string first =
        "No[0] rcv[" + std::to_string(foreign.readFd) + "] evt[" + std::to_string(a.readFd) + "]";
    const std::string second =
        "No[1] rcv[" + std::to_string(b.readFd) + "] evt[" + std::to_string(b.readFd) + "]";
    EXPECT_EQ((std::vector<std::string>{first, second}), error_messages(text));
    EXPECT_TRUE(has_report(text, "timedMultiWait", "PZEvent.cpp", first));
    EXPECT_EQ(0, foreign.Pending());
    EXPECT_EQ(1, b.Pending());
}

TEST_F(PZEventTest, ReportsNoDescriptorWhereNoEntryWasReady) {
    StdoutCapture output;
    OpenEvent foreign;
    foreign.Set(1);
    ready_fds = {foreign.readFd};
    epoll_wait_call.Replace(answer_ready_fds);
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(2, both, 0, false));
    EXPECT_EQ((std::vector<std::string>{"No[0] rcv[" + std::to_string(foreign.readFd) + "] evt[" +
                                            std::to_string(a.readFd) + "]",
                                        "No[1] rcv[-1] evt[" + std::to_string(b.readFd) + "]"}),
              error_messages(output.Take()));
}

// Wait for all

TEST_F(PZEventTest, TakesOneSignalOfEachWhenAllAreSet) {
    a.Set(2);
    b.Set(1);
    EXPECT_EQ(0, PZEvent::WaitMultipleEvent(2, both, kNoLimit, true));
    EXPECT_EQ(1, a.Pending());
    EXPECT_EQ(0, b.Pending());
}

TEST_F(PZEventTest, WaitsForTheEventThatIsSetLater) {
    a.Set(1);
    int result = 99;
    std::thread waiter([&] { result = PZEvent::WaitMultipleEvent(2, both, kNoLimit, true); });
    EXPECT_TRUE(wait_until([&] { return a.Pending() == 0; }));
    b.Set(1);
    waiter.join();
    EXPECT_EQ(0, result);
    EXPECT_EQ(0, b.Pending());
}

TEST_F(PZEventTest, DoesNotCountASecondSignalOfOneEventForAnother) {
    a.Set(2);
    EXPECT_EQ(kTimedOut, PZEvent::WaitMultipleEvent(2, both, 0, true));
    EXPECT_EQ(1, a.Pending());
}

TEST_F(PZEventTest, KeepsTheSignalsItTookBeforeTheTimeOut) {
    a.Set(1);
    const auto start = steady_clock::now();
    EXPECT_EQ(kTimedOut, PZEvent::WaitMultipleEvent(2, both, 30, true));
    EXPECT_GE(steady_clock::now() - start, milliseconds(30));
    EXPECT_EQ(0, a.Pending());
}

TEST_F(PZEventTest, GivesEveryRoundTheFullTimeOutAndRoomForTheRest) {
    a.Set(1);
    late_event = &b.event;
    epoll_wait_call.Replace(remember_wait_and_set_late_event);
    EXPECT_EQ(0, PZEvent::WaitMultipleEvent(2, both, 5000, true));
    ASSERT_EQ(2U, waits_seen.size());
    EXPECT_EQ(2, waits_seen[0].room);
    EXPECT_EQ(5000, waits_seen[0].timeoutMs);
    EXPECT_EQ(1, waits_seen[1].room);
    EXPECT_EQ(5000, waits_seen[1].timeoutMs);
    EXPECT_EQ(1, epoll_create1_call.Calls());
}

TEST_F(PZEventTest, LeavesTheReadyEventsOutOfTheNextRound) {
    a.Set(1);
    epoll_ctl_call.Replace(remember_ctl);
    EXPECT_EQ(kTimedOut, PZEvent::WaitMultipleEvent(2, both, 0, true));
    ASSERT_EQ(3U, ctls_seen.size());
    EXPECT_EQ(EPOLL_CTL_DEL, ctls_seen[2].operation);
    EXPECT_EQ(a.readFd, ctls_seen[2].fd);
}

TEST_F(PZEventTest, AnswersATimeOutSilentlyWhenAReadyEventCannotBeLeftOut) {
    StdoutCapture output;
    const int before = open_descriptors();
    a.Set(1);
    epoll_ctl_call.Replace(refuse_to_delete);
    EXPECT_EQ(kTimedOut, PZEvent::WaitMultipleEvent(2, both, kNoLimit, true));
    EXPECT_EQ(0, a.Pending());
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ("", output.Take());
}

TEST_F(PZEventTest, RemovesNothingWhenAllWereReadyAtOnce) {
    a.Set(1);
    b.Set(1);
    epoll_ctl_call.Replace(refuse_to_delete);
    EXPECT_EQ(0, PZEvent::WaitMultipleEvent(2, both, 0, true));
}

// Arguments

TEST_F(PZEventTest, AnswersAnErrorToAMultipleWaitForNothing) {
    StdoutCapture output;
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(2, nullptr, kNoLimit, false));
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(2, nullptr, kNoLimit, true));
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(0, both, kNoLimit, false));
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(0, both, kNoLimit, true));
    EXPECT_EQ("", output.Take());
}

TEST_F(PZEventTest, TheEngineAnswersMinus1ToAWaitForNothing) {
    StdoutCapture output;
    EXPECT_EQ(-1, PZEvent::timedMultiWait(2, nullptr, false, kNoLimit));
    EXPECT_EQ(-1, PZEvent::timedMultiWait(2, nullptr, true, kNoLimit));
    EXPECT_EQ(-1, PZEvent::timedMultiWait(0, both, false, kNoLimit));
    EXPECT_EQ(-1, PZEvent::timedMultiWait(0, both, true, kNoLimit));
    EXPECT_EQ("", output.Take());
}

TEST_F(PZEventTest, TheEngineAnswersLikeAMultipleWait) {
    EXPECT_EQ(kTimedOut, PZEvent::timedMultiWait(2, both, false, 0));
    b.Set(1);
    EXPECT_EQ(1, PZEvent::timedMultiWait(2, both, false, kNoLimit));
    a.Set(1);
    b.Set(1);
    EXPECT_EQ(0, PZEvent::timedMultiWait(2, both, true, kNoLimit));
    epoll_create1_call.FailNext(ENOMEM);
    StdoutCapture output;
    EXPECT_EQ(kError, PZEvent::timedMultiWait(2, both, true, kNoLimit));
}

TEST_F(PZEventTest, WaitsForAnyOf64Events) {
    FullHouse house;
    house.open[kMaxEvents - 1].Set(1);
    EXPECT_EQ(static_cast<int>(kMaxEvents) - 1,
              PZEvent::WaitMultipleEvent(kMaxEvents, house.list.data(), kNoLimit, false));
}

TEST_F(PZEventTest, WaitsForAllOf64Events) {
    FullHouse house;
    for (OpenEvent& open : house.open) open.Set(1);
    EXPECT_EQ(0, PZEvent::WaitMultipleEvent(kMaxEvents, house.list.data(), kNoLimit, true));
    for (const OpenEvent& open : house.open) EXPECT_EQ(0, open.Pending());
}

TEST_F(PZEventTest, RefusesMoreThan64Events) {
    StdoutCapture output;
    std::vector<PZEvent*> list(kMaxEvents + 1, &a.event);
    a.Set(1);
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(kMaxEvents + 1, list.data(), kNoLimit, false));
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(kMaxEvents + 1, list.data(), kNoLimit, true));
    const std::string text = output.Take();
    EXPECT_TRUE(has_report(text, "timedMultiWait", "PZEvent.cpp", "handle error"));
    EXPECT_EQ(2U, error_messages(text).size());
    EXPECT_EQ(1, a.Pending());
}

TEST_F(PZEventTest, RefusesTheLargestCountWithoutReadingTheList) {
    StdoutCapture output;
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(0xFFFFFFFF, both, 0, false));
    EXPECT_EQ(kError, PZEvent::timedMultiWait(~0UL, both, true, 0));
    EXPECT_EQ((std::vector<std::string>{"handle error", "handle error"}),
              error_messages(output.Take()));
}

TEST_F(PZEventTest, RefusesAListWithANullEntry) {
    StdoutCapture output;
    PZEvent* list[2] = {&a.event, nullptr};
    a.Set(1);
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(2, list, 0, false));
    EXPECT_EQ(1, a.Pending());
    EXPECT_EQ(std::vector<std::string>{"handle error"}, error_messages(output.Take()));
}

TEST_F(PZEventTest, RefusesAListWithAnEventWithoutAPipe) {
    StdoutCapture output;
    pipe_call.FailNext(EMFILE);
    PZEvent broken;
    output.Take();
    PZEvent* list[2] = {&a.event, &broken};
    a.Set(1);
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(2, list, kNoLimit, false));
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(2, list, kNoLimit, true));
    EXPECT_EQ(1, a.Pending());
    const std::string text = output.Take();
    EXPECT_TRUE(has_report(text, "timedMultiWait", "PZEvent.cpp", "handle error"));
    EXPECT_EQ(2U, error_messages(text).size());
}

TEST_F(PZEventTest, RefusesAListThatNamesAnEventTwice) {
    StdoutCapture output;
    const int before = open_descriptors();
    PZEvent* list[2] = {&a.event, &a.event};
    a.Set(2);
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(2, list, kNoLimit, true));
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(2, list, kNoLimit, false));
    EXPECT_EQ(2, a.Pending());
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ((std::vector<std::string>{std_error(EEXIST), std_error(EEXIST)}),
              error_messages(output.Take()));
}

// The system calls underneath

TEST_F(PZEventTest, MakesOneEpollDescriptorPerWaitAndClosesIt) {
    const int before = open_descriptors();
    a.Set(1);
    b.Set(1);
    close_call.Reset();
    EXPECT_EQ(0, PZEvent::WaitMultipleEvent(2, both, 0, true));
    EXPECT_EQ(1, epoll_create1_call.Calls());
    EXPECT_EQ(1, close_call.Calls());
    b.Set(1);
    EXPECT_EQ(1, PZEvent::WaitMultipleEvent(2, both, 0, false));
    EXPECT_EQ(kTimedOut, PZEvent::WaitMultipleEvent(2, both, 0, false));
    EXPECT_EQ(before, open_descriptors());
}

TEST_F(PZEventTest, KeepsTheDescriptorOfAWaitFromStartedPrograms) {
    epoll_wait_call.Replace(remember_epoll_flags);
    EXPECT_EQ(kTimedOut, a.event.WaitEvent(0));
    EXPECT_EQ(FD_CLOEXEC, last_epoll_flags);
}

TEST_F(PZEventTest, WatchesTheReadEndsForInput) {
    epoll_ctl_call.Replace(remember_ctl);
    EXPECT_EQ(kTimedOut, PZEvent::WaitMultipleEvent(2, both, 0, false));
    ASSERT_EQ(2U, ctls_seen.size());
    const int fds[2] = {a.readFd, b.readFd};
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(EPOLL_CTL_ADD, ctls_seen[i].operation);
        EXPECT_EQ(fds[i], ctls_seen[i].fd);
        EXPECT_EQ(static_cast<unsigned int>(EPOLLIN), ctls_seen[i].interest);
        EXPECT_EQ(fds[i], ctls_seen[i].data);
    }
}

TEST_F(PZEventTest, DoesNotAllocateMemory) {
    a.Set(1);
    b.Set(1);
    const long before = allocations;
    a.event.SetEvent();
    a.event.WaitEvent(0);
    const int all = PZEvent::WaitMultipleEvent(2, both, 0, true);
    const int any = PZEvent::WaitMultipleEvent(2, both, 0, false);
    a.event.SetEvent();
    a.event.ResetEvent();
    EXPECT_EQ(before, allocations);
    EXPECT_EQ(0, all);
    EXPECT_EQ(kTimedOut, any);
}

TEST_F(PZEventTest, ReportsAFailingEpollCreate) {
    StdoutCapture output;
    a.Set(1);
    epoll_create1_call.FailNext(EMFILE, 3);
    EXPECT_EQ(kError, a.event.WaitEvent(kNoLimit));
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(2, both, kNoLimit, false));
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(2, both, kNoLimit, true));
    const std::string text = output.Take();
    EXPECT_TRUE(has_report(text, "timedMultiWait", "PZEvent.cpp", std_error(EMFILE)));
    EXPECT_EQ(3U, error_messages(text).size());
    EXPECT_EQ(1, a.Pending());
}

TEST_F(PZEventTest, ReportsAFailingEpollCtl) {
    StdoutCapture output;
    const int before = open_descriptors();
    a.Set(1);
    epoll_ctl_call.FailNext(ENOSPC, 1, 1);
    EXPECT_EQ(kError, PZEvent::WaitMultipleEvent(2, both, kNoLimit, false));
    expect_only_report(output.Take(), "timedMultiWait", ENOSPC);
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ(0, epoll_wait_call.Calls());
    EXPECT_EQ(1, a.Pending());
}

TEST_F(PZEventTest, WaitsAgainWhenASignalInterruptsEpoll) {
    StdoutCapture output;
    a.Set(1);
    epoll_wait_call.FailNext(EINTR, 3);
    EXPECT_EQ(0, a.event.WaitEvent(kNoLimit));
    EXPECT_EQ(4, epoll_wait_call.Calls());
    EXPECT_EQ("", output.Take());
}

TEST_F(PZEventTest, StaysInItsWaitThroughAProcessSignal) {
    struct sigaction action = {};
    action.sa_handler = count_usr1;  // without SA_RESTART
    sigaction(SIGUSR1, &action, nullptr);
    int result = 99;
    std::thread waiter([&] { result = a.event.WaitEvent(kNoLimit); });
    EXPECT_TRUE(wait_until([] { return epoll_wait_call.Calls() >= 1; }));
    EXPECT_TRUE(wait_until([&] {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        return epoll_wait_call.Calls() >= 2;
    }));
    EXPECT_EQ(99, result);
    a.Set(1);
    waiter.join();
    EXPECT_EQ(0, result);
    EXPECT_GE(usr1_signals, 1);
}

TEST_F(PZEventTest, ReportsAFailingEpollWait) {
    StdoutCapture output;
    const int before = open_descriptors();
    a.Set(1);
    epoll_wait_call.FailNext(EBADF);
    EXPECT_EQ(kError, a.event.WaitEvent(kNoLimit));
    expect_only_report(output.Take(), "timedMultiWait", EBADF);
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ(1, a.Pending());
}

TEST_F(PZEventTest, ReportsAFailingRead) {
    ExpectReportOfRead([] { read_call.FailNext(EIO); }, EIO);
}

TEST_F(PZEventTest, EndsALimitedWaitOnTimeThatSignalsInterruptAgainAndAgain) {
    const Interruptions interruptions;
    // On a busy machine a whole wait may go by without one.
    EXPECT_TRUE(wait_until([this] {
        const auto start = steady_clock::now();
        EXPECT_EQ(kTimedOut, a.event.WaitEvent(100));
        const auto waited = steady_clock::now() - start;
        EXPECT_GE(waited, milliseconds(100));
        EXPECT_LT(waited, milliseconds(5000));
        return Interruptions::Taken() >= 1;
    }));
}

TEST_F(PZEventTest, GivesEveryRoundTheFullTimeOutAlsoAfterAnInterruption) {
    late_event = &a.event;
    epoll_wait_call.Replace(set_late_event_after_a_while);
    const Interruptions interruptions;
    const auto start = steady_clock::now();
    EXPECT_EQ(kTimedOut, PZEvent::WaitMultipleEvent(2, both, 100, true));
    // Had the second round gone on with the first one's time, 100 would have been enough.
    EXPECT_GE(steady_clock::now() - start, milliseconds(160));
    EXPECT_EQ(nullptr, late_event);
}

// Cancellation

std::atomic<int> waits_begun{0};

int count_and_wait(int epollFd, epoll_event* ready, int room, int timeoutMs) {
    ++waits_begun;
    return epoll_wait_call.Real(epollFd, ready, room, timeoutMs);
}

void* wait_without_limit(void* event) {
    const pztest::CancelledStack stack;
    static_cast<PZEvent*>(event)->WaitEvent(kNoLimit);
    return nullptr;
}

TEST_F(PZEventTest, ACancelledThreadLeavesAWaitAndNoDescriptor) {
    epoll_wait_call.Replace(count_and_wait);
    const int before = open_descriptors();
    for (int round = 0; round < 20; ++round) {
        waits_begun = 0;
        pthread_t thread = {};
        ASSERT_EQ(0, pthread_create(&thread, nullptr, wait_without_limit, &a.event));
        ASSERT_TRUE(wait_until([] { return waits_begun == 1; }));
        ASSERT_EQ(0, pthread_cancel(thread));
        void* result = nullptr;
        ASSERT_EQ(0, pthread_join(thread, &result));
        EXPECT_EQ(PTHREAD_CANCELED, result);
    }
    EXPECT_EQ(before, open_descriptors());
}

void* poll_until_cancelled(void* event) {
    const pztest::CancelledStack stack;
    for (;;) static_cast<PZEvent*>(event)->WaitEvent(0);
}

TEST_F(PZEventTest, AThreadMayBeCancelledBetweenAnyTwoStepsOfAWait) {
    const int before = open_descriptors();
    for (int round = 0; round < 200; ++round) {
        pthread_t thread = {};
        ASSERT_EQ(0, pthread_create(&thread, nullptr, poll_until_cancelled, &a.event));
        std::this_thread::sleep_for(std::chrono::microseconds(7 * (round % 29)));
        ASSERT_EQ(0, pthread_cancel(thread));
        ASSERT_EQ(0, pthread_join(thread, nullptr));
    }
    EXPECT_EQ(before, open_descriptors());
}

TEST_F(PZEventTest, IsDestroyedWholeOnAThreadThatIsBeingCancelled) {
    const int before = open_descriptors();
    auto* const event = new PZEvent;
    EXPECT_TRUE(pztest::ends_whole_when_cancelled([event] { delete event; }));
    EXPECT_EQ(before, open_descriptors());
}

TEST_F(PZEventTest, TakesAnInterruptedReadForAFailure) {
    StdoutCapture output;
    a.Set(1);
    read_call.FailNext(EINTR);
    EXPECT_EQ(kError, a.event.WaitEvent(kNoLimit));
    EXPECT_EQ(std::vector<std::string>{std_error(EINTR)}, error_messages(output.Take()));
    EXPECT_EQ(1, a.Pending());
}

TEST_F(PZEventTest, ReportsAReadThatEndsWithoutAByte) {
    ExpectReportOfRead([] { read_call.Replace(read_nothing); }, ENODATA);
}

// Several threads

TEST_F(PZEventTest, WakesOneWaiterWithEachSignal) {
    std::atomic<int> woken{0};
    const auto wait = [&] {
        if (a.event.WaitEvent(kNoLimit) == 0) ++woken;
    };
    std::thread first(wait);
    std::thread second(wait);
    EXPECT_TRUE(wait_until([] { return epoll_wait_call.Calls() == 2; }));
    a.Set(1);
    EXPECT_TRUE(wait_until([&] { return woken == 1; }));
    EXPECT_EQ(1, woken);
    a.Set(1);
    first.join();
    second.join();
    EXPECT_EQ(2, woken);
    EXPECT_EQ(0, a.Pending());
}

TEST_F(PZEventTest, KeepsAWaiterWhoseSignalWasTakenByAnotherUntilTheNextSignal) {
    epoll_wait_call.Replace(let_two_waiters_see_the_signal);
    std::atomic<int> signalled{0};
    const auto poll = [&] {
        if (a.event.WaitEvent(0) == 0) ++signalled;
    };
    a.Set(1);
    std::thread first(poll);
    std::thread second(poll);
    // Both have seen the one signal and read; the slower one now waits whatever its time-out.
    EXPECT_TRUE(wait_until([&] { return read_call.Calls() == 2 && signalled == 1; }));
    a.Set(1);
    first.join();
    second.join();
    EXPECT_EQ(2, signalled);
    EXPECT_EQ(0, a.Pending());
}

TEST_F(PZEventTest, LosesNoneOfTheSignalsOfFourThreads) {
    constexpr int kSetters = 4;
    constexpr int kConsumers = 2;
    constexpr int kSignalsEach = 10000;  // all of them fit into the pipe
    std::atomic<int> accepted{0};
    std::atomic<int> taken{0};
    std::atomic<bool> over{false};

    std::vector<std::thread> threads;
    threads.reserve(kConsumers + kSetters);
    for (int i = 0; i < kConsumers; ++i) {
        threads.emplace_back([&] {
            while (a.event.WaitEvent(kNoLimit) == 0 && !over) ++taken;
        });
    }
    for (int i = 0; i < kSetters; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < kSignalsEach; ++n) accepted += a.event.SetEvent();
        });
    }
    EXPECT_TRUE(wait_until([&] { return taken == kSetters * kSignalsEach; }));
    over = true;
    a.Set(kConsumers);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(kSetters * kSignalsEach, accepted);
    EXPECT_EQ(kSetters * kSignalsEach, taken);
    EXPECT_EQ(0, a.Pending());
}
