#ifndef PZ_TESTS_WRAPPER_FAKE_ICU_H
#define PZ_TESTS_WRAPPER_FAKE_ICU_H

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

/// A candidate that the fake detector answers.
struct FakeMatch {
    const char* name;
    int confidence;
    int nameError = 0;  ///< what reading the name fails with
};

/// What the fake detector of a module answers, and what it was asked. Errors are ICU's: above 0 a
/// failure, below 0 a warning.
struct FakeIcu {
    int openError = 0;
    bool opensNull = false;
    int setTextError = 0;
    int detectError = 0;
    bool hasNoBest = false;
    int detectAllError = 0;
    bool hasNoList = false;
    std::vector<FakeMatch> matches;

    std::atomic<int> opened{0};
    std::atomic<int> closed{0};
    std::mutex mutex;            // guards what follows
    std::string text;            ///< given to the last detector
    std::vector<int> setStatus;  ///< the status that each call of a detector found
};

#endif  // PZ_TESTS_WRAPPER_FAKE_ICU_H
