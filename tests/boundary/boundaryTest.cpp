/**
 * The shared library from outside: what a client sees that includes the installed headers, links
 * libKorvane.so and nothing else.
 */
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <pthread.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <korvane/ByteArray.h>
#include <korvane/iAP2ExtLog.h>
#include <korvane/iAp2LogUtil.h>
#include <korvane/iAp2Marshal.h>
#include <korvane/iAP2MsgHandler.h>
#include <korvane/iAP2Utils.h>
#include <korvane/SharedContext.h>
#include <korvane/utils.h>

#include "AllocationCounter.h"
#include "cClient.h"
#include "TraceRecorder.h"

#if !defined(__OPTIMIZE__) || defined(IAP2_MARSHAL_NO_INLINE) || defined(IAP2_BYTEARRAY_NO_INLINE)
#error "this file is compiled for the inline forms"
#endif

namespace
{

/** How often the library's typed operations were called from this executable. */
int libraryCalls = 0;

} // namespace

// The executable is linked with --wrap for these, so that its calls to the library come here first.
// NOLINTBEGIN(bugprone-reserved-identifier): the names are the linker's
#define KORVANE_TEST_COUNT_CALLS(Name, Type)                                                       \
    extern "C" void __real_iAp2MarshalPut##Name(MarshalIo* mio, Type value);                       \
    extern "C" Type __real_iAp2MarshalGet##Name(MarshalIo* mio);                                   \
    extern "C" void __wrap_iAp2MarshalPut##Name(MarshalIo* mio, Type value)                        \
    {                                                                                              \
        ++libraryCalls;                                                                            \
        __real_iAp2MarshalPut##Name(mio, value);                                                   \
    }                                                                                              \
    extern "C" Type __wrap_iAp2MarshalGet##Name(MarshalIo* mio)                                    \
    {                                                                                              \
        ++libraryCalls;                                                                            \
        return __real_iAp2MarshalGet##Name(mio);                                                   \
    }

IAP2_MARSHAL_FOR_EACH_TYPE(KORVANE_TEST_COUNT_CALLS)
// NOLINTEND(bugprone-reserved-identifier)

