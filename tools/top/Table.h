#ifndef TOOLS_TOP_TABLE_H
#define TOOLS_TOP_TABLE_H

#include <string>
#include <vector>

#include "View.h"

enum class Style { Plain, Heading, Alarm };

/// A line of a table, in one style.
struct Line {
    std::string text;
    Style style = Style::Plain;
};

/// The table of one process.
std::vector<Line> table_of(const ProcessView& view);

/// The list of processes; `notAllowed` is the number of those that could not be looked at.
std::vector<Line> table_of(const std::vector<ProcessRow>& rows, std::size_t notAllowed);

/// For a terminal, or with `colours` false for a file.
std::string text_of(const std::vector<Line>& lines, bool colours);

#endif  // TOOLS_TOP_TABLE_H
