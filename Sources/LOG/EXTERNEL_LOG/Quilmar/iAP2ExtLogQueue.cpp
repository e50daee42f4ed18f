/*
 * The queued writer.
 *
 * Stop neither joins the writer nor waits for it, so a stopped writer may live on inside the trace
 * library with an item, while the queue is drained, its mutex destroyed and both made anew for the
 * next writer. Therefore:
 *
 * - `stateMutex`, which always exists, orders start, stop and every look of the writer at whether it
 *   still is the writer. Whoever takes both takes it before the queue's mutex. The writer touches the
 *   queue's mutex only with this one held, and so never after the other has been destroyed.
 * - The item that the writer hands on is its own to release. Who empties the queue meanwhile takes
 *   that item out of the queue and out of `itemInHand`, by which the writer knows later that there is
 *   nothing left to unlink. The release is a destructor's, since the cancellation unwinds the writer.
 * - The writer holds a mutex only where nothing is a cancellation point.
 */
#include <korvane/iAP2ExtLog.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <korvane/iAp2LogUtil.h>

#include "internal/posixLock.h"

using korvane::internal::PosixMutex;
using korvane::internal::ScopedPosixLock;

iAP2LogQueue my_tailq_head_iAP2 = {}; // declared extern "C"

namespace
{

constexpr char kThreadName[] = "iAp2ExternelLogWrite";
constexpr useconds_t kPause = 100000;

PosixMutex stateMutex{PTHREAD_MUTEX_INITIALIZER};

PosixMutex queueMutex;
bool isQueueMutexThere IAP2_GUARDED_BY(stateMutex) = false;

/** The running writer, or 0. Changed under `stateMutex`. */
std::atomic<pthread_t> writer{0};

/** What the writer is handing on, as long as that is in the queue. */
iAP2LogItem* itemInHand IAP2_GUARDED_BY(stateMutex) = nullptr;

/* ---- The queue ------------------------------------------------------------------------------- */

// The head is a plain record for clients in C; here its fields are also read without the lock.

iAP2LogItem* firstItem()
{
    return __atomic_load_n(&my_tailq_head_iAP2.tqh_first, __ATOMIC_ACQUIRE);
}

bool isHeadWhole()
{
    return firstItem() != nullptr ||
           __atomic_load_n(&my_tailq_head_iAP2.tqh_last, __ATOMIC_RELAXED) ==
               &my_tailq_head_iAP2.tqh_first;
}

void setLast(iAP2LogItem** last)
{
    __atomic_store_n(&my_tailq_head_iAP2.tqh_last, last, __ATOMIC_RELAXED);
}

/** Points the field in front of an item, which may be the head's, at the next one. */
void setNext(iAP2LogItem** field, iAP2LogItem* item)
{
    __atomic_store_n(field, item, __ATOMIC_RELEASE);
}

void resetQueue()
{
    setLast(&my_tailq_head_iAP2.tqh_first);
    setNext(&my_tailq_head_iAP2.tqh_first, nullptr);
}

void append(iAP2LogItem* item)
{
    item->entries.tqe_next = nullptr;
    item->entries.tqe_prev = my_tailq_head_iAP2.tqh_last;
    setLast(&item->entries.tqe_next);
    setNext(item->entries.tqe_prev, item);
}

void takeOut(const iAP2LogItem* item)
{
    if (item->entries.tqe_next != nullptr)
    {
        item->entries.tqe_next->entries.tqe_prev = item->entries.tqe_prev;
    }
    else
    {
        setLast(item->entries.tqe_prev);
    }
    setNext(item->entries.tqe_prev, item->entries.tqe_next);
}

void release(iAP2LogItem* item)
{
    std::free(item->logStr);
    std::free(item);
}

/** Makes the end of an empty queue what it has to be. Nothing is locked where it is so already. */
void repairHead()
{
    if (isHeadWhole())
    {
        return;
    }
    const ScopedPosixLock lock(stateMutex);
    if (writer.load(std::memory_order_relaxed) == 0)
    {
        // Nobody appends.
        if (firstItem() == nullptr)
        {
            setLast(&my_tailq_head_iAP2.tqh_first);
        }
        return;
    }
    const ScopedPosixLock queueLock(queueMutex);
    if (firstItem() == nullptr)
    {
        setLast(&my_tailq_head_iAP2.tqh_first);
    }
}

/* ---- The writer ------------------------------------------------------------------------------ */

bool isTheWriter() IAP2_REQUIRES(stateMutex)
{
    return writer.load(std::memory_order_relaxed) == pthread_self();
}

/** False once the writer has been stopped, also when another has been started since. */
[[gnu::noinline]] bool isMeantToRun()
{
    const ScopedPosixLock lock(stateMutex);
    return isTheWriter();
}

/** The first item of the queue; leaves the queue and is released with this object. */
class FirstItem
{
public:
    /** Holds nothing for a writer that has been stopped. */
    FirstItem()
    {
        const ScopedPosixLock lock(stateMutex);
        iAP2LogItem* const first = isTheWriter() ? firstItem() : nullptr;
        if (first == nullptr)
        {
            return;
        }
        if (first->logStr == nullptr)
        {
            mIsTextMissing = true;
            return;
        }
        mItem = first;
        itemInHand = first;
    }

