#ifndef TWOPROCESS_SETTINGS_H
#define TWOPROCESS_SETTINGS_H

#include <string>

/// The settings that both programs share. Each program writes its own half only.
///
/// Runs are counted from 1: a number that belongs to one start of a program tells it from the
/// starts before, however they ended.
struct Settings {
    unsigned int tunerRun = 0;
    unsigned int tunerIsOn = 0;     ///< 0: the tuner has ended, and its guard is gone
    unsigned int tunerStation = 0;  ///< frequency, in steps of 10 kHz
    unsigned int displayRun = 0;
    unsigned int displayTuner = 0;  ///< run of the tuner that the display listens to; 0: none
};

bool operator==(const Settings& a, const Settings& b);

/// Reads the file: one "name=number" a line. What the file does not tell, or no file tells, is 0.
Settings load_settings(const std::string& path);

/// Replaces the file in one step: it is written as `draft` first, which then takes its place.
/// A process that reads the file, or finds it after a crash, has the old settings or the new ones.
bool store_settings(const Settings& settings, const std::string& path, const std::string& draft);

#endif  // TWOPROCESS_SETTINGS_H
