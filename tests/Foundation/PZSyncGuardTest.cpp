#include "Framework/Foundation/PZSyncGuard.h"

#include <pthread.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Calls = std::vector<std::string>;

/// Writes down what happens to it.
class Recorder : public PZSyncObjectBase {
public:
    explicit Recorder(Calls& calls) : calls_(calls) {}
    ~Recorder() override { calls_.emplace_back("destroyed"); }

    void lock() const override { calls_.emplace_back("lock"); }
    void unlock() const override { calls_.emplace_back("unlock"); }

private:
    Calls& calls_;
};

class RecordingGuard : public PZSyncGuard {
public:
    RecordingGuard(const PZSyncObjectBase& obj, Calls& calls) : PZSyncGuard(obj), calls_(calls) {}
    ~RecordingGuard() override { calls_.emplace_back("guard destroyed"); }

private:
    Calls& calls_;
};

TEST(PZSyncGuardTest, LocksFromConstructionToTheEndOfTheScope) {
    Calls calls;
    const Recorder object(calls);
    {
        const PZSyncGuard guard(object);
        EXPECT_EQ((Calls{"lock"}), calls);
    }
    EXPECT_EQ((Calls{"lock", "unlock"}), calls);
}

TEST(PZSyncGuardTest, UnlocksWhenAnExceptionEndsTheScope) {
    Calls calls;
    const Recorder object(calls);
    try {
        const PZSyncGuard guard(object);
        throw std::runtime_error("out");
    } catch (const std::runtime_error&) {
        EXPECT_EQ((Calls{"lock", "unlock"}), calls);
    }
    EXPECT_EQ(2U, calls.size());
}

TEST(PZSyncGuardTest, MayBeNestedOverOneObject) {
    Calls calls;
    const Recorder object(calls);
    {
        const PZSyncGuard outer(object);
        const PZSyncGuard inner(object);
    }
    EXPECT_EQ((Calls{"lock", "lock", "unlock", "unlock"}), calls);
}

TEST(PZSyncGuardTest, IsDestroyedThroughItsBase) {
    Calls calls;
    const Recorder object(calls);
    { const std::unique_ptr<PZSyncGuard> guard = std::make_unique<RecordingGuard>(object, calls); }
    EXPECT_EQ((Calls{"lock", "guard destroyed", "unlock"}), calls);
}

TEST(PZSyncGuardTest, HoldsOneReferenceAndCannotBeCopied) {
    EXPECT_EQ(2 * sizeof(void*), sizeof(PZSyncGuard));
    EXPECT_TRUE(std::has_virtual_destructor_v<PZSyncGuard>);
    EXPECT_FALSE(std::is_copy_constructible_v<PZSyncGuard>);
    EXPECT_FALSE(std::is_copy_assignable_v<PZSyncGuard>);
}

TEST(PZSyncObjectBaseTest, IsAnInterfaceWithoutData) {
    EXPECT_TRUE(std::is_abstract_v<PZSyncObjectBase>);
    EXPECT_TRUE(std::has_virtual_destructor_v<PZSyncObjectBase>);
    EXPECT_EQ(sizeof(void*), sizeof(PZSyncObjectBase));
}

TEST(PZSyncObjectBaseTest, DestroysADerivedObject) {
    Calls calls;
    {
        const std::unique_ptr<PZSyncObjectBase> object = std::make_unique<Recorder>(calls);
        object->lock();
        object->unlock();
    }
    EXPECT_EQ((Calls{"lock", "unlock", "destroyed"}), calls);
}

// Modules that were built apart call through the slots: two destructors, lock, unlock.
TEST(PZSyncObjectBaseTest, KeepsLockAndUnlockInItsThirdAndFourthSlot) {
    using Operation = void (*)(const PZSyncObjectBase*);
    Calls calls;
    const Recorder object(calls);
    const PZSyncObjectBase* const base = &object;
    const Operation* slots = nullptr;
    std::memcpy(&slots, static_cast<const void*>(base), sizeof slots);
    slots[2](base);
    EXPECT_EQ((Calls{"lock"}), calls);
    slots[3](base);
    EXPECT_EQ((Calls{"lock", "unlock"}), calls);
}

/// Gives back where a cancellation waits.
class CancelledUnlock : public PZSyncObjectBase {
public:
    void lock() const override {}
    void unlock() const override {
        pthread_cancel(pthread_self());
        pthread_testcancel();
    }
};

void* guard_scope(void* object) {
    { const PZSyncGuard guard(*static_cast<CancelledUnlock*>(object)); }
    return nullptr;
}

TEST(PZSyncGuardCancelTest, AThreadMayBeCancelledWhileItGivesTheLockBack) {
    CancelledUnlock object;
    pthread_t thread = {};
    ASSERT_EQ(0, pthread_create(&thread, nullptr, guard_scope, &object));
    void* result = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
}

}  // namespace
