#include "Framework/Foundation/PZSingleton.h"

#include <dlfcn.h>
#include <semaphore.h>

#include <cstddef>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Foundation/PZTickCount.h>

#include "support/ChildProcess.h"
#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(sem_wait, 1);
PZ_INTERPOSE(sem_post, 1);

namespace {

using Texts = std::vector<std::string>;

/// What happened to the objects below, in order.
Texts events;

template <char kName>
class Named : public PZSingleton<Named<kName>> {
public:
    ~Named() override { events.push_back(std::string("-") + kName); }

private:
    friend class PZSingleton<Named<kName>>;
    Named() { events.push_back(std::string("+") + kName); }
};

using A = Named<'A'>;
using B = Named<'B'>;
using C = Named<'C'>;

void first() {
    events.emplace_back("first");
}
void second() {
    events.emplace_back("second");
}

class PZSingletonTest : public testing::Test {
protected:
    PZSingletonTest() {
        PZSingletonFinalizer::finalize();
        events.clear();
        sem_wait_call.Reset();
        sem_post_call.Reset();
    }
    ~PZSingletonTest() override { PZSingletonFinalizer::finalize(); }
};

// --- PZSingleton ---

TEST_F(PZSingletonTest, MakesItsObjectOnTheFirstUseAndOnlyThen) {
    EXPECT_EQ(Texts{}, events);
    A* const instance = A::GetInstance();
    ASSERT_NE(nullptr, instance);
    EXPECT_EQ(instance, A::GetInstance());
    EXPECT_EQ(Texts{"+A"}, events);
}

TEST_F(PZSingletonTest, LocksOnlyWhileItsObjectIsMissing) {
    A::GetInstance();
    EXPECT_EQ(1, sem_wait_call.Calls());
    EXPECT_EQ(1, sem_post_call.Calls());
    A::GetInstance();
    EXPECT_EQ(1, sem_wait_call.Calls());
    EXPECT_EQ(1, sem_post_call.Calls());
}

/// Is made only when another thread has come to the lock.
class Slow : public PZSingleton<Slow> {
public:
    static int made;

private:
    friend class PZSingleton<Slow>;
    Slow() {
        ++made;
        EXPECT_TRUE(pztest::wait_until([] { return sem_wait_call.Calls() == 2; }));
    }
};
int Slow::made = 0;

TEST_F(PZSingletonTest, MakesOneObjectForThreadsThatComeAtOnce) {
    Slow* elsewhere = nullptr;
    std::thread other([&elsewhere] { elsewhere = Slow::GetInstance(); });
    Slow* const here = Slow::GetInstance();
    other.join();
    EXPECT_NE(nullptr, here);
    EXPECT_EQ(here, elsewhere);
    EXPECT_EQ(1, Slow::made);
}

TEST_F(PZSingletonTest, GivesManyThreadsOneCompleteObject) {
    std::vector<A*> got(8, nullptr);
    std::vector<std::thread> threads;
    threads.reserve(got.size());
    for (A*& instance : got) {
        threads.emplace_back([&instance] { instance = A::GetInstance(); });
    }
    for (std::thread& thread : threads) thread.join();
    for (A* const instance : got) EXPECT_EQ(A::GetInstance(), instance);
    EXPECT_EQ(Texts{"+A"}, events);
}

TEST_F(PZSingletonTest, DestroysItsObjectOnce) {
    A::GetInstance();
    A::destroy();
    EXPECT_EQ((Texts{"+A", "-A"}), events);
    A::destroy();
    PZSingletonFinalizer::finalize();
    EXPECT_EQ((Texts{"+A", "-A"}), events);
}

TEST_F(PZSingletonTest, DestroysNothingBeforeTheFirstUse) {
    A::destroy();
    EXPECT_EQ(Texts{}, events);
}

/// Asks for itself while it dies.
class Dying : public PZSingleton<Dying> {
public:
    ~Dying() override { events.emplace_back(GetInstance() == this ? "itself" : "another"); }

private:
    friend class PZSingleton<Dying>;
    Dying() { events.emplace_back("made"); }
};

TEST_F(PZSingletonTest, IsStillTheOneObjectWhileItDies) {
    Dying::GetInstance();
    PZSingletonFinalizer::finalize();
    EXPECT_EQ((Texts{"made", "itself"}), events);
}

TEST_F(PZSingletonTest, MakesAndRegistersAFreshObjectAfterTheFinalizer) {
    for (int i = 0; i < 2; ++i) {
        events.clear();
        EXPECT_NE(nullptr, A::GetInstance());
        PZSingletonFinalizer::finalize();
        EXPECT_EQ((Texts{"+A", "-A"}), events);
    }
}

TEST_F(PZSingletonTest, DestroysSingletonsInTheReverseOrderOfTheirCreation) {
    A::GetInstance();
    B::GetInstance();
    C::GetInstance();
    A::GetInstance();
    PZSingletonFinalizer::finalize();
    EXPECT_EQ((Texts{"+A", "+B", "+C", "-C", "-B", "-A"}), events);
}

/// Refuses to be made as long as `refuse` holds, and counts its memory.
class Refusing : public PZSingleton<Refusing> {
public:
    static bool refuse;
    static int blocks;

