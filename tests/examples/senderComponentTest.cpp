#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <future>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <korvane/iAp2LogUtil.h>

#include "descriptionReader.h"
#include "failures.h"
#include "NoThreads.h"
#include "progress.h"
#include "records.h"
#include "roles.h"
#include "senderComponent.h"
#include "ShortMemory.h"
#include "SocketPair.h"
#include "TraceRecorder.h"
#include "transport.h"

using namespace identification;

namespace
{

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Ne;

/** Which threads have dispatched, and the lines of the dispatches, in order. */
class Dispatches
{
public:
    Dispatches()
    {
        support::onTrace(
            [this](const std::string& text)
            {
                if (text.find(" callEventHandler") != std::string::npos)
                {
                    const std::lock_guard<std::mutex> lock(mMutex);
                    mThreads.push_back(std::this_thread::get_id());
                    mMessages.push_back(support::columnsOf(text).message);
                }
            });
    }
    ~Dispatches()
    {
        support::onTrace({});
    }
    Dispatches(const Dispatches&) = delete;
    Dispatches& operator=(const Dispatches&) = delete;

    std::vector<std::thread::id> threads()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mThreads;
    }
    std::vector<std::string> messages()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mMessages;
    }

private:
    std::mutex mMutex;
    std::vector<std::thread::id> mThreads;
    std::vector<std::string> mMessages;
};

class Sender : public support::TraceTest
{
protected:
    /** The text of a failure, or "none". */
    static std::string textOf(const SenderComponent::Answer& answer)
    {
        try
        {
            if (answer.failure != nullptr)
            {
                std::rethrow_exception(answer.failure);
            }
        }
        catch (const SystemError& error)
        {
            return error.what();
        }
        catch (const std::bad_alloc&)
        {
            return "no memory";
        }
        catch (const std::logic_error& error)
        {
            return std::string("misuse: ") + error.what();
        }
        return "none";
    }

    static std::string own(const std::string& message)
    {
        return "sender[" + std::to_string(getpid()) + "]: " + message;
    }

    /** Nothing was sent, and nobody can send any more. */
    static void expectNothingIn(SocketPair& sockets)
    {
        sockets.sender.reset();
        std::uint8_t byte = 0;
        EXPECT_EQ(read(sockets.reader.get(), &byte, sizeof byte), 0);
    }

    const Description description = readDescription(IDENTIFICATION_INPUT);
    Transaction transaction;
};

/* ---- The steps ------------------------------------------------------------------------------- */

TEST_F(Sender, Steps_WhenPosted_RunInTheirOrderOnOneThreadOfTheirOwn)
{
    SocketPair sockets;
    SenderComponent component;
    Dispatches dispatches;
    component.postDescribe(description);
    component.postMarshal(transaction);
    component.postSend(sockets.sender.get());
    const SenderComponent::Answer answer = component.answer();

    EXPECT_THAT(dispatches.messages(),
                ElementsAre("callEventHandler: (describe) ", "callEventHandler: (marshal) ",
                            "callEventHandler: (send) ", "callEventHandlerSync: (report) "));
    const std::vector<std::thread::id> threads = dispatches.threads();
    ASSERT_FALSE(threads.empty());
    EXPECT_THAT(threads, AllOf(Each(Ne(std::this_thread::get_id())), Each(threads[0])));

    EXPECT_EQ(textOf(answer), "none");
    EXPECT_EQ(answer.sentBytes, 1140U);
    const Transaction received = receiveTransaction(sockets.reader.get());
    EXPECT_EQ(received.bytes, marshalIdentification(description).bytes);
    EXPECT_EQ(transaction.bytes, received.bytes);
    EXPECT_EQ(transaction.payloadSize, received.payloadSize);
}