namespace
{

using support::allocationCount;
using support::takeMessages;
using support::takeTraces;
using testing::ElementsAre;
using testing::IsEmpty;

class BoundaryTest : public support::TraceTest
{
};

/** Lets the recorder forget what it is told, so that only the library's allocations count. */
class Unrecorded
{
public:
    Unrecorded()
    {
        support::record(false);
    }
    ~Unrecorded()
    {
        support::record(true);
    }
    Unrecorded(const Unrecorded&) = delete;
    Unrecorded& operator=(const Unrecorded&) = delete;
};

TEST_F(BoundaryTest, LogPrint_WhenTheExecutableHasATraceFunction_CallsThatOne)
{
    logPrint(40, "IAP2", "Sources/x.cpp", 5, "n[%d]", 7);
    EXPECT_THAT(takeMessages(), ElementsAre("I n[7]"));
}

TEST_F(BoundaryTest, Traces_WhenBuiltAnywhere_NameTheSourceRelativeToTheProject)
{
    char text[] = "x";
    iAP2ExtLog(0, text);
    EXPECT_EQ(takeTraces().at(0).path, "Sources/LOG/EXTERNEL_LOG/Quilmar/iAP2ExtLog.cpp");
}

TEST_F(BoundaryTest, AllocationCounter_WhenTheHeapIsUsed_Counts)
{
    const std::size_t before = allocationCount();
    iAP2_free(iAP2_malloc(8));
    EXPECT_EQ(allocationCount(), before + 1);
}

TEST_F(BoundaryTest, LogPrint_WhenALineIsPrinted_AllocatesNothing)
{
    const Unrecorded unrecorded;
    const std::string longText(2000, 't');
    logPrint(90, "IAP2", "a/b", 1, "%s", longText.c_str());
    const std::size_t before = allocationCount();
    for (int i = 0; i < 100; ++i)
    {
        logPrint(90, "IAP2", "a/b", i, "value[%d] size[%zu] text[%s] %g", i, longText.size(),
                 longText.c_str(), 0.5);
        logPrint(20, "IAP2", nullptr, i, "value[%d]", i);
        getCurrentTimeString();
    }
    EXPECT_EQ(allocationCount(), before);
}

TEST_F(BoundaryTest, LogPrint_WhenALineIsSuppressed_AllocatesNothing)
{
    setLogLevel(91);
    const std::size_t before = allocationCount();
    logPrint(90, "IAP2", "a/b", 1, "value[%d]", 1);
    EXPECT_EQ(allocationCount(), before);
}

TEST_F(BoundaryTest, SendMsg_WhenARecordTravels_TakesOneNodeAndNothingElse)
{
    constexpr std::size_t kRecords = 50; // fit into the mailbox
    const Unrecorded unrecorded;
    std::vector<std::size_t> countsOfHandler;
    countsOfHandler.reserve(2 * kRecords);
    iAP2MsgHandler handler;
    handler.registerEventTable(
        1, "count",
        new IAP2Delegate<void, iAP2MsgData*>([&](iAP2MsgData*)
                                             { countsOfHandler.push_back(allocationCount()); }));
    handler.start();

    std::size_t before = allocationCount();
    for (std::size_t i = 0; i < kRecords; ++i)
    {
        handler.sendMsgV(1);
    }
    EXPECT_EQ(allocationCount(), before + kRecords);

    before = allocationCount();
    for (std::size_t i = 0; i < kRecords; ++i)
    {
        handler.sendMsgSyncV(1);
    }
    EXPECT_EQ(allocationCount(), before + 2 * kRecords); // each record and its announcement
    EXPECT_EQ(countsOfHandler.size(), 2 * kRecords);
    EXPECT_EQ(countsOfHandler.front(), countsOfHandler.back());
}

TEST_F(BoundaryTest, MsgBox_WhenTheRecordIsTheClients_MovesItsBytes)
{
    struct Sample
    {
        std::uint8_t channel;
        float volts[4];
    };
    iAP2MsgBox<Sample> box(2);
    for (std::uint8_t channel = 1; channel <= 3; ++channel)
    {
        Sample sample{channel, {0.5F, 1.5F, 2.5F, 3.5F}};
        EXPECT_EQ(box.sendMessage(&sample), int{sizeof(Sample)});
    }
    Sample received{};
    EXPECT_EQ(box.receiveMessageSync(&received), 0);
    EXPECT_EQ(box.receiveMessage(&received), int{sizeof(Sample)});
    EXPECT_EQ(received.channel, 2); // the first of three was one too many
    EXPECT_THAT(received.volts, ElementsAre(0.5F, 1.5F, 2.5F, 3.5F));
    EXPECT_THAT(takeMessages(),
                testing::Contains("E sendMessage: queue full, max_size_2, delete oldest"));
}

TEST_F(BoundaryTest, SharedContext_WhenSeenFromOutside_IsTheLibrarysOneInstance)
{
    EXPECT_EQ(IAP2::SharedContext::mInstance, nullptr);
    IAP2::SharedContext* const instance = IAP2::SharedContext::getInstance();
    EXPECT_NE(instance, nullptr);
    EXPECT_EQ(IAP2::SharedContext::mInstance, instance);
    EXPECT_EQ(IAP2::SharedContext::getInstance(), instance);
    EXPECT_THAT(takeMessages(), ElementsAre("D SharedContext()"));
    delete instance; // as a client may; the library never does
    IAP2::SharedContext::mInstance = nullptr;
    EXPECT_THAT(takeMessages(), ElementsAre("D ~SharedContext()"));
}

TEST_F(BoundaryTest, Marshal_WhenValuesArePutAndTaken_AllocatesNothing)
{
    const Unrecorded unrecorded;
    std::vector<std::uint8_t> buffer(1024);
    char name[] = "name";
    UARTTransportComponent uart{1, 1, {5, name}, 7};
    MarshalIo mio{};
    const std::size_t before = allocationCount();
    iAp2MarshalInit(&mio, buffer.data(), buffer.size(), IAP2_TXN_PAYLOAD_OFFSET);
    iAp2MarshalPutUint64(&mio, 1);
    iAp2MarshalPutBytes(&mio, "bytes", 5);
    MarshalingByComponentType(&uart, &mio, IAP2_COMPONENT_UART_TRANSPORT);
    iAp2MarshalPutBytes(&mio, nullptr, 5);
    iAp2MarshalAlloc(&mio, 100000);
    iAp2MarshalInitFromTxn(&mio, buffer.data());
    iAp2MarshalGetUint64(&mio);
    std::uint32_t length = 0;
    iAp2MarshalGetBytes(&mio, &length);
    EXPECT_EQ(allocationCount(), before);
}

TEST_F(BoundaryTest, LogPrint_WhenThreadsPrintAndReadTheStampAndSetTheLevel_StaysWhole)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            [i]
            {
                for (int n = 0; n < 1000; ++n)
                {
                    logPrint(90, "IAP2", "a/b", i, "n[%d]", n);
                    getCurrentTimeString();
                    setLogLevel(n % 90);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    setLogLevel(0);
    EXPECT_EQ(takeMessages().size(), 4000U);
}

/** Ends a thread inside the trace library, below `print`, and expects that its stack is unwound. */
void expectCancellable(void (*print)())
{
    struct Frame
    {
        bool& unwound;
        ~Frame()
        {
            unwound = true;
        }
    };
    struct Work
    {
        void (*print)();
        bool unwound = false;
    } work{print};
    support::onTrace(
        [](const std::string&)
        {
            pthread_cancel(pthread_self());
            pthread_testcancel();
        });
    pthread_t thread;
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void* argument) -> void*
                  {
                      Work& own = *static_cast<Work*>(argument);
                      const Frame frame{own.unwound};
                      own.print();
                      return nullptr;
                  },
                  &work),
              0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    support::onTrace(nullptr);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(work.unwound);
}

