// A log of four files of at most 1 KiB each.
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

int main() {
    const auto log = spdlog::rotating_logger_mt("app", "log/app.log", 1024, 3);
    log->set_pattern("%v");
    for (int khz = 87500; khz <= 108000; khz += 100) log->info("tuned to {} kHz", khz);
}
