#ifndef WATCHDOG_NOTIFYSOCKET_H
#define WATCHDOG_NOTIFYSOCKET_H

#include <string>

/// Tells systemd how the service is: what sd_notify(3) does, without its library. Does nothing in a
/// process that systemd did not start.
///
/// Threads: any thread may send.
class NotifySocket {
public:
    NotifySocket();
    ~NotifySocket();

    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    /// "READY=1", "WATCHDOG=1", "STATUS=..." and the like. Never waits.
    void Send(const std::string& state) const;

    /// Within how many milliseconds systemd wants to be told "WATCHDOG=1"; 0: not at all.
    static unsigned int WatchdogMs();

private:
    int fd_;  // -1: nobody is to be told
};

#endif  // WATCHDOG_NOTIFYSOCKET_H
