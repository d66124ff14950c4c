#ifndef TOOLS_TOP_JSON_H
#define TOOLS_TOP_JSON_H

#include <string>
#include <vector>

#include "View.h"

// One reading as one line of JSON. What is unknown is null. Other fields may come; those that are
// there stay as they are while "version" is 1.

std::string json_of(const ProcessView& view);
std::string json_of(const std::vector<ProcessRow>& rows, std::size_t notAllowed);

#endif  // TOOLS_TOP_JSON_H
