// Waits for one of two signals from other threads, for a second at most.
#include <cstdio>
#include <deque>
#include <optional>
#include <thread>

#include <boost/asio.hpp>

using namespace std::chrono_literals;

class Signals {
public:
    void set(int index) {
        boost::asio::post(io_, [this, index] { waiting_.push_back(index); });
    }
    std::optional<int> wait(std::chrono::milliseconds within) {
        const auto end = std::chrono::steady_clock::now() + within;
        io_.restart();
        while (waiting_.empty() && io_.run_one_until(end) == 1) {
        }
        if (waiting_.empty()) return std::nullopt;
        const int first = waiting_.front();
        waiting_.pop_front();
        return first;
    }

private:
    boost::asio::io_context io_;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_{
        io_.get_executor()};
    std::deque<int> waiting_;  // touched by the thread that waits
};

int main() {
    Signals signals;
    std::thread other([&] { signals.set(1); });
    const auto first = signals.wait(1s);
    if (first) std::printf("number %d\n", *first);
    const auto second = signals.wait(10ms);
    std::printf("%s\n", second ? "one more" : "none");
    other.join();
}
