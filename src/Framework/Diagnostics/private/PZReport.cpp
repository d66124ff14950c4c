#include "Framework/Diagnostics/PZReport.h"

#include <Framework/Diagnostics/PZCallStack.h>

void pz_report_assertion(const char* file, int line) {
    PZDbgOutput::DbgPrint("#########\n#########\nASSERT Failed! - %s(%d)\n#########\n#########\n",
                          file, line);
    PZCallStack::dumpDirectly(-1);
}
