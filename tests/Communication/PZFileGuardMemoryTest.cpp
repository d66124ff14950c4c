#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Communication/PZFileGuard.h>

#include "support/GuardFiles.h"
#include "support/MemoryShortage.h"
#include "support/OwnSegments.h"
#include "support/StdoutCapture.h"

// A guard whose memory runs out. Its names are too long for a string's own room.

namespace {

using pztest::GuardFiles;
using pztest::MemoryShortage;

using Texts = std::vector<std::string>;

/// Runs the operation once for each of its allocations, which is refused then: it must answer
/// false, and true when all were granted. `make` makes the guard. Answers how many there were.
template <typename Make, typename Operation>
int refuse_each_allocation(Make make, Operation operation) {
    for (int skip = 0;; ++skip) {
        const std::unique_ptr<PZFileGuard> guard = make();
        bool result = true;
        int refused = 0;
        {
            const MemoryShortage shortage(skip);
            result = operation(*guard);
            refused = shortage.Refused();
        }
        EXPECT_EQ(refused == 0, result) << skip;
        if (refused == 0) return skip;
    }
}

class PZFileGuardMemoryTest : public testing::Test {
protected:
    std::unique_ptr<PZFileGuard> Make() const {
        return std::make_unique<PZFileGuard>(files_.Dir(), files_.Name());
    }

    /// An application side that found no memory to attach with.
    std::unique_ptr<PZFileGuard> MakeUnattached() const {
        auto guard = Make();
        const MemoryShortage shortage;
        guard->initForApp();
        return guard;
    }

    Texts Messages() { return pztest::error_messages(output_.Take()); }

    const GuardFiles files_{"a_name_that_does_not_fit_into_the_string_itself"};
    pztest::StdoutCapture output_;
};

TEST_F(PZFileGuardMemoryTest, KeepsItsSettingsWhenThereIsNoMemoryForOthers) {
    const std::string dir = files_.Dir() + "another_directory_of_some_length";
    const std::string name = files_.Name() + "_and_longer";
    const auto make = [this] { return Make(); };
    EXPECT_EQ(1, refuse_each_allocation(make, [&](PZFileGuard& g) { return g.setFileName(name); }));
    EXPECT_EQ(Texts{"error"}, Messages());
    const auto setPath = [&](PZFileGuard& g) { return g.setFilePath(dir, name); };
    const int allocations = refuse_each_allocation(make, setPath);
    EXPECT_LE(2, allocations);
    EXPECT_EQ(Texts(static_cast<size_t>(allocations), "error"), Messages());

    const auto guard = Make();
    for (int skip = 0; skip < allocations; ++skip) {
        const MemoryShortage shortage(skip);
        guard->setFilePath(dir, name);
    }
    EXPECT_TRUE(guard->initForSystem());
    EXPECT_EQ(0777U, pztest::permissions_of(files_.MutexFile()));
}

TEST_F(PZFileGuardMemoryTest, DoesNotAttachWithoutMemoryAndDoesSoLater) {
    const auto system = Make();
    ASSERT_TRUE(system->initForSystem());
    const auto make = [this] { return Make(); };
    EXPECT_LT(0, refuse_each_allocation(make, [](PZFileGuard& g) { return g.initForApp(); }));

    const auto unattached = [this] { return MakeUnattached(); };
    EXPECT_LT(0, refuse_each_allocation(unattached, [](PZFileGuard& g) { return g.canLock(); }));
    EXPECT_LT(0, refuse_each_allocation(unattached,
                                        [](PZFileGuard& g) { return g.lock() && g.unlock(); }));
    EXPECT_LT(0, refuse_each_allocation(unattached,
                                        [](PZFileGuard& g) { return g.tryLock() && g.unlock(); }));
    Messages();

    const auto later = MakeUnattached();
    Messages();
    EXPECT_TRUE(later->lock());
    EXPECT_TRUE(later->unlock());
    EXPECT_EQ(Texts{}, Messages());
}

TEST_F(PZFileGuardMemoryTest, BecomesASystemSideOnlyWithMemoryForItsKeyFiles) {
    int failures = 0;
    for (int skip = 0;; ++skip) {
        const auto guard = Make();
        bool result = true;
        int refused = 0;
        {
            const MemoryShortage shortage(skip);
            result = guard->initForSystem();
            refused = shortage.Refused();
        }
        EXPECT_EQ(result, guard->canLock()) << skip;
        if (refused == 0) {
            EXPECT_TRUE(result);
            break;
        }
        if (!result) {
            ++failures;
            EXPECT_EQ("error", Messages().back()) << skip;
        }
    }
    EXPECT_LE(2, failures) << "the names of both key files";
}

}  // namespace
