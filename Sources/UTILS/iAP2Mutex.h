/**
 * The library's lock.
 *
 * iAP2Mutex is a non-recursive POSIX mutex with default attributes, whose failures are trace lines
 * at level 90 and not results. Any thread may lock it; locking it twice from one thread deadlocks,
 * and unlocking one that another thread holds is undefined, as for the POSIX mutex.
 *
 * Error texts are those of errno as it stands at that moment, not of the code that the POSIX call
 * returned: they name whatever failed last.
 */
#ifndef KORVANE_IAP2MUTEX_H
#define KORVANE_IAP2MUTEX_H

/*
 * clang's thread safety analysis (-Wthread-safety): what a lock guards and who must hold it. Other
 * compilers see nothing.
 */
#if defined(__clang__)
#define IAP2_THREAD_ANNOTATION(annotation) __attribute__((annotation))
#else
#define IAP2_THREAD_ANNOTATION(annotation)
#endif
#define IAP2_CAPABILITY(name) IAP2_THREAD_ANNOTATION(capability(name))
#define IAP2_SCOPED_CAPABILITY IAP2_THREAD_ANNOTATION(scoped_lockable)
#define IAP2_GUARDED_BY(lock) IAP2_THREAD_ANNOTATION(guarded_by(lock))
#define IAP2_PT_GUARDED_BY(lock) IAP2_THREAD_ANNOTATION(pt_guarded_by(lock))
#define IAP2_REQUIRES(lock) IAP2_THREAD_ANNOTATION(requires_capability(lock))
#define IAP2_EXCLUDES(lock) IAP2_THREAD_ANNOTATION(locks_excluded(lock))
#define IAP2_ACQUIRE(...) IAP2_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define IAP2_TRY_ACQUIRE(...) IAP2_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define IAP2_RELEASE(...) IAP2_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define IAP2_NO_THREAD_SAFETY_ANALYSIS IAP2_THREAD_ANNOTATION(no_thread_safety_analysis)

#pragma GCC visibility push(default)

class IAP2_CAPABILITY("mutex") iAP2Mutex
{
public:
    /**
     * Creates an unlocked mutex. Where that fails, "iAP2MutexImpl: pthread_mutex_init fail, <text>"
     * is reported and the process is aborted: there is never a broken mutex.
     */
    iAP2Mutex();

    /** Destroys the mutex, which nobody may hold; a failure of that is reported only. */
    virtual ~iAP2Mutex();

    iAP2Mutex(const iAP2Mutex&) = delete;
    iAP2Mutex& operator=(const iAP2Mutex&) = delete;

    /**
     * Blocks until the calling thread holds the mutex. Not a cancellation point. A failure is
     * reported as "iAP2Lock: pthread_mutex_lock fail, <text>", and the mutex is then not held.
     */
    void iAP2Lock() IAP2_ACQUIRE();

    /** Takes the mutex if it is free; true when it is now held. Neither blocks nor reports. */
    bool trylock() IAP2_TRY_ACQUIRE(true);

    /** Releases the mutex; a failure is reported as "unlock: pthread_mutex_unlock fail, <text>". */
    void unlock() IAP2_RELEASE();

protected:
    class __attribute__((visibility("hidden"))) iAP2MutexImpl;

    /** Owned. Where it is null every operation reports "<operation>: m_pimpl is NULL" and ends. */
    iAP2MutexImpl* m_pimpl;
};

#pragma GCC visibility pop

#endif
