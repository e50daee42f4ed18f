// A worker that adds up what it is given, until its owner says that this was all.

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include <korvane/DataQueueList.h>
#include <korvane/iAp2LogUtil.h>
#include <korvane/utils.h>

namespace
{

constexpr unsigned int kLast = 0; // no amount: the end

std::mutex mutex;
std::condition_variable ended;
bool hasEnded = false;
unsigned int total = 0;

/** Runs on the worker, for each item and now and then without one. */
void handle(void* data)
{
    if (data == nullptr)
    {
        return;
    }
    const unsigned int amount = *static_cast<unsigned int*>(data);
    iAP2_free(data); // an item that was handed over is the handler's
    const std::lock_guard<std::mutex> lock(mutex);
    total += amount;
    if (amount == kLast)
    {
        hasEnded = true;
        ended.notify_one();
    }
}

bool add(IAP2::DataQueueList& queue, unsigned int amount)
{
    auto* const item = static_cast<unsigned int*>(iAP2_malloc(sizeof amount));
    if (item == nullptr)
    {
        return false;
    }
    *item = amount;
    if (queue.addDataQueue(item) == 0)
    {
        iAP2_free(item);
        return false;
    }
    return true;
}

/**
 * Waits until the worker has handled the last item. It may miss that one: it looks and waits in two
 * steps, and what comes in between stays there until something else is added.
 */
bool waitForTheEnd(IAP2::DataQueueList& queue)
{
    constexpr int kAttempts = 100;
    std::unique_lock<std::mutex> lock(mutex);
    for (int attempt = 0; !hasEnded && attempt < kAttempts; ++attempt)
    {
        if (ended.wait_for(lock, std::chrono::milliseconds(100)) == std::cv_status::timeout)
        {
            lock.unlock();
            add(queue, kLast);
            lock.lock();
        }
    }
    return hasEnded;
}

} // namespace

int main()
{
    setLogLevel(IAP2_LOG_ERROR);
    IAP2::DataQueueList queue(handle);
    bool done = true;
    for (unsigned int amount = 1; amount <= 10; ++amount)
    {
        done = done && add(queue, amount);
    }
    done = done && add(queue, kLast) && waitForTheEnd(queue);
    queue.terminate(); // before the queue goes
    if (!done)
    {
        std::fputs("dataQueue: no memory left, or no worker\n", stderr);
        return 1;
    }
    std::printf("%u\n", total);
    return 0;
}