    static void* operator new(size_t size) {
        ++blocks;
        return ::operator new(size);
    }
    static void operator delete(void* memory) {
        --blocks;
        ::operator delete(memory);
    }
    ~Refusing() override { events.emplace_back("-Refusing"); }

private:
    friend class PZSingleton<Refusing>;
    Refusing() {
        if (refuse) throw std::runtime_error("not now");
    }
};
bool Refusing::refuse = true;
int Refusing::blocks = 0;

TEST_F(PZSingletonTest, PassesTheConstructorsExceptionOnAndKeepsNothing) {
    Refusing::refuse = true;
    EXPECT_THROW(Refusing::GetInstance(), std::runtime_error);
    EXPECT_EQ(0, Refusing::blocks);
    EXPECT_EQ(1, sem_post_call.Calls());
    PZSingletonFinalizer::finalize();
    EXPECT_EQ(Texts{}, events);
}

TEST_F(PZSingletonTest, TriesAgainAfterAnExceptionAlsoFromAnotherThread) {
    Refusing::refuse = true;
    EXPECT_THROW(Refusing::GetInstance(), std::runtime_error);
    Refusing::refuse = false;
    Refusing* instance = nullptr;
    std::thread([&instance] { instance = Refusing::GetInstance(); }).join();
    EXPECT_NE(nullptr, instance);
    EXPECT_EQ(instance, Refusing::GetInstance());
    PZSingletonFinalizer::finalize();
    EXPECT_EQ(Texts{"-Refusing"}, events);
    EXPECT_EQ(0, Refusing::blocks);
}

TEST_F(PZSingletonTest, KeepsNothingWhenThereIsNoMemory) {
    int refusals = 0;
    for (int skip = 0;; ++skip) {
        PZSingletonFinalizer::finalize();
        events.clear();
        events.reserve(8);
        A* instance = nullptr;
        bool refused = false;
        {
            const pztest::MemoryShortage shortage(skip);
            try {
                instance = A::GetInstance();
            } catch (const std::bad_alloc&) {
                refused = true;
            }
            if (shortage.Refused() == 0) break;
        }
        ++refusals;
        ASSERT_TRUE(refused) << "refused allocation " << skip;
        ASSERT_EQ(nullptr, instance);
        // Whatever was made is gone, and the next one is made and destroyed as ever.
        const Texts made = events;
        ASSERT_TRUE(made == Texts{} || made == (Texts{"+A", "-A"})) << "allocation " << skip;
        events.clear();
        ASSERT_NE(nullptr, A::GetInstance());
        PZSingletonFinalizer::finalize();
        ASSERT_EQ((Texts{"+A", "-A"}), events) << "refused allocation " << skip;
    }
    EXPECT_EQ(3, refusals);  // the instance, the list, the entry in it
}

/// Uses another singleton while it is made.
class Outer : public PZSingleton<Outer> {
private:
    friend class PZSingleton<Outer>;
    Outer() { A::GetInstance(); }
    ~Outer() override { events.emplace_back("-Outer"); }
};

TEST_F(PZSingletonTest, OutlivesASingletonThatUsedItWhileBeingMade) {
    Outer::GetInstance();
    PZSingletonFinalizer::finalize();
    EXPECT_EQ((Texts{"+A", "-Outer", "-A"}), events);
}

TEST_F(PZSingletonTest, HasAVirtualDestructorAndNoData) {
    EXPECT_TRUE(std::has_virtual_destructor_v<PZSingleton<A>>);
    EXPECT_EQ(sizeof(void*), sizeof(A));
    EXPECT_TRUE((std::is_base_of_v<PZUncopyable, PZSingleton<A>>));
    EXPECT_FALSE(std::is_copy_constructible_v<A>);
    EXPECT_FALSE(std::is_copy_assignable_v<A>);
}

// --- The framework's own singletons ---

/// Taken before main: the library's locks were made when it was loaded.
PZTickCount* const early = PZTickCount::GetInstance();
const int earlyWaits = sem_wait_call.Calls();

TEST(PZSingletonOfTheFrameworkTest, CanBeUsedBeforeMain) {
    EXPECT_NE(nullptr, early);
    EXPECT_EQ(1, earlyWaits);
}

/// Singletons of the program's own, used by its static objects.
template <char kName>
class Own : public PZSingleton<Own<kName>> {
private:
    friend class PZSingleton<Own<kName>>;
    Own() = default;
};

struct EarlyUse {
    EarlyUse() {
        pztest::StdoutCapture capture;
        const int waitsBefore = sem_wait_call.Calls();
        instance = Own<'e'>::GetInstance();
        waits = sem_wait_call.Calls() - waitsBefore;
        output = capture.Take();
    }
    Own<'e'>* instance;
    int waits;
    std::string output;
};
const EarlyUse earlyUse;

TEST(PZSingletonOfTheProgramTest, IsMadeQuietlyUnderItsLockBeforeMain) {
    EXPECT_EQ("", earlyUse.output);
    EXPECT_EQ(1, earlyUse.waits);
    EXPECT_NE(nullptr, earlyUse.instance);
}

/// Uses a singleton for the first time when the process ends.
struct LateUse {
    ~LateUse() { Own<'l'>::GetInstance(); }
};
const LateUse lateUse;

TEST(PZSingletonOfTheProgramTest, IsMadeQuietlyWhileTheProcessEnds) {
    const pztest::ChildResult child = pztest::run_in_child([]() -> int { std::exit(3); });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(3, child.status);
    EXPECT_EQ("", child.output);
}

TEST(PZSingletonOfTheFrameworkTest, IsOneObjectForTheLibraryAndTheProgram) {
    // RTLD_NEXT: the library's own function, whatever this program has of that name.
    using Function = PZTickCount* (*)();
    const auto ofLibrary = reinterpret_cast<Function>(
        dlsym(RTLD_NEXT, "_ZN11PZSingletonI11PZTickCountE11GetInstanceEv"));
    ASSERT_NE(nullptr, ofLibrary);
    EXPECT_EQ(PZTickCount::GetInstance(), ofLibrary());
    PZTickCount::destroy();
    EXPECT_EQ(ofLibrary(), PZTickCount::GetInstance());
}

// --- PZSingletonFinalizer ---

TEST_F(PZSingletonTest, FinalizesNothingWhenNothingIsRegistered) {
    PZSingletonFinalizer::finalize();
    PZSingletonFinalizer::finalize();
    EXPECT_EQ(Texts{}, events);
}

TEST_F(PZSingletonTest, CallsTheLastRegisteredFunctionFirstAndOnlyOnce) {
    PZSingletonFinalizer::addDestroyFunc(first);
    PZSingletonFinalizer::addDestroyFunc(second);
    PZSingletonFinalizer::addDestroyFunc(first);
    PZSingletonFinalizer::finalize();
    EXPECT_EQ((Texts{"first", "second", "first"}), events);
    PZSingletonFinalizer::finalize();
    EXPECT_EQ(3U, events.size());
}

TEST_F(PZSingletonTest, RegistersAgainAfterTheFinalizer) {
    PZSingletonFinalizer::addDestroyFunc(first);
    PZSingletonFinalizer::finalize();
    PZSingletonFinalizer::addDestroyFunc(second);
    PZSingletonFinalizer::finalize();
    EXPECT_EQ((Texts{"first", "second"}), events);
}

void register_another() {
    events.emplace_back("registering");
    PZSingletonFinalizer::addDestroyFunc(second);
}

TEST_F(PZSingletonTest, ForgetsWhatIsRegisteredWhileItFinalizes) {
    PZSingletonFinalizer::addDestroyFunc(first);
    PZSingletonFinalizer::addDestroyFunc(register_another);
    PZSingletonFinalizer::finalize();
    EXPECT_EQ((Texts{"registering", "first"}), events);
    PZSingletonFinalizer::finalize();
    EXPECT_EQ(2U, events.size());
}

TEST(PZUncopyableTest, MakesItsDerivedClassesUncopyableAtNoCost) {
    struct Uncopied : private PZUncopyable {
        int value = 0;
    };
    EXPECT_FALSE(std::is_copy_constructible_v<Uncopied>);
    EXPECT_FALSE(std::is_copy_assignable_v<Uncopied>);
    EXPECT_TRUE(std::is_empty_v<PZUncopyable>);
    EXPECT_EQ(sizeof(int), sizeof(Uncopied));
}

}  // namespace
