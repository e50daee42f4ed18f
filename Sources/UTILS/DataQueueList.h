/**
 * A worker that handles queued data one item at a time, in the order of arrival.
 *
 * The constructor starts one POSIX thread, "iAP2DataQueue". Any thread adds items; the worker passes
 * each to the handler. Every operation traces its name at level 20, the loop at 40.
 *
 *     worker:   take an item, if there is one
 *               call the handler with it, or with null
 *               wait for a signal if the queue is empty
 *
 * Hazard: nothing is waited for but the signal. An item that is added between the worker's look at
 * the empty queue and its wait is handled only after the next one has been added.
 */
#ifndef KORVANE_DATAQUEUELIST_H
#define KORVANE_DATAQUEUELIST_H

#include <atomic>

#include <pthread.h>

#include <korvane/iAP2Mutex.h>
#include <korvane/utils.h>

#pragma GCC visibility push(default)

namespace IAP2
{

class DataQueueList
{
public:
    /**
     * Sets up an empty queue and starts the worker, which calls the handler with null unless an item
     * is there already. Where the thread cannot be created ("ERROR : fail to create pthread ret[%d]",
     * level 90) items are accepted that nobody takes. Where memory is short there is no queue: that
     * is reported as listInitNode() does, and so are every use and the destructor.
     *
     * @param datahandleFunc  is called on the worker, without a lock held, with each item, which is
     *                        then its own, and with null whenever nothing was queued. An exception
     *                        that leaves it ends the process. Null makes the worker report
     *                        "datahandleFunc is NULL" at level 90 and lose each item.
     */
    explicit DataQueueList(void (*datahandleFunc)(void*));

    /**
     * Releases the items that are left with iAP2_free(), and the queue. Hazard: neither stops nor
     * waits for the worker, which must not be there any more: see terminate().
     */
    ~DataQueueList();

    DataQueueList(const DataQueueList&) = delete;
    DataQueueList& operator=(const DataQueueList&) = delete;

    /**
     * Adds an item, which must have come from iAP2_malloc(), and wakes the worker.
     *
     * @return 1; 0 for null ("addDataQueue data is null", level 60) and where no memory is left, and
     *         the item is then still the caller's.
     */
    int addDataQueue(void* data);

    /**
     * Waits for one signal, or a spurious wake-up; returns at once after terminate(). A cancellation
     * point that leaves no lock behind.
     */
    void waitDataQueue();

    /** Moves the oldest item to `*data`; null when there is none. */
    void getDataQueue(void** data);

    /** Calls `datahandleFunc(data)`; null is reported as "datahandleFunc is NULL" at level 90. */
    void dataHandler(void* data, void (*datahandleFunc)(void*));

    /** The worker's loop, until terminate(). */
    void QueueTreadRunLoop();

    /**
     * Ends the worker, once the handler has returned from the item that it has, and waits for it;
     * then, when every call of it has returned, the object can be destroyed. Items that are still
     * queued stay, for the destructor. A thread of the client's own in QueueTreadRunLoop() ends too,
     * but is not waited for.
     *
     * Threads: any, several at once and again later; each call returns when the worker has ended. A
     * cancellation point. The handler may call it too: there it only asks the worker to end, and does
     * not wait, so the owner calls it all the same before the object is destroyed.
     *
     * Without a worker there is nothing to wait for. Where waiting fails ("terminate: pthread_join
     * fail, <text>", level 90) the object must be kept.
     */
    void terminate();

private:
    struct IAP2_CAPABILITY("mutex") Mutex
    {
        pthread_mutex_t posix;
    };

    __attribute__((visibility("hidden"))) bool isQueueEmpty();
    __attribute__((visibility("hidden"))) pthread_t claimWorker();
    __attribute__((visibility("hidden"))) void releaseWorker(bool hasEnded);

    pthread_t mQueueThread IAP2_GUARDED_BY(mQueueMutex); // 0: no worker that could be joined
    std::atomic<bool> mIsTerminate;                      // raised under the mutex
    bool mIsJoining IAP2_GUARDED_BY(mQueueMutex);        // somebody waits for the worker to end
    ListNode* mQueueHead IAP2_PT_GUARDED_BY(mQueueMutex);
    ListNode* mQueueTail IAP2_PT_GUARDED_BY(mQueueMutex);
    Mutex mQueueMutex;
    pthread_cond_t mQueueCond; // an item was added, the worker is to end, or nobody joins it now
    void (*mDataHandleFunc)(void*);
};

} // namespace IAP2

#pragma GCC visibility pop

#endif
