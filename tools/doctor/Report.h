#ifndef TOOLS_DOCTOR_REPORT_H
#define TOOLS_DOCTOR_REPORT_H

#include <string>
#include <vector>

#include "Check.h"

/// What a run says: of which machine, and with what results.
struct Report {
    std::string version;  ///< of the program
    std::string root;     ///< folder of the file tree; "" for the machine itself
    std::vector<Result> results;
    bool asksRoot = false;  ///< for repairs that need root's rights, because the reader is not root
};

/// How many results have the status.
unsigned int count(const Report& report, Status status);

/// The number of reds, at most 125.
int exit_status(const Report& report);

/// A line for each result; below those that are yellow or red why it matters and the repair.
/// With `colours` the status is written in its colour.
std::string table_text(const Report& report, bool colours);

/// One JSON object with every result in full.
std::string json_text(const Report& report);

#endif  // TOOLS_DOCTOR_REPORT_H
