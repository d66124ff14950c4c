// A log of four files of at most 1 KiB each.
#include <Framework/Easy.h>

int main() {
    pz::RotatingLog log("log", "app", 1024, 3);
    for (int khz = 87500; khz <= 108000; khz += 100) log.line("tuned to %d kHz", khz);
}
