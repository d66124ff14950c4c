// Values of one type from process to process.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include <Framework/Easy.h>

namespace {

struct Station {
    unsigned int kHz;
    char name[9];
};

constexpr char kChannel[] = "pz_easy_channel";

}  // namespace

int main() {
    const pid_t tuner = ::fork();
    if (tuner == 0) {  // before any thread is made
        pz::Sender<Station> out(kChannel);
        const bool isSent = out.send({98500, "Wien"}) == pz::Sent::ok;
        ::_exit(isSent ? 0 : 1);
    }
    const pz::Framework fw("easy_channel", 1);
    if (!fw) return 1;
    pz::Worker display("display");
    pz::Event shown;
    const pz::Receiver<Station> in(display, kChannel, [&shown](const Station& station) {
        std::printf("%s on %u kHz\n", station.name, station.kHz);
        shown.set();
    });
    shown.wait();
    ::waitpid(tuner, nullptr, 0);
}
