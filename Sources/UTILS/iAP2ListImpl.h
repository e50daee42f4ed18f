/**
 * The message record, and the locked list that message boxes keep their records in.
 */
#ifndef KORVANE_IAP2LISTIMPL_H
#define KORVANE_IAP2LISTIMPL_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <type_traits>

#include <korvane/iAp2LogUtil.h>
#include <korvane/iAP2Mutex.h>

#pragma GCC visibility push(default)

/** Event ids that the message handler keeps for itself. */
enum
{
    EVT_SEND_SYNC_MSG = 9998, /**< a record waits in the synchronous list */
    EVT_LINKLOOP_EXIT = 9999  /**< ends the handler's loop */
};

/**
 * One message, copied bit for bit wherever it goes. What its pointers point to is never touched,
 * freed or copied on the way: its lifetime is a matter between sender and receiver.
 */
struct iAP2MsgData
{
    std::int32_t evtID;
    std::uint32_t dParam1;
    std::uint32_t dParam2;
    std::uint32_t dParam3;
    void* pParam1;
    void* pParam2;
    void* pParam3;
};

/**
 * A first-in, first-out list of records of any trivially copyable type, without a limit.
 *
 * Threads: each call is atomic by itself. dequeue() looks and removes under two acquisitions of the
 * lock, so whoever calls it beside others that remove needs a lock of its own around them.
 */
template <typename T> class iAP2List
{
    static_assert(std::is_trivially_copyable<T>::value, "records are copied bit for bit");

public:
    iAP2List() = default;

    /** Frees the records that are left, nothing that they point to. */
    virtual ~iAP2List();

    iAP2List(const iAP2List&) = delete;
    iAP2List& operator=(const iAP2List&) = delete;

    /**
     * Appends a copy of `*data`, which must not be null; always 0.
     *
     * Hazard: where memory is short std::bad_alloc leaves the function, and the list stays locked.
     */
    int enqueue(T* data);

    bool isEmpty();

    /** The number of records. */
    std::size_t size();

    /**
     * Moves the oldest record to `*out`, which must not be null.
     *
     * @return 0; 1 when there is none ("dequeue: reject, list empty", level 90), and `*out` is left
     *         alone.
     */
    int dequeue(T* out);

private:
    /** False where another thread has emptied the list since it was looked at. */
    __attribute__((visibility("hidden"))) bool takeFront(T& out);

    iAP2Mutex m_listMutex;
    std::list<T> m_list IAP2_GUARDED_BY(m_listMutex);
};

// Outside of the class and not inline, so that who uses the library's instance takes in no copy.

template <typename T> iAP2List<T>::~iAP2List()
{
    m_listMutex.iAP2Lock();
    m_list.clear();
    m_listMutex.unlock();
}

template <typename T> int iAP2List<T>::enqueue(T* data)
{
    m_listMutex.iAP2Lock();
    m_list.push_back(*data);
    m_listMutex.unlock();
    return 0;
}

template <typename T> bool iAP2List<T>::isEmpty()
{
    m_listMutex.iAP2Lock();
    const bool empty = m_list.empty();
    m_listMutex.unlock();
    return empty;
}

template <typename T> std::size_t iAP2List<T>::size()
{
    m_listMutex.iAP2Lock();
    const std::size_t count = m_list.size();
    m_listMutex.unlock();
    return count;
}

template <typename T> int iAP2List<T>::dequeue(T* out)
{
    if (!isEmpty() && takeFront(*out))
    {
        return 0;
    }
    logPrint(IAP2_LOG_ERROR, "IAP2", "Sources/UTILS/iAP2ListImpl.h", __LINE__,
             "%s: reject, list empty", "dequeue");
    return 1;
}

template <typename T> bool iAP2List<T>::takeFront(T& out)
{
    m_listMutex.iAP2Lock();
    const bool found = !m_list.empty();
    if (found)
    {
        out = m_list.front();
        m_list.pop_front();
    }
    m_listMutex.unlock();
    return found;
}

// The library has this one; nobody else needs to.
extern template class iAP2List<iAP2MsgData>;

#pragma GCC visibility pop

#endif
