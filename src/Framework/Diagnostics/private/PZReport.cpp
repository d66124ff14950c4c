#include "Framework/Diagnostics/PZReport.h"

#include <Framework/Diagnostics/PZCallStack.h>

namespace {

constexpr unsigned int kKinds = 3;
thread_local const char* named_objects[kKinds];

}  // namespace

PZReportObject::PZReportObject(EN_KIND kind, const char* name) noexcept
    : kind_(kind), before_(named_objects[kind]) {
    named_objects[kind] = name;
}

PZReportObject::~PZReportObject() {
    named_objects[kind_] = before_;
}

const char* PZReportObject::Current(EN_KIND kind) noexcept {
    const char* const name = named_objects[kind];
    return name != nullptr ? name : "";
}

void pz_report_last_error_on(PZReportObject::EN_KIND kind, const char* name, const char* file,
                             const char* func, int line) {
    const PZReportObject object(kind, name);
    PZDbgOutput::DbgPrintStdErr(file, func, line);
}

void pz_report_assertion(const char* file, int line) {
    PZDbgOutput::DbgPrint("#########\n#########\nASSERT Failed! - %s(%d)\n#########\n#########\n",
                          file, line);
    PZCallStack::dumpDirectly(-1);
}
