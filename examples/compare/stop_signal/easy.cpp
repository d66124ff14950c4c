// Waits for Ctrl-C or SIGTERM, and ends in order.
#include <cstdio>

#include <Framework/Easy.h>

int main() {
    pz::wait_for_stop();
    std::printf("ended in order\n");
}