TEST_F(Sender, Send_WhenProgressIsShown_ComesBehindTheSendersLines)
{
    SocketPair sockets;
    std::vector<std::string> lines;
    std::vector<ssize_t> bytesThere;
    support::onTrace(
        [&](const std::string& text)
        {
            if (text.rfind("sender[", 0) == 0) // on the writer's thread alone
            {
                std::uint8_t byte = 0;
                lines.push_back(text);
                bytesThere.push_back(
                    recv(sockets.reader.get(), &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT));
            }
        });
    {
        const ProgressLog log(IAP2_LOG_INFO);
        SenderComponent component;
        runSender(component, sockets.sender.get(), description);
    }
    support::onTrace({});
    EXPECT_THAT(lines, ElementsAre(own("marshals the components"), own("sends 1140 bytes")));
    EXPECT_THAT(bytesThere, ElementsAre(-1, -1));
    EXPECT_EQ(receiveTransaction(sockets.reader.get()).size(), 1140U);
}

TEST_F(Sender, Steps_WhenPostedInTheWrongOrder_AreMisuse)
{
    SocketPair sockets;
    SenderComponent component;
    component.postMarshal(transaction);
    EXPECT_EQ(textOf(component.answer()), "misuse: nothing was described");

    component.postDescribe(description);
    component.postSend(sockets.sender.get());
    component.postMarshal(transaction);
    const SenderComponent::Answer answer = component.answer();
    EXPECT_EQ(textOf(answer), "misuse: nothing was marshalled");
    EXPECT_EQ(answer.sentBytes, 0U);
    EXPECT_EQ(transaction.payloadSize, 0U);
    expectNothingIn(sockets);
}

TEST_F(Sender, Describe_WhenSomethingWasSentBefore_BeginsAnew)
{
    SocketPair sockets;
    SenderComponent component;
    component.postDescribe(description);
    component.postMarshal(transaction);
    component.postSend(sockets.sender.get());
    EXPECT_EQ(component.answer().sentBytes, 1140U);

    SocketPair others;
    component.postDescribe(description);
    component.postSend(others.sender.get());
    const SenderComponent::Answer answer = component.answer();
    EXPECT_EQ(answer.sentBytes, 0U);
    EXPECT_EQ(textOf(answer), "misuse: nothing was marshalled");
    expectNothingIn(others);
}

/* ---- The answer ------------------------------------------------------------------------------ */

TEST_F(Sender, Answer_WhenNothingWasSent_IsZero)
{
    SenderComponent component;
    SenderComponent::Answer answer = component.answer();
    EXPECT_EQ(answer.sentBytes, 0U);
    EXPECT_EQ(textOf(answer), "none");

    component.postDescribe(description);
    component.postMarshal(transaction);
    answer = component.answer();
    EXPECT_EQ(answer.sentBytes, 0U);
    EXPECT_EQ(textOf(answer), "none");
    EXPECT_EQ(transaction.size(), 1140U);
}

/* ---- Failures -------------------------------------------------------------------------------- */

TEST_F(Sender, Send_WhenReaderIsGone_IsHandedBackAndLeavesTheHandlerUsable)
{
    SocketPair broken;
    broken.reader.reset();
    SocketPair sockets;
    SenderComponent component;
    component.postDescribe(description);
    component.postMarshal(transaction);
    component.postSend(broken.sender.get());
    component.postSend(sockets.sender.get()); // behind a failure
    for (int time = 0; time < 2; ++time)
    {
        const SenderComponent::Answer answer = component.answer();
        EXPECT_EQ(textOf(answer), "sending failed: Broken pipe");
        EXPECT_EQ(answer.sentBytes, 0U);
    }
    expectNothingIn(sockets);

    SocketPair others;
    component.postDescribe(description);
    component.postMarshal(transaction);
    component.postSend(others.sender.get());
    const SenderComponent::Answer answer = component.answer();
    EXPECT_EQ(textOf(answer), "none");
    EXPECT_EQ(answer.sentBytes, 1140U);
    EXPECT_EQ(receiveTransaction(others.reader.get()).bytes, transaction.bytes);
}

