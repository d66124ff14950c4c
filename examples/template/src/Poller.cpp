#include "Poller.h"

#include <cstdlib>
#include <sstream>
#include <utility>

Poller::Poller(pz::Worker& worker, std::chrono::milliseconds period,
               std::function<void(unsigned int)> polled)
    : polled_(std::move(polled)), timer_(worker.every(period, [this] { Poll(); })) {}

void Poller::Poll() {
    const unsigned int number = ++count_;
    if (polled_) polled_(number);
}

std::chrono::milliseconds period_of(const std::string& settings) {
    const std::string kName = "period_ms=";
    constexpr long kDefault = 1000;
    constexpr long kMost = 3600000;
    std::istringstream lines(settings);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, kName.size(), kName) != 0) continue;
        const char* const text = line.c_str() + kName.size();
        char* end = nullptr;
        const long value = std::strtol(text, &end, 10);
        const bool isNumber = end != text && *end == '\0';
        return std::chrono::milliseconds(isNumber && value >= 1 && value <= kMost ? value
                                                                                  : kDefault);
    }
    return std::chrono::milliseconds(kDefault);
}
