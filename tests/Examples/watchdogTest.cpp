#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/TempDir.h"

// The service, under a systemd of the test's own: it gets what the service tells, and kills the
// service and starts it again when it was not fed in time.

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kWatchdog(3000);

class FakeSystemd {
public:
    FakeSystemd() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, Path().c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(0, bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    }
    ~FakeSystemd() { close(socket_); }

    void StartService() {
        service_ = std::make_unique<pztest::ChildProcess>([this] {
            setenv("NOTIFY_SOCKET", Path().c_str(), 1);
            setenv("WATCHDOG_USEC", std::to_string(kWatchdog.count() * 1000).c_str(), 1);
            setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
            const int log = open(Log().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
            dup2(log, STDOUT_FILENO);
            execl(PZ_WATCHDOG, PZ_WATCHDOG, static_cast<char*>(nullptr));
            return 127;
        });
        lastFed_ = Clock::now();
    }

    /// Receives until it is told something that begins like this; false when that does not come.
    bool WaitFor(const std::string& beginning) {
        for (;;) {
            const std::string told = Receive(std::chrono::seconds(60));
            if (told.empty()) return false;
            if (told.compare(0, beginning.size(), beginning) == 0) return true;
        }
    }

    /// What systemd does with its service, for a time: whether it had to restart it.
    bool RestartsWithin(milliseconds time) {
        const auto end = Clock::now() + time;
        lastFed_ = Clock::now();
        while (Clock::now() < end) {
            const std::string told = Receive(milliseconds(10));
            if (told == "WATCHDOG=1") lastFed_ = Clock::now();
            if (Clock::now() - lastFed_ <= kWatchdog) continue;
            kill(service_->Pid(), SIGABRT);
            service_->Wait();
            StartService();
            return true;
        }
        return false;
    }

    void Signal(int signal) { kill(service_->Pid(), signal); }
    int WaitForEnd() { return service_->Wait(); }
    std::string Printed() const { return pztest::read_file(Log()); }
    const std::vector<std::string>& Told() const { return told_; }

private:
    std::string Path() const { return dir_.File("notify"); }
    std::string Log() const { return dir_.File("log"); }

    /// "" when nothing comes in time.
    std::string Receive(milliseconds limit) {
        pollfd ready = {socket_, POLLIN, 0};
        if (poll(&ready, 1, static_cast<int>(limit.count())) != 1) return "";
        char text[512];
        const ssize_t length = recv(socket_, text, sizeof text, 0);
        told_.emplace_back(text, static_cast<size_t>(std::max<ssize_t>(length, 0)));
        return told_.back();
    }

    const pztest::TempDir dir_;
    const int socket_;
    std::unique_ptr<pztest::ChildProcess> service_;
    Clock::time_point lastFed_;
    std::vector<std::string> told_;
};

bool has_told_of_hanging(const FakeSystemd& systemd) {
    return std::any_of(systemd.Told().begin(), systemd.Told().end(), [](const std::string& told) {
        return told.find(" hangs for ") != std::string::npos;
    });
}

}  // namespace

TEST(watchdogTest, TheServiceIsRestartedBecauseAWorkerHangsAndNotBecauseAnotherIsBusy) {
    FakeSystemd systemd;
    systemd.StartService();
    ASSERT_TRUE(systemd.WaitFor("READY=1"));
    // Both workers are busy all the time. Had it not been fed, it would be restarted by now.
    EXPECT_FALSE(systemd.RestartsWithin(kWatchdog + kWatchdog / 4));
    EXPECT_FALSE(has_told_of_hanging(systemd));

    systemd.Signal(SIGUSR1);
    ASSERT_TRUE(systemd.WaitFor("STATUS=camera hangs for "));
    EXPECT_TRUE(systemd.RestartsWithin(std::chrono::seconds(60)));
    const std::string printed = systemd.Printed();
    EXPECT_NE(std::string::npos, printed.find(" ms in message 2\n")) << printed;
    EXPECT_NE(std::string::npos, printed.find("WaitEvent")) << printed;  // where it waits
    EXPECT_EQ(std::string::npos, printed.find("index hangs")) << printed;

    ASSERT_TRUE(systemd.WaitFor("READY=1"));
    ASSERT_TRUE(systemd.WaitFor("WATCHDOG=1"));
    systemd.Signal(SIGTERM);
    EXPECT_TRUE(systemd.WaitFor("STOPPING=1"));
    EXPECT_EQ(0, systemd.WaitForEnd());
}
