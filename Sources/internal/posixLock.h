/**
 * POSIX mutexes as clang's thread safety analysis knows them.
 */
#ifndef KORVANE_INTERNAL_POSIXLOCK_H
#define KORVANE_INTERNAL_POSIXLOCK_H

#include <pthread.h>

#include <korvane/iAP2Mutex.h>

namespace korvane::internal
{

/** Initialised and destroyed by its owner. */
struct IAP2_CAPABILITY("mutex") PosixMutex
{
    pthread_mutex_t posix;
};

/**
 * Holds a mutex for as long as this object lives; a thread that is cancelled lets it go.
 *
 * `Mutex` is PosixMutex, or a public class's own equal of it.
 */
template <typename Mutex> class IAP2_SCOPED_CAPABILITY ScopedLock
{
public:
    explicit ScopedLock(Mutex& mutex) IAP2_ACQUIRE(mutex) : mMutex(mutex)
    {
        pthread_mutex_lock(&mMutex.posix);
    }
    ~ScopedLock() IAP2_RELEASE()
    {
        pthread_mutex_unlock(&mMutex.posix);
    }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    Mutex& mMutex;
};

using ScopedPosixLock = ScopedLock<PosixMutex>;

} // namespace korvane::internal

#endif
