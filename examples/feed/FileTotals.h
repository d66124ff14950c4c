#ifndef FEED_FILETOTALS_H
#define FEED_FILETOTALS_H

#include <string>
#include <vector>

/// What the counter found in one file.
struct FileTotals {
    std::string path;
    unsigned long long bytes = 0;
    unsigned long long lines = 0;     ///< line feeds, as wc counts them
    unsigned long long words = 0;     ///< runs of bytes that are no white space
    unsigned int checksum = 0;        ///< 16 bits, as `sum` prints it
    unsigned long long messages = 0;  ///< messages that carried the bytes
    double milliseconds = 0;          ///< from the first message of the file to its last
    bool begun = false;
    bool complete = false;
};

/// The framework's own times, in milliseconds.
struct FrameworkTimes {
    double start = 0;
    double stop = 0;
};

/// Prints the table of all files that were begun, a row of totals below more than one, and the
/// framework's times.
void print_summary(const std::vector<FileTotals>& files, const FrameworkTimes& times);

#endif  // FEED_FILETOTALS_H
