#ifndef PZ_BENCHMARKS_SUPPORT_RAWSUBJECT_H
#define PZ_BENCHMARKS_SUPPORT_RAWSUBJECT_H

#include <list>

#include <Framework/Foundation/PZSync.h>
#include <Framework/Pattern/PZSubject.h>

namespace pzbench {

/// A list of observers, walked under a lock: what a subject is at least.
///
/// It stands in a shared library of its own, as the subject does: a virtual call from a library
/// into the program costs the processor more than one inside the program, which the compiler even
/// turns into a direct one.
class RawSubject {
public:
    void Add(PZObserver_* observer) { observers_.push_back(observer); }

    /// The largest result of all observers.
    unsigned int Notify(unsigned int id, void* data, unsigned int size);

private:
    std::list<PZObserver_*> observers_;
    PZSync sync_;
};

}  // namespace pzbench

#endif  // PZ_BENCHMARKS_SUPPORT_RAWSUBJECT_H
