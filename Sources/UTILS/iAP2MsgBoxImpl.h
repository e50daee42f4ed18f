/**
 * A bounded mailbox between any number of senders and one receiver.
 *
 * It holds two lists. A sender of an asynchronous record goes on at once and the receiver blocks
 * until there is one; a sender of a synchronous record blocks until the receiver says that it has
 * finished. A full list refuses nothing and blocks nobody: it drops its oldest record.
 *
 * Threads: every operation may be called from any thread, receiving from one. All of them block for
 * the box's mutexes, and are cancellation points where they wait; a thread that is cancelled there
 * leaves no mutex behind. A mutex that cannot be had within 5 seconds is taken for a deadlock: the
 * process ends with exit(0).
 *
 * Failures of the POSIX calls are trace lines at level 90, "<operation>: <call> fail, <text>", with
 * the text of errno as it stands at that moment; the operation then goes on.
 */
#ifndef KORVANE_IAP2MSGBOXIMPL_H
#define KORVANE_IAP2MSGBOXIMPL_H

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <pthread.h>
#include <time.h>

#include <korvane/iAP2ListImpl.h>
#include <korvane/iAp2LogUtil.h>

#pragma GCC visibility push(default)

#define IAP2_MSGBOX_HIDDEN __attribute__((visibility("hidden")))
#define IAP2_MSGBOX_LOG(level, ...)                                                                \
    logPrint(level, "IAP2", "Sources/UTILS/iAP2MsgBoxImpl.h", __LINE__, __VA_ARGS__)
#define IAP2_MSGBOX_REPORT(operation, call)                                                        \
    IAP2_MSGBOX_LOG(IAP2_LOG_ERROR, "%s: " call " fail, %s", operation, ErrnoText().text)

/** A POSIX mutex that clang's thread safety analysis knows as a lock. */
struct IAP2_CAPABILITY("mutex") iAP2MsgBoxMutex
{
    pthread_mutex_t posix;
};

/*
 * What boxes of all record types share: the POSIX calls with their reports. Hidden, so that every
 * library that uses boxes has its own.
 */
#pragma GCC visibility push(hidden)
namespace iAP2MsgBoxCalls
{

/** The text of errno, re-entrantly, for as long as this object lives. */
struct ErrnoText
{
    ErrnoText() : text(select(strerror_r(errno, scratch, sizeof scratch), scratch))
    {
    }
    // The GNU function returns the text, the POSIX one a status.
    static const char* select(const char* text, const char*)
    {
        return text;
    }
    static const char* select(int, const char* text)
    {
        return text;
    }
    char scratch[256];
    const char* text;
};

constexpr time_t kDeadlockSeconds = 5;

inline void signal(pthread_cond_t& condition, const char* operation)
{
    if (pthread_cond_signal(&condition) != 0)
    {
        IAP2_MSGBOX_REPORT(operation, "pthread_cond_signal");
    }
}

inline void initMutex(iAP2MsgBoxMutex& mutex)
{
    if (pthread_mutex_init(&mutex.posix, nullptr) != 0)
    {
        IAP2_MSGBOX_REPORT("iAP2MsgBoxImpl", "pthread_mutex_init");
        std::abort();
    }
}
inline void initCondition(pthread_cond_t& condition)
{
    if (pthread_cond_init(&condition, nullptr) != 0)
    {
        IAP2_MSGBOX_REPORT("iAP2MsgBoxImpl", "pthread_cond_init");
        std::abort();
    }
}
inline void destroyMutex(iAP2MsgBoxMutex& mutex)
{
    if (pthread_mutex_destroy(&mutex.posix) != 0)
    {
        IAP2_MSGBOX_REPORT("~iAP2MsgBoxImpl", "pthread_mutex_destroy");
    }
}
inline void destroyCondition(pthread_cond_t& condition)
{
    if (pthread_cond_destroy(&condition) != 0)
    {
        IAP2_MSGBOX_REPORT("~iAP2MsgBoxImpl", "pthread_cond_destroy");
    }
}

/** One of the box's mutexes, from here to unlock(); a thread that is cancelled lets it go. */
class IAP2_SCOPED_CAPABILITY Lock
{
public:
    Lock(iAP2MsgBoxMutex& mutex, const char* operation) IAP2_ACQUIRE(mutex)
        : mMutex(mutex), mOperation(operation)
    {
        timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += kDeadlockSeconds;
        const int result = pthread_mutex_timedlock(&mMutex.posix, &deadline);
        if (result == ETIMEDOUT)
        {
            IAP2_MSGBOX_LOG(IAP2_LOG_ERROR, "pthread_mutex_timedlock timeout");
            std::exit(0);
        }
        if (result != 0)
        {
            IAP2_MSGBOX_REPORT(mOperation, "pthread_mutex_lock");
        }
    }
    ~Lock() IAP2_RELEASE()
    {
        if (mIsHeld)
        {
            pthread_mutex_unlock(&mMutex.posix);
        }
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    int unlock() IAP2_RELEASE()
    {
        mIsHeld = false;
        const int result = pthread_mutex_unlock(&mMutex.posix);
        if (result != 0)
        {
            IAP2_MSGBOX_REPORT(mOperation, "pthread_mutex_unlock");
        }
        return result;
    }

    void wait(pthread_cond_t& condition)
    {
        if (pthread_cond_wait(&condition, &mMutex.posix) != 0)
        {
            IAP2_MSGBOX_REPORT(mOperation, "pthread_cond_wait");
        }
    }

private:
    iAP2MsgBoxMutex& mMutex;
    const char* mOperation;
    bool mIsHeld = true;
};

/** The wake-up of the receiver that belongs to one post; while it is held back, it is owed. */
class Wake
{
public:
    explicit Wake(pthread_cond_t& condition) : mCondition(condition)
    {
    }
    ~Wake()
    {
        if (mIsOwed)
        {
            pthread_cond_signal(&mCondition); // also where the thread is cancelled meanwhile
        }
    }
    Wake(const Wake&) = delete;
    Wake& operator=(const Wake&) = delete;

