#ifndef TOOLS_DOCTOR_CHECK_H
#define TOOLS_DOCTOR_CHECK_H

#include <optional>
#include <string>
#include <vector>

#include "Machine.h"

enum class Status {
    Green,   ///< as the library needs it
    Yellow,  ///< works, with a restriction that may matter
    Red,     ///< something of the library will fail
    Skipped  ///< could not be looked at here
};

/// "green", "yellow", "red", "skipped".
const char* status_name(Status status);

/// What a check has seen.
struct Finding {
    Status status;
    std::string found;        ///< one line
    std::string repair;       ///< the shell command that mends it; "" for green and skipped
    bool byThisUser = false;  ///< it needs no rights that the user lacks; false where unknown
};

Finding green(std::string found);
Finding yellow(std::string found, std::string repair);
Finding red(std::string found, std::string repair);
Finding skipped(std::string found);

/// The same, repaired without root's rights.
Finding by_this_user(Finding finding);

/// The same, repaired without root's rights if `can` is true.
Finding by_this_user_if(bool can, Finding finding);

/// Whether the user the program runs as owns what is there, as its information says.
bool is_own(const std::optional<struct stat>& info);

/// For what cannot be read from /proc: skipped when there is no /proc, which is a finding of its
/// own, otherwise red with `repair`.
Finding unreadable(const Machine& machine, const std::string& path, std::string repair);

/// `text` without characters that a terminal would obey: they become '?'.
std::string printable(const std::string& text);

/// `text` as one word of a shell command, in characters that a terminal only prints.
std::string shell_word(const std::string& text);

/// "mv /temp /temp.old && ", to be followed by what makes `path` again.
std::string move_away(const std::string& path);

/// "a, b, c and 4 more".
std::string first_of(const std::vector<std::string>& names);

/// One question about the machine. Looks only; changes nothing.
struct Check {
    const char* name;
    Finding (*run)(const Machine& machine);
    const char* why;  ///< what the library needs it for, one line
};

/// A check with what it has seen.
struct Result {
    const char* name;
    const char* why;
    Finding finding;
};

#endif  // TOOLS_DOCTOR_CHECK_H
