// Singletons: made on first use, destroyed last made first when the framework stops.
#include <cstdio>

#include <Framework/Foundation/PZSingleton.h>
#include <Framework/Foundation/pz_framework.h>

namespace {

class Journal : public PZSingleton<Journal> {
public:
    ~Journal() override { std::printf("journal closed\n"); }
    void Add(const char* text) { std::printf("%u: %s\n", ++lines_, text); }

private:
    friend class PZSingleton<Journal>;
    Journal() { std::printf("journal opened\n"); }

    unsigned int lines_ = 0;
};

class Settings : public PZSingleton<Settings> {
public:
    ~Settings() override { Journal::GetInstance()->Add("settings end"); }
    int volume = 5;

private:
    friend class PZSingleton<Settings>;
    Settings() { Journal::GetInstance()->Add("settings begin"); }  // made before them
};

}  // namespace

int main() {
    if (pz_FwInitialize("singleton", 1) == 0) return 1;
    Settings::GetInstance()->volume = 7;
    std::printf("volume %d\n", Settings::GetInstance()->volume);
    pz_FwFinalize();
}
