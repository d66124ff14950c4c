#ifndef PZ_FRAMEWORK_FOUNDATION_PZWATCHDOG_H
#define PZ_FRAMEWORK_FOUNDATION_PZWATCHDOG_H

#include <Framework/Foundation/PZSingleton.h>
#include <Framework/PZApi.h>

class PZWatchDog;
extern template class PZ_API PZSingleton<PZWatchDog>;

/// The hooks of a watchdog over the framework's threads. No watchdog is connected yet: every
/// operation returns at once without effect. PZSupervisor watches threads.
///
/// The framework calls start and stop with its own start and stop, and IntoWait and OutWait
/// around the blocking waits of its threads.
///
/// Threads: any thread may call anything.
class PZ_API PZWatchDog : public PZSingleton<PZWatchDog> {
public:
    ~PZWatchDog() override;

    /// Does nothing: the instance dies with the other singletons.
    static void DelInstance();

    /// Called at the start and the stop of the framework. start is always true.
    /// @{
    bool start();
    void stop();
    /// @}

    /// Called around a blocking wait.
    /// @{
    void IntoWait();
    void OutWait();
    /// @}

    /// Thread hooks. Initialize answers 0.
    /// @{
    int Initialize();
    void MainProc();
    void Finalize();
    /// @}

    /// Does nothing.
    void checkOccupationTime();

private:
    friend class PZSingleton<PZWatchDog>;
    PZWatchDog();
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZWATCHDOG_H
