/**
 * The floor of the message handler: what one would write in an afternoon, a std::deque with a mutex
 * and a condition variable, and a thread that looks a record's event up and calls a function.
 */
#ifndef KORVANE_BENCHMARKS_DEQUEHANDLER_H
#define KORVANE_BENCHMARKS_DEQUEHANDLER_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <korvane/iAP2ListImpl.h>

/** A mailbox that drops its oldest record when it is full. */
class DequeMailbox
{
public:
    void post(const iAP2MsgData& data)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mRecords.size() == kCapacity)
        {
            mRecords.pop_front();
        }
        mRecords.push_back(data);
        mPosted.notify_one();
    }

    iAP2MsgData receive()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mPosted.wait(lock, [this] { return !mRecords.empty(); });
        const iAP2MsgData data = mRecords.front();
        mRecords.pop_front();
        return data;
    }

private:
    static constexpr std::size_t kCapacity = 100;

    std::mutex mMutex;
    std::condition_variable mPosted;
    std::deque<iAP2MsgData> mRecords;
};

/** A thread with such a mailbox. */
class DequeHandler
{
public:
    using Function = std::function<void(iAP2MsgData*)>;

    DequeHandler() = default;
    DequeHandler(const DequeHandler&) = delete;
    DequeHandler& operator=(const DequeHandler&) = delete;
    ~DequeHandler()
    {
        post({EVT_LINKLOOP_EXIT, 0, 0, 0, nullptr, nullptr, nullptr});
        mThread.join();
    }

    /** Before start(). */
    void registerEvent(int id, Function function)
    {
        mEvents.emplace_back(id, std::move(function));
    }

    void start()
    {
        mThread = std::thread([this] { run(); });
    }

    void post(const iAP2MsgData& data)
    {
        mMailbox.post(data);
    }

    /** Goes on when the function has run. */
    void postAndWait(const iAP2MsgData& data)
    {
        Answer answer;
        mMailbox.post({kSynchronous, 0, 0, 0, const_cast<iAP2MsgData*>(&data), &answer, nullptr});
        std::unique_lock<std::mutex> lock(answer.mutex);
        answer.given.wait(lock, [&] { return answer.isGiven; });
    }

private:
    static constexpr int kSynchronous = EVT_SEND_SYNC_MSG;

    struct Answer
    {
        std::mutex mutex;
        std::condition_variable given;
        bool isGiven = false;
    };

    void run()
    {
        for (;;)
        {
            iAP2MsgData data = mMailbox.receive();
            if (data.evtID == EVT_LINKLOOP_EXIT)
            {
                return;
            }
            if (data.evtID == kSynchronous)
            {
                iAP2MsgData inner = *static_cast<iAP2MsgData*>(data.pParam1);
                dispatch(inner);
                auto* const answer = static_cast<Answer*>(data.pParam2);
                const std::lock_guard<std::mutex> lock(answer->mutex);
                answer->isGiven = true;
                answer->given.notify_one();
            }
            else
            {
                dispatch(data);
            }
        }
    }

    void dispatch(iAP2MsgData& data)
    {
        for (const auto& [id, function] : mEvents)
        {
            if (id == data.evtID)
            {
                function(&data);
                return;
            }
        }
    }

    DequeMailbox mMailbox;
    std::vector<std::pair<int, Function>> mEvents;
    std::thread mThread;
};

#endif
