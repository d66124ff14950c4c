#ifndef WATCHDOG_JOBUNIT_H
#define WATCHDOG_JOBUNIT_H

#include <atomic>

#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZUnitFrame.h>
#include <Framework/Foundation/PZWorker.h>

/// A unit with a worker of its own, which does one short job after the other: always busy.
class JobUnit : private PZUnitFrame, private PZIDispatcher {
public:
    /// A job that takes longer than `watchMs` hangs.
    explicit JobUnit(unsigned int watchMs) : worker_(1, watchMs, ++made_) {}
    ~JobUnit() override;

    JobUnit(const JobUnit&) = delete;
    JobUnit& operator=(const JobUnit&) = delete;

    bool Start(const char* name);

    /// The next job waits for an answer that never comes.
    void Hang();

private:
    enum EN_MSG : unsigned int { en_MSG_JOB = 1, en_MSG_HANG = 2 };

    void OnReceiveMsg(unsigned int msgId, const void*, unsigned int) override;
    void OnReceiveEvent(unsigned int) override {}

    static unsigned int made_;
    PZWorker worker_;
    PZEvent answer_;
    std::atomic<bool> isEnding_{false};
};

#endif  // WATCHDOG_JOBUNIT_H