    void hold()
    {
        mIsHeldBack = true;
    }
    /** The record is in its list. */
    void posted()
    {
        mIsOwed = true;
        if (!mIsHeldBack)
        {
            release();
        }
    }
    void release()
    {
        if (mIsOwed)
        {
            mIsOwed = false;
            signal(mCondition, "sendMessage");
        }
    }

private:
    pthread_cond_t& mCondition;
    bool mIsHeldBack = false;
    bool mIsOwed = false;
};

} // namespace iAP2MsgBoxCalls
#pragma GCC visibility pop

template <typename T> class iAP2MsgBox
{
public:
    class iAP2MsgBoxImpl;

    /** An empty box; `capacity` bounds each of its two lists. */
    explicit iAP2MsgBox(std::uint32_t capacity) : m_pimpl(new iAP2MsgBoxImpl(capacity))
    {
    }

    /**
     * Frees the records that are left, nothing that they point to. Nobody may be in an operation
     * any more, and nobody who blocks in one is woken.
     */
    virtual ~iAP2MsgBox()
    {
        delete m_pimpl;
    }

    iAP2MsgBox(const iAP2MsgBox&) = delete;
    iAP2MsgBox& operator=(const iAP2MsgBox&) = delete;

    /**
     * Posts a copy of `*data` and wakes the receiver.
     *
     * @return the size of the record in bytes, or -1 when the list refuses it.
     *
     * Hazard: in a full box the oldest record is dropped ("sendMessage: queue full, max_size_<n>,
     * delete oldest", level 90). A capacity of 0 bounds nothing.
     */
    int sendMessage(T* data)
    {
        return m_pimpl->sendMessage(data);
    }

    /**
     * Puts a copy of `*data` into the synchronous list and waits for sendSyncFinishMessage().
     *
     * @return the size of the record in bytes, or -1 when the list refuses it.
     *
     * Hazards: full lists as in sendMessage(). One finish wakes one sender: with several of them the
     * one that is woken need not be the one whose record was handled, and a spurious wake-up ends a
     * wait early.
     */
    int sendMessageSync(T* data)
    {
        return m_pimpl->sendMessageSync(data);
    }

    /**
     * sendMessage(announcement), then sendMessageSync(data), with one difference: the receiver is
     * woken for the announcement only when `data` is in its list, so that it never comes too early.
     *
     * @return that of sendMessageSync().
     */
    int sendMessageSyncAnnounced(T* announcement, T* data)
    {
        return m_pimpl->sendMessageSyncAnnounced(announcement, data);
    }

    /** Moves the oldest asynchronous record to `*out`, for which it waits; the record's size. */
    int receiveMessage(T* out)
    {
        return m_pimpl->receiveMessage(out);
    }

    /** Moves the oldest synchronous record to `*out`; its size, or 0 when there is none. */
    int receiveMessageSync(T* out)
    {
        return m_pimpl->receiveMessageSync(out);
    }

    /** Wakes one sender that waits in sendMessageSync(); 0, or the code of the final unlock. */
    int sendSyncFinishMessage()
    {
        return m_pimpl->sendSyncFinishMessage();
    }

private:
    iAP2MsgBoxImpl* m_pimpl;
};

template <typename T> class iAP2MsgBox<T>::iAP2MsgBoxImpl
{
public:
    explicit iAP2MsgBoxImpl(std::uint32_t capacity);
    virtual ~iAP2MsgBoxImpl();
    iAP2MsgBoxImpl(const iAP2MsgBoxImpl&) = delete;
    iAP2MsgBoxImpl& operator=(const iAP2MsgBoxImpl&) = delete;

    int sendMessage(T* data);
    int sendMessageSync(T* data);
    int sendMessageSyncAnnounced(T* announcement, T* data);
    int receiveMessage(T* out);
    int receiveMessageSync(T* out);
    int sendSyncFinishMessage();

private:
    using Lock = iAP2MsgBoxCalls::Lock;
    using Wake = iAP2MsgBoxCalls::Wake;

    enum : int
    {
        kRecordSize = sizeof(T)
    };

    /** Appends a copy of `*data`, and drops a full list's oldest record; false if refused. */
    IAP2_MSGBOX_HIDDEN bool appendLocked(iAP2List<T>& list, T* data, const char* operation);
    IAP2_MSGBOX_HIDDEN bool post(T* data, Wake& wake);
    IAP2_MSGBOX_HIDDEN int postSync(T* data, Wake* announced);

    iAP2List<T>* m_msgList IAP2_PT_GUARDED_BY(m_mutex);
    iAP2List<T>* m_syncMsgList IAP2_PT_GUARDED_BY(m_mutexSync);
    iAP2MsgBoxMutex m_mutex;
    iAP2MsgBoxMutex m_mutexSync;
    pthread_cond_t m_cond;     // with m_mutex: an asynchronous record was added
    pthread_cond_t m_condSync; // with m_mutexSync: a synchronous record was handled
    std::uint32_t m_maxSize;
};

// Outside of the class and not inline, so that who uses the library's instance takes in no copy.

template <typename T>
iAP2MsgBox<T>::iAP2MsgBoxImpl::iAP2MsgBoxImpl(std::uint32_t capacity)
    : m_msgList(new iAP2List<T>), m_syncMsgList(new iAP2List<T>), m_maxSize(capacity)
{
    iAP2MsgBoxCalls::initMutex(m_mutex);
    iAP2MsgBoxCalls::initMutex(m_mutexSync);
    iAP2MsgBoxCalls::initCondition(m_cond);
    iAP2MsgBoxCalls::initCondition(m_condSync);
}

template <typename T> iAP2MsgBox<T>::iAP2MsgBoxImpl::~iAP2MsgBoxImpl()
{
    delete m_msgList;
    m_msgList = nullptr;
    delete m_syncMsgList;
    m_syncMsgList = nullptr;
    iAP2MsgBoxCalls::destroyMutex(m_mutex);
    iAP2MsgBoxCalls::destroyMutex(m_mutexSync);
    iAP2MsgBoxCalls::destroyCondition(m_cond);
    iAP2MsgBoxCalls::destroyCondition(m_condSync);
}

template <typename T> int iAP2MsgBox<T>::iAP2MsgBoxImpl::sendMessage(T* data)
{
    Wake wake(m_cond);
    return post(data, wake) ? kRecordSize : -1;
}

template <typename T> int iAP2MsgBox<T>::iAP2MsgBoxImpl::sendMessageSync(T* data)
{
    return postSync(data, nullptr);
}

template <typename T>
int iAP2MsgBox<T>::iAP2MsgBoxImpl::sendMessageSyncAnnounced(T* announcement, T* data)
{
    Wake wake(m_cond);
    wake.hold();
    post(announcement, wake);
    const int result = postSync(data, &wake);
    wake.release(); // where the record was refused
    return result;
}

template <typename T> int iAP2MsgBox<T>::iAP2MsgBoxImpl::receiveMessage(T* out)
{
    const char* const operation = "receiveMessage";
    for (;;)
    {
        Lock lock(m_mutex, operation);
        if (!m_msgList->isEmpty())
        {
            m_msgList->dequeue(out);
            lock.unlock();
            return kRecordSize;
        }
        IAP2_MSGBOX_LOG(IAP2_LOG_DEBUG, "%s: m_cond[%p] Waiting ... next Message ", operation,
                        static_cast<void*>(&m_cond));
        lock.wait(m_cond);
        // Released and taken again, so that each pass has a deadline of its own.
        lock.unlock();
    }
}

template <typename T> int iAP2MsgBox<T>::iAP2MsgBoxImpl::receiveMessageSync(T* out)
{
    int result = 0;
    Lock lock(m_mutexSync, "receiveMessageSync");
    if (!m_syncMsgList->isEmpty())
    {
        m_syncMsgList->dequeue(out);
        result = kRecordSize;
    }
    lock.unlock();
    return result;
}

template <typename T> int iAP2MsgBox<T>::iAP2MsgBoxImpl::sendSyncFinishMessage()
{
    const char* const operation = "sendSyncFinishMessage";
    Lock lock(m_mutexSync, operation);
    IAP2_MSGBOX_LOG(IAP2_LOG_DEBUG, "%s: m_condSync[%p] signal send!!", operation,
                    static_cast<void*>(&m_condSync));
    iAP2MsgBoxCalls::signal(m_condSync, operation);
    return lock.unlock();
}

template <typename T>
bool iAP2MsgBox<T>::iAP2MsgBoxImpl::appendLocked(iAP2List<T>& list, T* data, const char* operation)
{
    if (list.size() == m_maxSize)
    {
        IAP2_MSGBOX_LOG(IAP2_LOG_ERROR, "%s: queue full, max_size_%d, delete oldest", operation,
                        static_cast<int>(m_maxSize));
        T oldest{};
        list.dequeue(&oldest);
    }
    if (list.enqueue(data) != 0)
    {
        IAP2_MSGBOX_LOG(IAP2_LOG_ERROR, "%s: enqueue fail", operation);
        return false;
    }
    return true;
}

template <typename T> bool iAP2MsgBox<T>::iAP2MsgBoxImpl::post(T* data, Wake& wake)
{
    const char* const operation = "sendMessage";
    Lock lock(m_mutex, operation);
    const bool posted = appendLocked(*m_msgList, data, operation);
    if (posted)
    {
        IAP2_MSGBOX_LOG(IAP2_LOG_DEBUG, "%s: m_cond[%p] signal send new message!!", operation,
                        static_cast<void*>(&m_cond));
        wake.posted();
    }
    lock.unlock();
    return posted;
}

template <typename T> int iAP2MsgBox<T>::iAP2MsgBoxImpl::postSync(T* data, Wake* announced)
{
    const char* const operation = "sendMessageSync";
    Lock lock(m_mutexSync, operation);
    if (!appendLocked(*m_syncMsgList, data, operation))
    {
        lock.unlock();
        return -1;
    }
    if (announced != nullptr)
    {
        announced->release();
    }
    IAP2_MSGBOX_LOG(IAP2_LOG_DEBUG, "%s: m_condSync[%p] Waiting...", operation,
                    static_cast<void*>(&m_condSync));
    lock.wait(m_condSync);
    lock.unlock();
    return kRecordSize;
}

#undef IAP2_MSGBOX_REPORT
#undef IAP2_MSGBOX_LOG
#undef IAP2_MSGBOX_HIDDEN

// The library has this one; nobody else needs to.
extern template class iAP2MsgBox<iAP2MsgData>;

#pragma GCC visibility pop

#endif
