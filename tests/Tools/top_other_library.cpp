// A library of the framework's name, with a table of another version: of that only the beginning,
// which stays in every version, can be known.

#include "top_other_library.h"

ST_OTHER_INSPECTION pz_inspection = {
    {'P', 'Z', 'I', 'N', 'S', 'P', 'E', 'C'}, kOtherInspectionVersion, {}};
