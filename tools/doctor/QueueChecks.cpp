#include <algorithm>
#include <string>

#include "Checks.h"
#include "ProcSelf.h"
#include "QueueFolder.h"

namespace {

constexpr char kMessages[] = "/proc/sys/fs/mqueue/msg_max";
constexpr char kMessageSize[] = "/proc/sys/fs/mqueue/msgsize_max";
constexpr char kQueues[] = "/proc/sys/fs/mqueue/queues_max";
constexpr char kNoQueues[] = "zgrep POSIX_MQUEUE /proc/config.gz  # the kernel needs it";

constexpr long long kMessagesOfQueue = 64;
constexpr long long kBytesOfMessage = 1024;
constexpr long long kWantedMessages = 256;
constexpr long long kFewQueues = 16;

// What the kernel counts for one message in addition to its bytes: a record and a node of its tree,
// each of 48 bytes on a 64-bit kernel (24 on a 32-bit one).
constexpr long long kOverheadOfMessage = 48 + 48;
constexpr unsigned long long kBytesOfQueue =
    kMessagesOfQueue * (kBytesOfMessage + kOverheadOfMessage);
static_assert(kBytesOfQueue == 71680, "as a 64-bit kernel counts a queue of 64 x 1024 bytes");

constexpr unsigned long long kRaisedLimit = 18350080;

}  // namespace

Finding check_messages(const Machine& machine) {
    const auto most = machine.Number(kMessages);
    if (!most) return unreadable(machine, kMessages, kNoQueues);
    const std::string found = "fs.mqueue.msg_max is " + std::to_string(*most);
    const std::string repair = "sysctl -w fs.mqueue.msg_max=256";
    if (*most < kMessagesOfQueue) return red(found, repair);
    if (*most < kWantedMessages) return yellow(found, repair);
    return green(found);
}

Finding check_message_size(const Machine& machine) {
    const auto most = machine.Number(kMessageSize);
    if (!most) return unreadable(machine, kMessageSize, kNoQueues);
    const std::string found = "fs.mqueue.msgsize_max is " + std::to_string(*most);
    if (*most < kBytesOfMessage) return red(found, "sysctl -w fs.mqueue.msgsize_max=8192");
    return green(found);
}

Finding check_queue_count(const Machine& machine) {
    const auto most = machine.Number(kQueues);
    if (!most) return unreadable(machine, kQueues, kNoQueues);
    const auto queues = list_queues(machine);
    const long long used = queues ? static_cast<long long>(queues->size()) : 0;
    const std::string found = "fs.mqueue.queues_max is " + std::to_string(*most) + ", " +
                              (queues ? std::to_string(used) : "an unknown number") + " in use";
    const std::string repair = "sysctl -w fs.mqueue.queues_max=256";
    const long long room = *most - used;
    if (room <= 0) return red(found, repair);
    if (room < kFewQueues) return yellow(found, repair);
    return green(found);
}

Finding check_queue_bytes(const Machine& machine) {
    const auto limit = soft_limit(machine, "Max msgqueue size");
    if (!limit) return unreadable(machine, kLimitsPath, kNoQueues);
    if (*limit == kUnlimited) return green("no limit of queue bytes");
    const std::string found = std::to_string(*limit) + " bytes, room for " +
                              std::to_string(*limit / kBytesOfQueue) + " queues of one user";
    if (*limit < kBytesOfQueue) {
        const auto most = hard_limit(machine, "Max msgqueue size");
        return by_this_user_if(most && *most >= kRaisedLimit,
                               red(found,
                                   "ulimit -S -q 18350080 || ulimit -q 18350080  # in a unit: "
                                   "LimitMSGQUEUE=18350080"));
    }
    return green(found);
}

Finding check_queue_folder(const Machine& machine) {
    if (list_queues(machine)) return green("/dev/mqueue shows the queues");
    return yellow("/dev/mqueue does not show the queues",
                  "mkdir -p /dev/mqueue && mount -t mqueue none /dev/mqueue");
}
