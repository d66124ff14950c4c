#ifndef PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZNAMEDPATH_H
#define PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZNAMEDPATH_H

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/PZApi.h>

class PZSync;

/// Names an object in the records of the calling thread's reports, as PZReportObject does, by a
/// text that is composed for it. Needs no memory of the heap, and keeps errno.
class PZ_LOCAL PZNamedPath {
public:
    /// A file, by its folder (with a '/' at its end) and its name.
    PZNamedPath(const char* folder, const char* file) noexcept;

    /// A lock, by its name; one without a name by its address. Null names nothing.
    explicit PZNamedPath(const PZSync* lock) noexcept;

private:
    char text_[512];  // what does not fit is cut
    const PZReportObject object_{PZReportObject::en_PATH, text_};
};

#endif  // PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZNAMEDPATH_H
