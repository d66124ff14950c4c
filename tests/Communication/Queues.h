#ifndef PZ_TESTS_COMMUNICATION_QUEUES_H
#define PZ_TESTS_COMMUNICATION_QUEUES_H

#include <Framework/Communication/PZMessageQueue.h>

// Short names for the tests of queues.

using Core = PZMsgQ::PZMessageQueue<2>;
using Sender = PZMsgQ::PZMessageQueue<0>;
using Receiver = PZMsgQ::PZMessageQueue<1>;

constexpr char kQuit[] = "\002";           // what a queue sends to end its receiver
constexpr unsigned int kMostUrgent = 255;  // of the system

#endif  // PZ_TESTS_COMMUNICATION_QUEUES_H
