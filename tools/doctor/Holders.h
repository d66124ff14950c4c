#ifndef TOOLS_DOCTOR_HOLDERS_H
#define TOOLS_DOCTOR_HOLDERS_H

#include <set>
#include <string>

#include "Machine.h"

/// What the living processes of a machine hold, as far as this user may look.
struct Holders {
    std::set<std::string> open;    ///< open files; a queue "/radio" is "/radio" here
    std::set<std::string> mapped;  ///< files mapped into memory
    unsigned int hidden = 0;       ///< processes that may not be looked into
};

Holders find_holders(const Machine& machine);

#endif  // TOOLS_DOCTOR_HOLDERS_H
