// Waits for Ctrl-C or SIGTERM, and ends in order.
#include <Framework/Easy.h>

#include <cstdio>

int main() {
    pz::wait_for_stop();
    std::printf("ended in order\n");
}
