// Debug output: one line a call. Errors are red and go to the system log as well.
#include <cerrno>
#include <cstdio>

#include <Framework/Diagnostics/PZDbgOutput.h>
#include <Framework/Diagnostics/pz_last_error.h>
#include <Framework/Foundation/pz_framework.h>

int main() {
    if (pz_FwInitialize("radio", 1) == 0) return 1;  // the lines carry the name
    const char* const file = "src/Tuner.cpp";        // as a rule __FILE__, __func__, __LINE__

    PZDbgOutput::DbgPrint("%d stations\n", 3);
    PZDbgOutput::DbgPrint(file, "search", 12, "%d kHz\n", 98500);
    PZDbgOutput::DbgPrint(file, "search", 13, PZDbgOutput::en_TAG_INFO, "found\n");
    PZDbgOutput::DbgPrint(file, "search", 14, PZDbgOutput::en_TAG_ERROR, "lost again\n");

    // The last error of the C library, with its text.
    errno = ENOENT;
    PZDbgOutput::DbgPrintStdErr(file, "load", 20);
    std::printf("%d: %s\n", pz_get_last_err(), pz_get_last_err_string());
    pz_clear_last_err();
    std::printf("%d\n", pz_get_last_err());
    pz_FwFinalize();
}