TEST_F(BoundaryTest, LogPrint_WhenCancelledInTheTraceLibrary_UnwindsTheStack)
{
    expectCancellable([] { logPrint(90, "IAP2", "a/b", 1, "n[%d]", 7); });
    expectCancellable([] { iAP2_free(nullptr); });
}

/* ---- The inline forms of the typed operations ---- */

template <typename Value>
void expectInlineForm(void (*put)(MarshalIo*, Value), Value (*get)(MarshalIo*), std::size_t slots)
{
    const auto value = static_cast<Value>(0x8182838485868788);
    for (std::size_t room = 0; room <= 12; ++room)
    {
        std::vector<std::uint8_t> buffer(IAP2_TXN_PAYLOAD_OFFSET + room, 0xEE);
        MarshalIo out{};
        iAp2MarshalInit(&out, buffer.data(), buffer.size(), IAP2_TXN_PAYLOAD_OFFSET);
        put(&out, value);

        const bool fits = room >= 4 * slots;
        std::vector<std::uint8_t> expected(room, 0xEE);
        if (fits)
        {
            std::memcpy(expected.data(), &value, sizeof value);
        }
        EXPECT_EQ(std::vector<std::uint8_t>(buffer.begin() + IAP2_TXN_PAYLOAD_OFFSET, buffer.end()),
                  expected);
        EXPECT_EQ(out.data - out.data0, static_cast<std::ptrdiff_t>(fits ? 4 * slots : 0));
        EXPECT_EQ(out.dataAvail, fits ? room - 4 * slots : room);
        EXPECT_EQ(out.flags, fits ? 0U : 2U);

        const auto length = static_cast<std::uint32_t>(room);
        std::memcpy(&buffer[IAP2_TXN_LENGTH_OFFSET], &length, sizeof length);
        MarshalIo in{};
        iAp2MarshalInitFromTxn(&in, buffer.data());
        EXPECT_EQ(get(&in), fits ? value : Value{0});
        EXPECT_EQ(in.data - in.data0, static_cast<std::ptrdiff_t>(fits ? 4 * slots : 0));
        EXPECT_EQ(in.dataAvail, fits ? room - 4 * slots : 0);
        EXPECT_EQ(in.flags, fits ? 1U : 3U);

        const std::vector<std::string> messages = takeMessages();
        if (fits)
        {
            EXPECT_THAT(messages, IsEmpty());
        }
        else
        {
            EXPECT_THAT(messages,
                        ElementsAre("E ERROR : iAp2MarshalAlloc() overflow size[" +
                                        std::to_string(4 * slots) + "] dataAvail[" +
                                        std::to_string(room) + "]",
                                    "E iAp2MarshalAlloc error : overflow",
                                    "E ERROR : iAp2MarshalGet() Buffer overflow. dataAvail. mio[0] "
                                    "size[" +
                                        std::to_string(4 * slots) + "]",
                                    "E iAp2MarshalGet error : overflow"));
        }
    }
}

