/**
 * One object of the process that gives the stack's components mutexes, condition variables and a flag
 * in common. The library creates it; what each of them means is the components' affair.
 */
#ifndef KORVANE_SHAREDCONTEXT_H
#define KORVANE_SHAREDCONTEXT_H

#include <pthread.h>

#pragma GCC visibility push(default)

namespace IAP2
{

class SharedContext
{
public:
    /**
     * The one instance, created by the first call; never null. It lives until the process ends: the
     * library never deletes it. What its creation throws (std::bad_alloc) leaves the function, and
     * the next call tries again.
     *
     * Takes no lock. Hazard: the first call must have returned before a second thread makes its own,
     * for example while the stack starts; otherwise two instances may be created, one of which is
     * lost.
     */
    static SharedContext* getInstance();

    /**
     * The mutexes and condition variables have default attributes; whether they could be
     * initialised is not looked at. Traces "SharedContext()" at level 20.
     */
    SharedContext();

    /**
     * Destroys them, and does not look at the results. Traces "~SharedContext()" at level 20.
     *
     * Hazard: whoever deletes the instance leaves mInstance, and so getInstance(), with its address.
     */
    ~SharedContext();

    SharedContext(const SharedContext&) = delete;
    SharedContext& operator=(const SharedContext&) = delete;

    pthread_cond_t mCond1;
    pthread_mutex_t mMutex1;
    bool mFlag;
    pthread_cond_t mCond2;
    pthread_mutex_t mMutex2;

    /** Null until the first getInstance(). */
    static SharedContext* mInstance;
};

} // namespace IAP2

#pragma GCC visibility pop

#endif