TEST_F(Sender, Marshal_WhenDescriptionDoesNotFit_IsHandedBackAndNothingIsSent)
{
    Description large = description;
    large.uart->name.text = std::string(kPayloadCapacity, 'x');
    SocketPair sockets;
    SenderComponent component;
    component.postDescribe(large);
    component.postMarshal(transaction);
    component.postSend(sockets.sender.get());
    const SenderComponent::Answer answer = component.answer();
    EXPECT_EQ(textOf(answer), "the identification does not fit 8120 bytes");
    EXPECT_EQ(answer.sentBytes, 0U);
    EXPECT_EQ(transaction.payloadSize, 0U);
    expectNothingIn(sockets);
}

TEST_F(Sender, Marshal_WhenMemoryIsShort_IsHandedBack)
{
    constexpr std::size_t large = 1024 * 1024;
    Description larger = description;
    larger.uart->name.text = std::string(2 * large, 'x'); // marshalling takes a copy
    SenderComponent component;
    component.postDescribe(larger);
    {
        const ShortMemory limit(large);
        component.postMarshal(transaction);
        EXPECT_EQ(textOf(component.answer()), "no memory");
    }
    component.postDescribe(description);
    component.postMarshal(transaction);
    EXPECT_EQ(textOf(component.answer()), "none");
    EXPECT_EQ(transaction.size(), 1140U);
}

TEST_F(Sender, Post_WhenMemoryIsShort_EndsTheProcess)
{
    EXPECT_EXIT(
        {
            support::record(false);
            SenderComponent component;
            const ShortMemory limit(0);
            component.postDescribe(description);
        },
        testing::ExitedWithCode(kSystem), "^identification: out of memory\n$");
}

TEST_F(Sender, Construct_WhenThereIsNoThread_Throws)
{
    const NoThreads none;
    std::string text = "none";
    try
    {
        const SenderComponent component;
    }
    catch (const SystemError& error)
    {
        text = error.what();
    }
    EXPECT_EQ(text, "no thread for the sender's handler");
}

TEST_F(Sender, RunSender_WhenAStepFails_ThrowsWhatTheStepThrew)
{
    SocketPair broken;
    broken.reader.reset();
    SocketPair sockets;
    SenderComponent component;
    std::string text = "none";
    try
    {
        runSender(component, broken.sender.get(), description);
    }
    catch (const SystemError& error)
    {
        text = error.what();
    }
    EXPECT_EQ(text, "sending failed: Broken pipe");

    const Transaction sent = runSender(component, sockets.sender.get(), description);
    EXPECT_EQ(receiveTransaction(sockets.reader.get()).bytes, sent.bytes);
    EXPECT_EQ(sent.size(), 1140U);
}

/* ---- The end --------------------------------------------------------------------------------- */

TEST_F(Sender, Destroy_WhenNothingWasPosted_EndsTheThread)
{
    {
        const SenderComponent component;
    }
    std::vector<std::string> messages = support::takeMessages();
    messages.erase(std::remove_if(messages.begin(), messages.end(),
                                  [](const std::string& message) { return message[0] == 'D'; }),
                   messages.end());
    EXPECT_THAT(messages,
                ElementsAre("I " + own("ends its handler"), "E run: exit loop by EVT_LINKLOOP_EXIT",
                            "E iAP2MsgHandler:~iAP2Thread:join() fail"));
}

TEST_F(Sender, Destroy_WhenNothingWasSent_DoesWhatWasPostedFirst)
{
    // The first step is not done before the end has begun.
    std::promise<void> end;
    const std::shared_future<void> hasBegun = end.get_future().share();
    support::onTrace(
        [&](const std::string& text)
        {
            if (text.find("ends its handler") != std::string::npos)
            {
                end.set_value();
            }
            else if (text.find("callEventHandler: (describe)") != std::string::npos)
            {
                hasBegun.wait();
            }
        });
    std::vector<Transaction> transactions(20);
    {
        SenderComponent component;
        component.answer(); // the thread has begun
        for (Transaction& one : transactions)
        {
            component.postDescribe(description);
            component.postMarshal(one);
        }
    }
    support::onTrace({});
    const Transaction expected = marshalIdentification(description);
    for (const Transaction& one : transactions)
    {
        EXPECT_EQ(one.bytes, expected.bytes);
    }
}

} // namespace
