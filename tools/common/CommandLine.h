#ifndef TOOLS_COMMON_COMMANDLINE_H
#define TOOLS_COMMON_COMMANDLINE_H

#include <functional>
#include <map>
#include <string>

/// What a program takes on its command line: switches, options with a value, and words. Each knows
/// --version and --help.
///
///     CommandLine line("pz-top", PZ_TOP_VERSION, kUsage);
///     line.AddSwitch("--once", once);
///     if (!line.Read(argc, argv, take_target)) return kExitUsage;
///     if (line.Answer()) return kExitDone;
class CommandLine {
public:
    /// Takes the value of an option, null when there is none, or a word; false after a message.
    using Taker = std::function<bool(const char* text)>;

    CommandLine(const char* program, const char* version, const char* usage);
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    /// `isOn` becomes true when the switch is given.
    void AddSwitch(const char* name, bool& isOn) { switches_[name] = &isOn; }

    void AddOption(const char* name, Taker take) { options_[name] = std::move(take); }

    /// Ends at the first mistake; false after a message.
    bool Read(int argc, char** argv, const Taker& takeWord) const;

    /// Prints the help or the version if the command line asks for it; false when it does not.
    bool Answer() const;

    /// Says what is wrong, and how to get help; false.
    bool Refuse(const char* problem, const char* what = "") const;

private:
    const char* const program_;
    const char* const version_;
    const char* const usage_;
    bool asksVersion_ = false;
    bool asksHelp_ = false;
    std::map<std::string, bool*> switches_;
    std::map<std::string, Taker> options_;
};

#endif  // TOOLS_COMMON_COMMANDLINE_H
