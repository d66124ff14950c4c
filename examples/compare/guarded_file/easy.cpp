// Changes a file in one step that other processes wait for; it is replaced whole or not at all.
#include <cstdio>

#include <Framework/Easy.h>

int main() {
    pz::GuardedFile settings(".", "settings");
    if (!settings.update([](std::string& bytes) { bytes += "volume=7\n"; })) return 1;
    std::printf("%s", settings.read()->c_str());
}
