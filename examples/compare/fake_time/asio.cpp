// Tests a unit that polls every 100 ms over an hour, without waiting.
#include <cstdio>

#include <boost/asio.hpp>

using namespace std::chrono_literals;

struct ManualClock {
    using duration = std::chrono::milliseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<ManualClock>;
    static constexpr bool is_steady = true;
    static time_point now() { return current; }
    static inline time_point current;
};

struct NoWait {
    static ManualClock::duration to_wait_duration(ManualClock::duration) { return {}; }
    static ManualClock::duration to_wait_duration(ManualClock::time_point) { return {}; }
};

template <typename Clock, typename Traits = boost::asio::wait_traits<Clock>>
class Scanner {
public:
    explicit Scanner(boost::asio::io_context& io) : poll_(io, 100ms) { wait(); }
    int polls() const { return polls_; }

private:
    void wait() {
        poll_.async_wait([this](const boost::system::error_code& error) {
            if (error) return;
            ++polls_;
            poll_.expires_at(poll_.expiry() + 100ms);
            wait();
        });
    }

    int polls_ = 0;
    boost::asio::basic_waitable_timer<Clock, Traits> poll_;
};

int main() {
    boost::asio::io_context io;
    Scanner<ManualClock, NoWait> scanner(io);
    for (int poll = 0; poll < 36000; ++poll) {
        ManualClock::current += 100ms;
        while (io.poll() == 0) {
        }
    }
    std::printf("%d polls in an hour\n", scanner.polls());
}