/**
 * How many of the library's typed operations serve expectInlineForm(), which puts and takes for 13
 * sizes of the room. What does not fit is left to operations without a type, but for 64 bits to
 * iAp2MarshalGetInt64(), which has no inline form.
 */
int callsOfTypedOperations(const std::string& name)
{
    return name == "Int64" ? 13 : name == "Uint64" ? 8 : 0;
}

/** Calls inside a lambda, where the compiler sees the inline form; an address is the library's. */
#define KORVANE_TEST_INLINE_FORM(Name, Type)                                                       \
    TEST_F(BoundaryTest, InlinePut##Name##AndGet##Name##_WhenRoomVaries_BehaveAsTheLibrary)        \
    {                                                                                              \
        libraryCalls = 0;                                                                          \
        expectInlineForm<Type>(                                                                    \
            [](MarshalIo* mio, Type value) { iAp2MarshalPut##Name(mio, value); },                  \
            [](MarshalIo* mio) { return iAp2MarshalGet##Name(mio); }, sizeof(Type) == 8 ? 2 : 1);  \
        EXPECT_EQ(libraryCalls, callsOfTypedOperations(#Name));                                    \
        expectInlineForm<Type>(&iAp2MarshalPut##Name, &iAp2MarshalGet##Name,                       \
                               sizeof(Type) == 8 ? 2 : 1);                                         \
    }

IAP2_MARSHAL_FOR_EACH_TYPE(KORVANE_TEST_INLINE_FORM)

/* ---- Queued log ---- */

TEST_F(BoundaryTest, QueueHead_WhenAClientNamesIt_IsTheLibrarysOwn)
{
    // The library stores the address of the field as it sees it.
    EXPECT_EQ(iAp2ExternelLogWriteAddQueue(IAP2_LOG_INFO, "text", 4), 0);
    EXPECT_EQ(my_tailq_head_iAP2.tqh_last, &my_tailq_head_iAP2.tqh_first);
}

TEST_F(BoundaryTest, QueuedLog_WhenTextsAreQueued_HandsThemOnInTheirOrder)
{
    support::LineCounter lines("queued");
    ASSERT_EQ(iAp2ExternelLogWriteInit(), 0);
    for (const char* text : {"queued 1", "queued 2", "queued 3"})
    {
        EXPECT_EQ(iAp2ExternelLogWriteAddQueue(IAP2_LOG_ERROR, text, std::strlen(text)), 0);
    }
    lines.waitFor(3);
    const std::vector<support::Trace> traces = support::takeTraces();
    ASSERT_EQ(traces.size(), 3U);
    EXPECT_EQ(traces[0].text, "queued 1");
    EXPECT_EQ(traces[1].text, "queued 2");
    EXPECT_EQ(traces[2].text, "queued 3");
    EXPECT_EQ(traces[2].severity, 192);

    // At once, or when the writer looks the next time.
    iAp2ExternelLogWriteAddQueue(IAP2_LOG_ERROR, "queued 4", 8);
    lines.waitFor(4);
    iAp2ExternelLogWriteStop();
}

/* ---- Byte array ---- */

TEST_F(BoundaryTest, ByteArray_WhenItsLifeIsFollowed_TakesOneBlockForEachBuffer)
{
    char bytes[] = "abcdefgh";
    std::size_t before = allocationCount();
    const auto taken = [&before]
    {
        const std::size_t now = allocationCount();
        return now - std::exchange(before, now);
    };
    IAP2::ByteArray array;
    EXPECT_EQ(taken(), 1U);
    array.append(bytes, 8);
    EXPECT_EQ(taken(), 1U);
    array.append('i');
    EXPECT_EQ(taken(), 1U);
    array.reserve(2000);
    EXPECT_EQ(taken(), 1U);
    for (int i = 0; i < 100; ++i)
    {
        array.append(bytes, 8).append(bytes).append('i');
    }
    array.resize(9);
    EXPECT_EQ(taken(), 0U);
    IAP2::ByteArray copy(array);
    EXPECT_EQ(taken(), 1U);
    const IAP2::ByteArray slice = array.mid(1, 4);
    EXPECT_EQ(taken(), 1U);
    copy = slice;
    EXPECT_EQ(taken(), 1U);
    copy = std::move(array);
    EXPECT_EQ(taken(), 0U);
    EXPECT_EQ(copy.length(), 9);
    copy.clear();
    EXPECT_EQ(taken(), 1U);
    copy.resize(2);
    EXPECT_EQ(taken(), 1U);
    copy.clear();
    EXPECT_EQ(taken(), 0U);
    EXPECT_THAT(takeMessages(), IsEmpty());
    array = copy; // NOLINT(bugprone-use-after-move): so that it ends silently
}

TEST_F(BoundaryTest, ByteArray_WhenThereIsNoBuffer_NamesItsSource)
{
    {
        IAP2::ByteArray none(nullptr, 0);
    }
    const std::vector<support::Trace> traces = takeTraces();
    ASSERT_EQ(traces.size(), 2U);
    EXPECT_EQ(support::columnsOf(traces[0].text).file, "ByteArray.cpp");
    EXPECT_EQ(support::columnsOf(traces[1].text).file, "ByteArray.cpp");
}

/* ---- Every exported function, from C ---- */

TEST_F(BoundaryTest, CClient_WhenItUsesEveryFunctionOfTheHeaders_SucceedsThroughout)
{
    EXPECT_STREQ(runCClient(), "");
}

TEST_F(BoundaryTest, TextFunctions_WhenCalledFromOutside_FillAndReadRecords)
{
    CmdSaveParam mac{};
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mac, "001A7DDA7113"), 0);
    EXPECT_EQ(mac.value[5], 0x13);
    iAP2_free(mac.value);

    CmdSaveUtf8Param text{};
    char name[] = "Navi";
    EXPECT_EQ(reSettingUtf8ParamFromCharValue(&text, name), 0);
    EXPECT_STREQ(text.value, "Navi");

    std::uint8_t buffer[IAP2_TXN_PAYLOAD_OFFSET + 16] = {};
    MarshalIo mio{};
    iAp2MarshalInit(&mio, buffer, sizeof buffer, IAP2_TXN_PAYLOAD_OFFSET);
    iAp2MarshalPutBytes(&mio, text.value, text.size);
    const std::uint32_t length = iAp2MarshalGetUsedSize(&mio) - IAP2_TXN_PAYLOAD_OFFSET;
    std::memcpy(buffer + IAP2_TXN_LENGTH_OFFSET, &length, sizeof length);
    iAP2_free(text.value);

    CmdSaveUtf8Param received{};
    iAp2MarshalInitFromTxn(&mio, buffer);
    EXPECT_EQ(reSettingUtf8ParamForCPP(&received, &mio), 0);
    EXPECT_STREQ(received.value, "Navi");
    delete[] received.value;
}

} // namespace
