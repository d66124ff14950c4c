#include "Framework/Diagnostics/PZDbgOutput.h"
