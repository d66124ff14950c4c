// Sends a value to another process, whichever of the two comes first.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include <Framework/Easy.h>

struct Station {
    unsigned int khz;
    char name[9];
};

int main() {
    if (fork() == 0) {
        const bool sent = pz::Sender<Station>("pz_compare").send({98500, "Wien"}) == pz::Sent::ok;
        _exit(sent ? 0 : 1);
    }
    pz::Framework fw("radio", 1);
    pz::Worker display("display");
    pz::Event shown;
    pz::Receiver<Station> in(display, "pz_compare", [&](const Station& station) {
        std::printf("%s on %u kHz\n", station.name, station.khz);
        shown.set();
    });
    shown.wait();
    wait(nullptr);
}