    ~FirstItem()
    {
        if (mItem == nullptr)
        {
            return;
        }
        {
            const ScopedPosixLock lock(stateMutex);
            if (itemInHand == mItem)
            {
                itemInHand = nullptr;
                const ScopedPosixLock queueLock(queueMutex);
                takeOut(mItem);
            }
        }
        release(mItem);
    }

    FirstItem(const FirstItem&) = delete;
    FirstItem& operator=(const FirstItem&) = delete;

    /** True for an item without a text, which stays in the queue and is not held. */
    bool isTextMissing() const
    {
        return mIsTextMissing;
    }

    /** Null when there was none. */
    const iAP2LogItem* item() const
    {
        return mItem;
    }

private:
    iAP2LogItem* mItem = nullptr;
    bool mIsTextMissing = false;
};

void handOn(const iAP2LogItem& item)
{
    const std::size_t length = std::strlen(item.logStr);
    if (length < INT32_MAX)
    {
        iAp2ExternelLogWirteDirect(static_cast<int>(item.level), item.logStr, length + 1);
    }
    else
    {
        std::puts("strlen(item->logStr) + 1 is larger than INT32_MAX");
    }
}

[[gnu::noinline]] void handOnAll()
{
    while (firstItem() != nullptr)
    {
        const FirstItem first;
        if (first.isTextMissing())
        {
            std::puts("item or item->logStr is NULL"); // over and over, until Stop removes it
        }
        else if (first.item() != nullptr)
        {
            handOn(*first.item());
        }
        else
        {
            return;
        }
    }
}

/**
 * The writer's frame holds no object where it sleeps: AddressSanitizer, which clients may use, does
 * not learn of frames that a cancellation leaves, and would take the guards around their objects for
 * errors of whatever uses that stack next. Hence the functions that are not inlined.
 */
void* runWriter(void*)
{
    std::printf("iAp2ExternelLogWriteThread() created!!! mTid[%ld]\n", getTid());
    if (prctl(PR_SET_NAME, kThreadName, 0, 0, 0) == -1)
    {
        std::puts("setiAP2TreadName Error");
    }
    while (isMeantToRun())
    {
        handOnAll();
        usleep(kPause);
    }
    // A cancellation that comes with the stop no longer takes the line away.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    std::printf("iAp2ExternelLogWriteThread() ended!!! mTid[%ld]\n", getTid());
    return nullptr;
}

void destroyQueueMutex() IAP2_REQUIRES(stateMutex)
{
    if (isQueueMutexThere)
    {
        pthread_mutex_destroy(&queueMutex.posix);
        isQueueMutexThere = false;
    }
}

/** Creates the queue's mutex and a writer that waits for `stateMutex`. */
int createWriter(pthread_t& thread) IAP2_REQUIRES(stateMutex)
{
    destroyQueueMutex(); // of a start that failed
    const int error = pthread_mutex_init(&queueMutex.posix, nullptr);
    if (error != 0)
    {
        return error;
    }
    isQueueMutexThere = true;
    return pthread_create(&thread, nullptr, &runWriter, nullptr);
}

} // namespace

extern "C" {

int iAp2ExternelLogWriteInit(void)
{
    const ScopedPosixLock lock(stateMutex);
    pthread_t thread = writer.load(std::memory_order_relaxed);
    if (thread == 0)
    {
        const int error = createWriter(thread);
        if (error != 0)
        {
            return error;
        }
    }
    {
        const ScopedPosixLock queueLock(queueMutex);
        resetQueue();
        itemInHand = nullptr;
    }
    // Last, since from now on texts are queued.
    writer.store(thread, std::memory_order_release);
    return 0;
}

int iAp2ExternelLogWriteAddQueue(uint32_t level, const void* text, size_t length)
{
    repairHead();
    if (writer.load(std::memory_order_acquire) == 0 || length == SIZE_MAX)
    {
        return 0;
    }
    auto* const item = static_cast<iAP2LogItem*>(std::malloc(sizeof(iAP2LogItem)));
    if (item == nullptr)
    {
        std::puts("ERROR malloc failed!!  item is null");
        return 0;
    }
    item->level = level;
    item->logStr = static_cast<char*>(std::malloc(length + 1));
    if (item->logStr == nullptr)
    {
        std::free(item);
        std::puts("ERROR malloc failed!!  item->logStr is null");
        return 0;
    }
    if (length != 0)
    {
        std::memcpy(item->logStr, text, length);
    }
    item->logStr[length] = '\0';

    pthread_mutex_lock(&queueMutex.posix);
    append(item);
    return pthread_mutex_unlock(&queueMutex.posix);
}

void iAp2ExternelLogWriteStop(void)
{
    const ScopedPosixLock lock(stateMutex);
    const pthread_t thread = writer.load(std::memory_order_relaxed);
    if (thread != 0)
    {
        pthread_cancel(thread);
        pthread_detach(thread); // nobody joins it
        writer.store(0, std::memory_order_release);
    }
    destroyQueueMutex();
    while (iAP2LogItem* const item = firstItem())
    {
        takeOut(item);
        if (item != itemInHand)
        {
            release(item);
        }
    }
    itemInHand = nullptr;
}

} // extern "C"
