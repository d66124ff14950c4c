// Settings that several threads and processes change, whole or not at all.
#include <cstdio>
#include <cstdlib>

#include <Framework/Easy/GuardedFile.h>

int main() {
    pz::GuardedFile settings(".", "easy_settings");
    const auto louder = [](std::string& bytes) {
        const long volume = std::strtol(bytes.c_str(), nullptr, 10);
        if (volume >= 2) return false;  // loud enough: the file stays as it is
        bytes = std::to_string(volume + 1);
        return true;
    };
    while (settings.update(louder)) std::printf("volume %s\n", settings.read()->c_str());
    std::remove("easy_settings");
    std::remove(".easy_settings.lock");
}
