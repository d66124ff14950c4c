#include "Settings.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <Framework/Foundation/PZFileSys.h>
#include <Framework/Foundation/PZStorage.h>

namespace {

struct Entry {
    const char* name;
    unsigned int Settings::*value;
};

constexpr Entry kEntries[] = {
    {"tuner.run", &Settings::tunerRun},         {"tuner.on", &Settings::tunerIsOn},
    {"tuner.station", &Settings::tunerStation}, {"display.run", &Settings::displayRun},
    {"display.tuner", &Settings::displayTuner},
};

void take_line(Settings& settings, const char* line) {
    const char* const sign = std::strchr(line, '=');
    if (sign == nullptr) return;
    const std::string name(line, sign);
    for (const Entry& entry : kEntries) {
        if (name == entry.name)
            settings.*entry.value = static_cast<unsigned int>(std::strtoul(sign + 1, nullptr, 10));
    }
}

std::string text_of(const Settings& settings) {
    std::string text;
    for (const Entry& entry : kEntries)
        text += std::string(entry.name) + "=" + std::to_string(settings.*entry.value) + "\n";
    return text;
}

}  // namespace

bool operator==(const Settings& a, const Settings& b) {
    for (const Entry& entry : kEntries) {
        if (a.*entry.value != b.*entry.value) return false;
    }
    return true;
}

Settings load_settings(const std::string& path) {
    constexpr int kMaxLine = 64;
    Settings settings;
    if (!PZFileSys::IsExist(path.c_str())) return settings;  // nothing to report: the first start
    PZStorage file(path.c_str(), "rb");
    char line[kMaxLine];
    while (file.ReadLine(line, sizeof line) == 0) take_line(settings, line);
    return settings;
}

bool store_settings(const Settings& settings, const std::string& path, const std::string& draft) {
    const std::string text = text_of(settings);
    const auto size = static_cast<long long>(text.size());
    PZStorage file(draft.c_str(), "wb");
    // The medium has the draft before the draft takes the place of the settings.
    if (file.Write(text.data(), size) != size || file.Flush() != 0) return false;
    file.Close();
    return std::rename(draft.c_str(), path.c_str()) == 0;
}
