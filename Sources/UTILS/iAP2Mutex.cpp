#include <korvane/iAP2Mutex.h>

#include <cerrno>
#include <cstdlib>

#include <pthread.h>

#include "internal/report.h"

/** The POSIX mutex, out of sight of the header. */
class iAP2Mutex::iAP2MutexImpl
{
public:
    iAP2MutexImpl()
    {
        if (pthread_mutex_init(&mMutex, nullptr) != 0)
        {
            KORVANE_REPORT_CALL("iAP2MutexImpl", "pthread_mutex_init");
            std::abort();
        }
    }

    virtual ~iAP2MutexImpl()
    {
        if (pthread_mutex_destroy(&mMutex) != 0)
        {
            KORVANE_REPORT_CALL("~iAP2MutexImpl", "pthread_mutex_destroy");
        }
    }

    iAP2MutexImpl(const iAP2MutexImpl&) = delete;
    iAP2MutexImpl& operator=(const iAP2MutexImpl&) = delete;

    pthread_mutex_t* mutex()
    {
        return &mMutex;
    }

private:
    pthread_mutex_t mMutex;
};

iAP2Mutex::iAP2Mutex() : m_pimpl(new iAP2MutexImpl)
{
}

iAP2Mutex::~iAP2Mutex()
{
    delete m_pimpl;
}

// The analysis sees a class that is a lock by annotation, but none inside it.

void iAP2Mutex::iAP2Lock() IAP2_NO_THREAD_SAFETY_ANALYSIS
{
    if (m_pimpl == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "%s: m_pimpl is NULL", "iAP2Lock");
        return;
    }
    if (pthread_mutex_lock(m_pimpl->mutex()) != 0)
    {
        KORVANE_REPORT_CALL("iAP2Lock", "pthread_mutex_lock");
    }
}

bool iAP2Mutex::trylock() IAP2_NO_THREAD_SAFETY_ANALYSIS
{
    if (m_pimpl == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "%s: m_pimpl is NULL", "trylock");
        return false;
    }
    return pthread_mutex_trylock(m_pimpl->mutex()) == 0;
}

void iAP2Mutex::unlock() IAP2_NO_THREAD_SAFETY_ANALYSIS
{
    if (m_pimpl == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "%s: m_pimpl is NULL", "unlock");
        return;
    }
    if (pthread_mutex_unlock(m_pimpl->mutex()) != 0)
    {
        KORVANE_REPORT_CALL("unlock", "pthread_mutex_unlock");
    }
}
