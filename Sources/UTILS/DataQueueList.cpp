#include <korvane/DataQueueList.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "internal/posixLock.h"
#include "internal/report.h"

using korvane::internal::ScopedLock;

namespace
{

/** The entry of the POSIX thread; `data` is the DataQueueList. */
void* runWorker(void* data)
{
    setiAP2ThreadName("iAP2DataQueue");
    if (data == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : QueueTread data is NULL");
        return nullptr;
    }
    const int id = static_cast<int>(getTid());
    KORVANE_LOG(IAP2_LOG_INFO, "QueueTreadRunLoop() created!!! mTid[%d]", id);
    static_cast<IAP2::DataQueueList*>(data)->QueueTreadRunLoop();
    KORVANE_LOG(IAP2_LOG_INFO, "QueueTreadRunLoop() ended !!! mTid[%d]", id);
    KORVANE_LOG(IAP2_LOG_INFO, "Terminated QueueThreadRunLoop");
    return nullptr;
}

} // namespace

namespace IAP2
{

static_assert(sizeof(std::atomic<bool>) == sizeof(bool), "the flag takes the place of a bool");

DataQueueList::DataQueueList(void (*datahandleFunc)(void*))
    : mQueueThread(0), mIsTerminate(false), mIsJoining(false), mQueueHead(nullptr),
      mQueueTail(nullptr), mDataHandleFunc(nullptr)
{
    // The offsets of these fields are those of plain ones in this order.
    static_assert(offsetof(DataQueueList, mQueueThread) == 0 &&
                      offsetof(DataQueueList, mIsTerminate) == sizeof(pthread_t) &&
                      offsetof(DataQueueList, mQueueHead) == sizeof(pthread_t) + sizeof(void*),
                  "the second flag lies in the padding of the first");

    KORVANE_LOG(IAP2_LOG_DEBUG, "DataQueueList()");
    pthread_mutex_init(&mQueueMutex.posix, nullptr);
    pthread_cond_init(&mQueueCond, nullptr);
    mDataHandleFunc = datahandleFunc;
    queueInit(&mQueueHead, &mQueueTail);
    if (mQueueTail == nullptr)
    {
        mQueueHead = nullptr; // released already
    }

    pthread_t thread = 0; // not the field, which the worker may look at already
    const int result = pthread_create(&thread, nullptr, runWorker, this);
    const auto shownResult = static_cast<std::uint8_t>(result);
    if (shownResult != 0)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : fail to create pthread ret[%d]", int{shownResult});
    }
    if (result == 0)
    {
        const ScopedLock<Mutex> lock(mQueueMutex);
        mQueueThread = thread;
    }
}

DataQueueList::~DataQueueList()
{
    KORVANE_LOG(IAP2_LOG_DEBUG, "~DataQueueList()");
    queueFinal(mQueueHead, mQueueTail, true);
    pthread_mutex_destroy(&mQueueMutex.posix);
}

int DataQueueList::addDataQueue(void* data)
{
    KORVANE_LOG(IAP2_LOG_DEBUG, "addDataQueue()");
    if (data == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_WARNING, "addDataQueue data is null");
        return 0;
    }
    const ScopedLock<Mutex> lock(mQueueMutex);
    const int result = queuePut(mQueueHead, mQueueTail, data);
    pthread_cond_signal(&mQueueCond);
    return result;
}

void DataQueueList::waitDataQueue()
{
    KORVANE_LOG(IAP2_LOG_DEBUG, "waitDataQueue()");
    const ScopedLock<Mutex> lock(mQueueMutex);
    if (!mIsTerminate)
    {
        pthread_cond_wait(&mQueueCond, &mQueueMutex.posix);
    }
}

void DataQueueList::getDataQueue(void** data)
{
    KORVANE_LOG(IAP2_LOG_DEBUG, "getDataQueue()");
    const ScopedLock<Mutex> lock(mQueueMutex);
    *data = queueGet(mQueueHead, mQueueTail);
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): the signature is the interface
void DataQueueList::dataHandler(void* data, void (*datahandleFunc)(void*))
{
    KORVANE_LOG(IAP2_LOG_DEBUG, "dataHandler()");
    if (datahandleFunc == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "datahandleFunc is NULL");
        return;
    }
    datahandleFunc(data);
}

void DataQueueList::QueueTreadRunLoop()
{
    KORVANE_LOG(IAP2_LOG_INFO, "QueueTreadRunLoop()");
    while (!mIsTerminate)
    {
        void* data = nullptr;
        getDataQueue(&data);
        dataHandler(data, mDataHandleFunc);
        // The lock is let go in between, so a signal that comes now is lost: owners know that.
        if (isQueueEmpty())
        {
            waitDataQueue();
        }
    }
    KORVANE_LOG(IAP2_LOG_INFO, "QueueTreadRunLoop() terminate");
}

/** Counts under the lock, since producers change the list meanwhile. */
bool DataQueueList::isQueueEmpty()
{
    const ScopedLock<Mutex> lock(mQueueMutex);
    return queueGetCount(mQueueHead, mQueueTail) == 0;
}

void DataQueueList::terminate()
{
    KORVANE_LOG(IAP2_LOG_DEBUG, "terminate()");
    const pthread_t worker = claimWorker();
    if (worker == 0)
    {
        return;
    }
    struct Claim
    {
        DataQueueList& queue;
        bool hasEnded;
        ~Claim()
        {
            queue.releaseWorker(hasEnded); // also where the wait is cancelled
        }
    } claim{*this, false};
    claim.hasEnded = pthread_join(worker, nullptr) == 0;
    if (!claim.hasEnded)
    {
        KORVANE_REPORT_CALL("terminate", "pthread_join");
    }
}

/** Asks the worker to end; the thread that the caller is to wait for, or 0. */
pthread_t DataQueueList::claimWorker()
{
    const ScopedLock<Mutex> lock(mQueueMutex);
    mIsTerminate = true;
    pthread_cond_broadcast(&mQueueCond); // the worker need not be the only one that waits
    if (pthread_equal(mQueueThread, pthread_self()) != 0)
    {
        return 0;
    }
    while (mIsJoining)
    {
        pthread_cond_wait(&mQueueCond, &mQueueMutex.posix);
    }
    mIsJoining = mQueueThread != 0;
    return mQueueThread;
}

void DataQueueList::releaseWorker(bool hasEnded)
{
    const ScopedLock<Mutex> lock(mQueueMutex);
    mIsJoining = false;
    if (hasEnded)
    {
        mQueueThread = 0;
    }
    pthread_cond_broadcast(&mQueueCond);
}

} // namespace IAP2
