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

/** Holds the mutex for as long as this object lives; a thread that is cancelled lets it go. */
class IAP2_SCOPED_CAPABILITY ScopedPosixLock
{
public:
    explicit ScopedPosixLock(PosixMutex& mutex) IAP2_ACQUIRE(mutex) : mMutex(mutex)
    {
        pthread_mutex_lock(&mMutex.posix);
    }
    ~ScopedPosixLock() IAP2_RELEASE()
    {
        pthread_mutex_unlock(&mMutex.posix);
    }
    ScopedPosixLock(const ScopedPosixLock&) = delete;
    ScopedPosixLock& operator=(const ScopedPosixLock&) = delete;

private:
    PosixMutex& mMutex;
};

} // namespace korvane::internal

#endif
