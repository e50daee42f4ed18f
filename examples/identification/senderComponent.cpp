#include "senderComponent.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>

#include <unistd.h>

#include <korvane/iAp2LogUtil.h>

#include "failures.h"
#include "files.h"
#include "progress.h"
#include "records.h"
#include "transport.h"

namespace identification
{

namespace
{

/**
 * Memory that is short while posting leaves the mailbox locked: nobody can post again, not even the
 * exit that the handler's thread ends by.
 */
template <typename Post> void postOrEnd(Post post)
{
    try
    {
        post();
    }
    catch (const std::bad_alloc&)
    {
        writeAll(STDERR_FILENO, "identification: out of memory\n"); // without the heap
        std::_Exit(kSystem);
    }
}

} // namespace

/* ---- On the owner's thread ------------------------------------------------------------------- */

SenderComponent::SenderComponent()
{
    // Everything is registered before the thread starts: an event without an entry is lost, and
    // whoever posts one synchronously waits for good.
    using Delegate = IAP2Delegate<void, iAP2MsgData*>;
    mHandler.registerEventTable(Describe, "describe",
                                new Delegate(this, &SenderComponent::describe));
    mHandler.registerEventTable(Marshal, "marshal", new Delegate(this, &SenderComponent::marshal));
    mHandler.registerEventTable(Send, "send", new Delegate(this, &SenderComponent::send));
    mHandler.registerEventTable(Report, "report", new Delegate(this, &SenderComponent::report));
    if (mHandler.start() != iAP2Thread::Success)
    {
        throw SystemError("no thread for the sender's handler");
    }
}

SenderComponent::~SenderComponent()
{
    logPrint(IAP2_LOG_INFO, "IAP2", __FILE__, __LINE__, "sender[%d]: ends its handler", getpid());
    // The handler's own destructor would drop what is still in the mailbox.
    postOrEnd([&] { mHandler.sendMsgV(EVT_LINKLOOP_EXIT); });
    mHandler.join();
}

void SenderComponent::postDescribe(const Description& description)
{
    // Records carry pointers without a type and without const; describe() puts both back.
    postOrEnd([&] { mHandler.sendMsgP(Describe, const_cast<Description*>(&description)); });
}

void SenderComponent::postMarshal(Transaction& transaction)
{
    postOrEnd([&] { mHandler.sendMsgP(Marshal, &transaction); });
}

void SenderComponent::postSend(int socket)
{
    postOrEnd([&] { mHandler.sendMsgD(Send, static_cast<unsigned int>(socket)); });
}

SenderComponent::Answer SenderComponent::answer()
{
    Answer answer;
    std::atomic<bool> isGiven{false};
    postOrEnd([&] { mHandler.sendMsgSyncPP(Report, &answer, &isGiven); });
    while (!isGiven) // only where the system has ended the wait early
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return answer;
}

/* ---- On the handler's thread ----------------------------------------------------------------- */

/** An exception that left a delegate would end the process. */
template <typename Work> void SenderComponent::step(Work work)
{
    if (mAnswer.failure != nullptr)
    {
        return;
    }
    try
    {
        work();
    }
    catch (const std::exception&)
    {
        mAnswer.failure = std::current_exception();
    }
}

void SenderComponent::describe(iAP2MsgData* data)
{
    mAnswer = Answer();
    mTransaction = nullptr;
    mDescription = static_cast<const Description*>(data->pParam1);
}

void SenderComponent::marshal(iAP2MsgData* data)
{
    step(
        [&]
        {
            if (mDescription == nullptr)
            {
                throw std::logic_error("nothing was described");
            }
            auto* const transaction = static_cast<Transaction*>(data->pParam1);
            sayProgress("sender", "marshals the components");
            *transaction = marshalIdentification(*mDescription);
            mTransaction = transaction;
        });
}

void SenderComponent::send(iAP2MsgData* data)
{
    step(
        [&]
        {
            if (mTransaction == nullptr)
            {
                throw std::logic_error("nothing was marshalled");
            }
            const std::size_t size = mTransaction->size();
            sayProgress("sender", "sends " + std::to_string(size) + " bytes");
            awaitProgress(); // from here on the reader speaks
            sendTransaction(static_cast<int>(data->dParam1), *mTransaction);
            mAnswer.sentBytes = size;
        });
}

void SenderComponent::report(iAP2MsgData* data)
{
    *static_cast<Answer*>(data->pParam1) = mAnswer;
    // The last touch of what belongs to the thread that asks.
    *static_cast<std::atomic<bool>*>(data->pParam2) = true;
}

} // namespace identification
