#ifndef EXAMPLES_PROGRESSLINE_H
#define EXAMPLES_PROGRESSLINE_H

#include <functional>
#include <string>

#include <Framework/Utility/PZLTimerMng.h>

/// Draws a progress line on the terminal ten times a second, from construction to the end of the
/// scope.
class ProgressLine : private PZLTimerBase {
public:
    /// `text` is called on a timer thread for what the line is to say, and never after the
    /// destructor.
    explicit ProgressLine(std::function<std::string()> text);
    ~ProgressLine() override;

    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

private:
    static constexpr unsigned int kIntervalMs = 100;

    /// Runs on a timer thread.
    int OnTimer(PZLTimerSubMng::_TimerInfo* info) override;

    std::function<std::string()> text_;
    PZLTimerMng::TimerSubInfo* handle_;  // null: not running
};

#endif  // EXAMPLES_PROGRESSLINE_H
