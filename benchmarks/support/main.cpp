#include "support/RatioReporter.h"

// Of the programs that have none of their own.
int main(int argc, char** argv) {
    return pzbench::run(argc, argv);
}
