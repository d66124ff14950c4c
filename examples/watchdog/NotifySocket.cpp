#include "NotifySocket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

NotifySocket::NotifySocket() : fd_(-1) {
    const char* const name = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (name == nullptr || std::strlen(name) >= sizeof address.sun_path) return;
    const size_t length = std::strlen(name);
    std::memcpy(address.sun_path, name, length);
    if (name[0] == '@') address.sun_path[0] = '\0';  // no file: a name of the kernel's own

    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    if (fd_ == -1 || connect(fd_, reinterpret_cast<const sockaddr*>(&address), size) == 0) return;
    close(fd_);
    fd_ = -1;
}

NotifySocket::~NotifySocket() {
    if (fd_ != -1) close(fd_);
}

void NotifySocket::Send(const std::string& state) const {
    // What gets lost makes systemd restart the service, which is what it is for.
    if (fd_ != -1) send(fd_, state.data(), state.size(), MSG_NOSIGNAL);
}

unsigned int NotifySocket::WatchdogMs() {
    const char* const pid = std::getenv("WATCHDOG_PID");
    const char* const microseconds = std::getenv("WATCHDOG_USEC");
    if (microseconds == nullptr) return 0;
    if (pid != nullptr && std::strtol(pid, nullptr, 10) != getpid())
        return 0;  // meant for another process
    return static_cast<unsigned int>(std::strtoull(microseconds, nullptr, 10) / 1000);
}
