#ifndef PZ_FRAMEWORK_FOUNDATION_PZTHREADANNOTATIONS_H
#define PZ_FRAMEWORK_FOUNDATION_PZTHREADANNOTATIONS_H

/// @file
/// Attributes of Clang's thread-safety analysis (-Wthread-safety); empty for other compilers.

/// An attribute for Clang, nothing for others.
#if defined(__clang__)
#define PZ_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define PZ_THREAD_ATTRIBUTE(x)
#endif

/// A class that is a lock.
#define PZ_CAPABILITY(name) PZ_THREAD_ATTRIBUTE(capability(name))

/// A class whose objects hold a lock from construction to destruction.
#define PZ_SCOPED_CAPABILITY PZ_THREAD_ATTRIBUTE(scoped_lockable)

/// A field that may be touched only while the lock is held.
#define PZ_GUARDED_BY(lock) PZ_THREAD_ATTRIBUTE(guarded_by(lock))

/// A function that may be called only while the locks are held.
#define PZ_REQUIRES(...) PZ_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))

/// A function that takes the locks.
#define PZ_ACQUIRE(...) PZ_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))

/// A function that releases the locks.
#define PZ_RELEASE(...) PZ_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

/// A function that the analysis cannot follow; the reason stands beside it.
#define PZ_NO_THREAD_SAFETY_ANALYSIS PZ_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#endif  // PZ_FRAMEWORK_FOUNDATION_PZTHREADANNOTATIONS_H
