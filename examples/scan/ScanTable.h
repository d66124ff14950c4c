#ifndef SCAN_SCANTABLE_H
#define SCAN_SCANTABLE_H

#include "Catalogue.h"

/// Prints what was found: one row for each file, then a line for everything that was passed over,
/// then the numbers.
void print_table(const Catalogue& catalogue);

#endif  // SCAN_SCANTABLE_H
