#ifndef PZ_TESTS_SUPPORT_WAITSFORWRITER_H
#define PZ_TESTS_SUPPORT_WAITSFORWRITER_H

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "support/WaitUntil.h"

namespace pztest {

/// Whether `body`, which reads the fifo on a thread of its own, waits until there is a writer. That
/// comes then, writes `text`, and goes; `body` has returned afterwards.
inline bool waits_for_writer(const std::string& fifo, const std::string& text,
                             const std::function<void()>& body) {
    std::atomic<bool> hasReturned{false};
    std::thread reader([&] {
        body();
        hasReturned = true;
    });
    // A writer that does not wait is refused until a reader has come.
    int writer = -1;
    bool isTooSoon = false;
    wait_until([&] {
        isTooSoon = hasReturned;
        writer = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        return writer != -1 || isTooSoon;
    });
    bool isWritten = text.empty();
    if (writer != -1) {
        if (!isWritten) isWritten = ::write(writer, text.data(), text.size()) != -1;
        ::close(writer);
    }
    reader.join();
    return writer != -1 && isWritten && !isTooSoon;
}

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_WAITSFORWRITER_H
