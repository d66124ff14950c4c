#ifndef PZ_TESTS_SUPPORT_FAKESYSLOG_H
#define PZ_TESTS_SUPPORT_FAKESYSLOG_H

#include <unistd.h>

#include <set>
#include <string>

#include "support/Interposed.h"
#include "support/TempDir.h"
#include "support/Uncopyable.h"

// For executables that link pz_fake_syslog, which defines mkdir and sync, and pz_own_streams.

namespace pztest {

extern PZ_INTERPOSED(sync) sync_call;

/// While it lives, files below "/Syslog" are opened in a folder of the test's own, and nothing is
/// written through to the disks. One at a time.
class FakeSyslog : private Uncopyable {
public:
    FakeSyslog();
    ~FakeSyslog();

    /// From now on the folder is not there and cannot be made.
    static void Remove();

    const TempDir& Folder() const { return dir_; }

    std::set<std::string> Names() const;

    std::string Content(const std::string& name) const { return read_file(dir_.File(name)); }

private:
    const TempDir dir_;
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_FAKESYSLOG_H
