#ifndef PZ_TESTS_SUPPORT_RECORDINGDISPATCHER_H
#define PZ_TESTS_SUPPORT_RECORDINGDISPATCHER_H

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <Framework/Foundation/PZIDispatcher.h>

#include "support/WaitUntil.h"

namespace pztest {

/// A dispatcher that notes what it receives ("msg 3", "evt 1") and then runs the test's reaction
/// to it, on the loop's thread. Reactions are set before anything is posted.
class RecordingDispatcher : public PZIDispatcher {
public:
    using Log = std::vector<std::string>;

    /// What the reaction to a message can look at.
    struct Message {
        const void* buff;
        unsigned int size;
    };

    void OnMessage(unsigned int msgId, std::function<void(const Message&)> reaction) {
        reactions_[msgId] = std::move(reaction);
    }
    void OnEvent(unsigned int bits, std::function<void()> reaction) {
        eventReactions_[bits] = std::move(reaction);
    }

    void OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int BuffSize) override {
        Note("msg " + std::to_string(MsgID));
        const auto reaction = reactions_.find(MsgID);
        if (reaction != reactions_.end()) reaction->second({Buff, BuffSize});
    }
    void OnReceiveEvent(unsigned int bits) override {
        Note("evt " + std::to_string(bits));
        const auto reaction = eventReactions_.find(bits);
        if (reaction != eventReactions_.end()) reaction->second();
    }

    /// What was received so far.
    Log Received() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return log_;
    }
    void Forget() {
        const std::lock_guard<std::mutex> lock(mutex_);
        log_.clear();
    }

    size_t Count() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return log_.size();
    }
    bool WaitForCount(size_t count) const {
        return wait_until([this, count] { return Count() >= count; });
    }

private:
    void Note(const std::string& what) {
        const std::lock_guard<std::mutex> lock(mutex_);
        log_.push_back(what);
    }

    mutable std::mutex mutex_;
    Log log_;
    std::map<unsigned int, std::function<void(const Message&)>> reactions_;
    std::map<unsigned int, std::function<void()>> eventReactions_;
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_RECORDINGDISPATCHER_H
