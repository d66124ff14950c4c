// Reports as the application wants them: in another style, and as records in its own hands.
#include <cerrno>
#include <cstdio>

#include <Framework/Diagnostics/PZDbgOutput.h>
#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/pz_framework.h>

namespace {

// Called on the thread that reports, by several at a time. False: not printed, not logged.
bool keep_errors(const PZDbgOutput::ST_RECORD& record, void* user) {
    if (!record.isTagged || record.tag != PZDbgOutput::en_TAG_ERROR) return true;
    ++*static_cast<int*>(user);
    std::printf("to my log: %s: errno %d [%s] %s\n", record.function, record.error,
                record.objectPath, record.message);
    return false;
}

}  // namespace

int main() {
    // The same as PZ_REPORT=plain,nopad,repeats in the environment.
    PZDbgOutput::SetStyle(PZDbgOutput::en_STYLE_PLAIN | PZDbgOutput::en_STYLE_NOPAD |
                          PZDbgOutput::en_STYLE_REPEATS);
    if (pz_FwInitialize("radio", 1) == 0) return 1;

    for (int i = 0; i < 100; ++i) {
        PZDbgOutput::DbgPrint("Tuner.cpp", "poll", 12, PZDbgOutput::en_TAG_WARNING, "no signal\n");
    }
    PZDbgOutput::DbgPrint("Tuner.cpp", "poll", 13, PZDbgOutput::en_TAG_INFO, "signal\n");

    int errors = 0;
    PZDbgOutput::SetSink(keep_errors, &errors);
    {
        const PZReportObject object(PZReportObject::en_PATH, "/data/presets");
        errno = ENOENT;
        PZ_REPORT_LAST_ERROR();  // its text names no file, the record does
    }
    PZDbgOutput::DbgPrint("Tuner.cpp", "poll", 14, PZDbgOutput::en_TAG_INFO, "still printed\n");
    PZDbgOutput::SetSink(nullptr, nullptr);  // from here on `errors` is no longer touched
    std::printf("%d error\n", errors);
    pz_FwFinalize();
}
