#include <korvane/iAP2Thread.h>

#include <atomic>
#include <cerrno>
#include <string>

#include <pthread.h>
#include <sched.h>

#include "internal/posixLock.h"
#include "internal/report.h"

using korvane::internal::PosixMutex;
using korvane::internal::ScopedPosixLock;

namespace
{

constexpr char kNoName[] = "iAP2.noname";

} // namespace

/** The state behind a thread object. */
class iAP2Thread::iAP2ThreadImpl
{
public:
    iAP2ThreadImpl()
    {
        pthread_mutex_init(&mStateMutex.posix, nullptr);
    }

    virtual ~iAP2ThreadImpl()
    {
        handle = 0;
        setStop(true);
        isJoinable = false;
        pthread_mutex_destroy(&mStateMutex.posix);
    }

    iAP2ThreadImpl(const iAP2ThreadImpl&) = delete;
    iAP2ThreadImpl& operator=(const iAP2ThreadImpl&) = delete;

    /** The entry of the POSIX thread; `arg` is the iAP2Thread. */
    static void* srun(void* arg);

    void setStop(bool stop)
    {
        const ScopedPosixLock lock(mStateMutex);
        mStop = stop;
    }

    bool stop()
    {
        const ScopedPosixLock lock(mStateMutex);
        return mStop;
    }

    const char* displayName() const
    {
        return name.empty() ? kNoName : name.c_str();
    }

    void forgetThread()
    {
        handle = 0;
        isRunning = false;
        isJoinable = false;
    }

    pthread_t handle = 0;
    std::atomic<bool> isRunning{false}; // the owner's; read by anybody
    std::string name;

private:
    bool mStop IAP2_GUARDED_BY(mStateMutex) = true;

public:
    bool isJoinable = false;

private:
    PosixMutex mStateMutex;
};

void* iAP2Thread::iAP2ThreadImpl::srun(void* arg)
{
    auto* const thread = static_cast<iAP2Thread*>(arg);
    thread->m_pimpl->setStop(false);
    thread->run();
    thread->m_pimpl->setStop(true);
    return nullptr;
}

// A failure of the thread `impl` belongs to; its text is that of errno, whatever it says.
#define KORVANE_REPORT_THREAD_CALL(impl, function, call)                                           \
    KORVANE_LOG(IAP2_LOG_ERROR, "%s:%s: " call " fail, %s", (impl)->displayName(), function,       \
                korvane::internal::ErrnoText(errno).text())

iAP2Thread::iAP2Thread(const char* name) : m_pimpl(new iAP2ThreadImpl)
{
    setName(name);
}

iAP2Thread::~iAP2Thread()
{
    if (getStopVal())
    {
        if (join() != Success)
        {
            KORVANE_LOG(IAP2_LOG_ERROR, "%s:%s:join() fail", m_pimpl->displayName(), "~iAP2Thread");
        }
    }
    else if (stop() != Success)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "%s:%s:stop() fail", m_pimpl->displayName(), "~iAP2Thread");
    }
    delete m_pimpl;
}

unsigned int iAP2Thread::start()
{
    if (m_pimpl->isRunning)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "%s:%s: reject, already running", m_pimpl->displayName(),
                    "start");
        return Success;
    }
    pthread_t thread = 0; // not the field, which a failure may leave undefined
    if (pthread_create(&thread, nullptr, &iAP2ThreadImpl::srun, this) != 0)
    {
        KORVANE_REPORT_THREAD_CALL(m_pimpl, "start", "pthread_create");
        return CreateFailed;
    }
    m_pimpl->handle = thread;
    setiAP2ThreadName(nullptr);
    m_pimpl->isRunning = true;
    m_pimpl->isJoinable = true;
    return Success;
}

unsigned int iAP2Thread::stop()
{
    m_pimpl->setStop(true);
    return m_pimpl->isRunning ? join() : NotRunning;
}

bool iAP2Thread::getStopVal()
{
    if (m_pimpl == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "m_pimpl is null");
        return false;
    }
    return m_pimpl->stop();
}

unsigned int iAP2Thread::join()
{
    if (!m_pimpl->isRunning)
    {
        return NotRunning;
    }
    if (!m_pimpl->isJoinable)
    {
        KORVANE_LOG(IAP2_LOG_WARNING, "%s: thread detached!!", "join");
        return Success;
    }
    if (pthread_join(m_pimpl->handle, nullptr) != 0)
    {
        KORVANE_REPORT_THREAD_CALL(m_pimpl, "join", "pthread_join");
        return JoinFailed;
    }
    m_pimpl->forgetThread();
    return Success;
}

unsigned int iAP2Thread::detach()
{
    if (!m_pimpl->isRunning)
    {
        return NotRunning;
    }
    if (pthread_detach(m_pimpl->handle) != 0)
    {
        KORVANE_REPORT_THREAD_CALL(m_pimpl, "detach", "pthread_detach");
        return DetachFailed;
    }
    m_pimpl->isJoinable = false;
    return Success;
}

unsigned int iAP2Thread::cancel()
{
    if (!m_pimpl->isRunning)
    {
        return NotRunning;
    }
    if (pthread_cancel(m_pimpl->handle) != 0)
    {
        KORVANE_REPORT_CALL("cancel", "pthread_cancel");
        return CancelFailed;
    }
    m_pimpl->forgetThread();
    return Success;
}

bool iAP2Thread::isRunning()
{
    return m_pimpl->isRunning;
}

void iAP2Thread::setName(const char* name)
{
    m_pimpl->name = name != nullptr ? name : kNoName;
}

void iAP2Thread::setiAP2ThreadName(const char* /*name*/)
{
    // Without a thread there is nothing to name, and the call would follow a null handle.
    if (m_pimpl->handle != 0 && pthread_setname_np(m_pimpl->handle, m_pimpl->displayName()) != 0)
    {
        KORVANE_REPORT_THREAD_CALL(m_pimpl, "setiAP2ThreadName", "pthread_setname_np");
    }
}

void iAP2Thread::setCurrentThreadPriority(int priority)
{
    int policy = 0;
    sched_param parameters{};
    if (pthread_getschedparam(pthread_self(), &policy, &parameters) != 0)
    {
        KORVANE_REPORT_THREAD_CALL(m_pimpl, "setCurrentThreadPriority", "pthread_getschedparam");
        return;
    }
    parameters.sched_priority = priority;
    if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters) != 0)
    {
        KORVANE_REPORT_THREAD_CALL(m_pimpl, "setCurrentThreadPriority", "pthread_setschedparam");
    }
}
