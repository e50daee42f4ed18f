#include <korvane/iAp2Marshal.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TraceRecorder.h"

namespace
{

using support::takeMessages;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint8_t kFill = 0xEE;
constexpr std::size_t kMaxSize = std::numeric_limits<std::size_t>::max();
constexpr char kAllocFailed[] = "E iAp2MarshalAlloc error : overflow";
constexpr char kGetFailed[] = "E iAp2MarshalGet error : overflow";

std::string allocOverflow(std::size_t size, std::size_t available)
{
    return "E ERROR : iAp2MarshalAlloc() overflow size[" + std::to_string(size) + "] dataAvail[" +
           std::to_string(available) + "]";
}

std::string getOverflow(std::uint32_t size)
{
    return "E ERROR : iAp2MarshalGet() Buffer overflow. dataAvail. mio[0] size[" +
           std::to_string(size) + "]";
}

/** A buffer that is recognisably untouched, with a writing cursor. */
class Writing
{
public:
    explicit Writing(std::size_t body, std::size_t header = 0)
        : bytes(header + body, kFill), mHeader(header)
    {
        iAp2MarshalInit(&mio, bytes.data(), bytes.size(), header);
    }
    std::vector<std::uint8_t> body() const
    {
        return {bytes.begin() + static_cast<std::ptrdiff_t>(mHeader), bytes.end()};
    }
    std::size_t used() const
    {
        return static_cast<std::size_t>(mio.data - mio.data0);
    }

    std::vector<std::uint8_t> bytes;
    MarshalIo mio{};

private:
    std::size_t mHeader;
};

/** A received transaction with a payload, behind which foreign bytes lie. */
class Reading
{
public:
    explicit Reading(const std::vector<std::uint8_t>& payload)
        : mTxn(IAP2_TXN_PAYLOAD_OFFSET + payload.size() + 16, kFill)
    {
        const auto length = static_cast<std::uint32_t>(payload.size());
        std::memcpy(&mTxn[IAP2_TXN_LENGTH_OFFSET], &length, sizeof length);
        std::copy(payload.begin(), payload.end(), mTxn.begin() + IAP2_TXN_PAYLOAD_OFFSET);
        iAp2MarshalInitFromTxn(&mio, mTxn.data());
    }
    std::uint8_t* payload()
    {
        return mTxn.data() + IAP2_TXN_PAYLOAD_OFFSET;
    }

    MarshalIo mio{};

private:
    std::vector<std::uint8_t> mTxn;
};

class MarshalTest : public support::TraceTest
{
};

/* ---- Initialisation ---- */

TEST_F(MarshalTest, Init_WhenTheHeaderFits_PutsTheCursorBehindIt)
{
    std::uint8_t buffer[32];
    MarshalIo mio{nullptr, 1, 2, nullptr, 3};
    iAp2MarshalInit(&mio, buffer, sizeof buffer, 12);
    EXPECT_EQ(mio.data, buffer + 12);
    EXPECT_EQ(mio.data0, buffer + 12);
    EXPECT_EQ(mio.headerSize, 12U);
    EXPECT_EQ(mio.dataAvail, 20U);
    EXPECT_EQ(mio.flags, 0U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(MarshalTest, Init_WhenTheHeaderFillsTheBuffer_LeavesNoRoom)
{
    std::uint8_t buffer[32];
    MarshalIo mio{};
    iAp2MarshalInit(&mio, buffer, sizeof buffer, sizeof buffer);
    EXPECT_EQ(mio.data, buffer + sizeof buffer);
    EXPECT_EQ(mio.headerSize, sizeof buffer);
    EXPECT_EQ(mio.dataAvail, 0U);
    EXPECT_EQ(mio.flags, 0U);
    EXPECT_EQ(iAp2MarshalGetUsedSize(&mio), sizeof buffer);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(MarshalTest, Init_WhenTheHeaderIsLargerThanTheBuffer_MarksTheOverflowAndKeepsThePointers)
{
    std::uint8_t buffer[32];
    std::uint8_t other[4];
    MarshalIo mio{other, 1, 2, other + 1, 1};
    iAp2MarshalInit(&mio, buffer, 32, 33);
    EXPECT_EQ(mio.data, other);
    EXPECT_EQ(mio.data0, other + 1);
    EXPECT_EQ(mio.headerSize, 0U);
    EXPECT_EQ(mio.dataAvail, 0U);
    EXPECT_EQ(mio.flags, 2U);
    EXPECT_THAT(takeMessages(),
                ElementsAre("E iAp2MarshalInit() buffer over flow. headerSize[33] maxdata[32]"));
}

TEST_F(MarshalTest, Init_WhenTheHeaderDidNotFit_EveryLaterPutFails)
{
    std::uint8_t buffer[32];
    MarshalIo mio{buffer, 0, 0, buffer, 0};
    iAp2MarshalInit(&mio, buffer, 8, 9);
    takeMessages();
    iAp2MarshalPutUint8(&mio, 1);
    EXPECT_EQ(mio.data, buffer);
    EXPECT_THAT(takeMessages(), ElementsAre(allocOverflow(4, 0), kAllocFailed));
}

TEST_F(MarshalTest, InitFromTxn_WhenCalled_TakesLengthAndPayloadAndLeavesTheHeaderSize)
{
    std::vector<std::uint8_t> txn(72 + 8);
    const std::uint32_t length = 0xFFFFFFFF;
    std::memcpy(&txn[64], &length, sizeof length);
    MarshalIo mio{nullptr, 4711, 1, nullptr, 2};
    iAp2MarshalInitFromTxn(&mio, txn.data());
    EXPECT_EQ(mio.data, txn.data() + 72);
    EXPECT_EQ(mio.data0, txn.data() + 72);
    EXPECT_EQ(mio.dataAvail, 0xFFFFFFFFU);
    EXPECT_EQ(mio.headerSize, 4711U);
    EXPECT_EQ(mio.flags, 1U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(MarshalTest, InitFromTxn_WhenTheRecordIsMisaligned_ReadsItAllTheSame)
{
    std::vector<std::uint8_t> bytes(1 + 72 + 4);
    const std::uint32_t length = 4;
    const std::uint32_t value = 0x01020304;
    std::memcpy(&bytes[1 + 64], &length, sizeof length);
    std::memcpy(&bytes[1 + 72], &value, sizeof value);
    MarshalIo mio{};
    iAp2MarshalInitFromTxn(&mio, &bytes[1]);
    EXPECT_EQ(iAp2MarshalGetUint32(&mio), value);
}

/* ---- Reserving ---- */

TEST_F(MarshalTest, Alloc_WhenItFits_RoundsUpAndClearsNothing)
{
    const struct
    {
        std::size_t size;
        std::size_t taken;
    } rows[] = {{0, 0}, {1, 4}, {3, 4}, {4, 4}, {5, 8}, {8, 8}, {13, 16}, {16, 16}};
    for (const auto& row : rows)
    {
        Writing out(16);
        std::uint8_t* const start = out.mio.data;
        EXPECT_EQ(iAp2MarshalAlloc(&out.mio, row.size), start) << row.size;
        EXPECT_EQ(out.mio.data, start + row.taken) << row.size;
        EXPECT_EQ(out.mio.dataAvail, 16 - row.taken) << row.size;
        EXPECT_THAT(out.bytes, Each(kFill));
    }
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(MarshalTest, Alloc_WhenItDoesNotFit_ReportsTheRoundedSizeAndKeepsTheRoom)
{
    Writing out(8);
    std::uint8_t* const start = out.mio.data;
    EXPECT_EQ(iAp2MarshalAlloc(&out.mio, 9), nullptr);
    EXPECT_EQ(out.mio.data, start);
    EXPECT_EQ(out.mio.dataAvail, 8U);
    EXPECT_EQ(out.mio.flags, 2U);
    EXPECT_THAT(takeMessages(), ElementsAre(allocOverflow(12, 8), kAllocFailed));
    EXPECT_EQ(iAp2MarshalAlloc(&out.mio, 8), start);
    EXPECT_EQ(out.mio.flags, 2U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(MarshalTest, Alloc_WhenTheSizeCannotBeRounded_ReportsOnceAndLeavesTheCursor)
{
    for (const std::size_t size : {kMaxSize, kMaxSize - 1, kMaxSize - 2})
    {
        Writing out(8);
        EXPECT_EQ(iAp2MarshalAlloc(&out.mio, size), nullptr);
        EXPECT_EQ(out.used(), 0U);
        EXPECT_EQ(out.mio.dataAvail, 8U);
        EXPECT_EQ(out.mio.flags, 0U);
        EXPECT_THAT(takeMessages(), ElementsAre(kAllocFailed));
    }
}

TEST_F(MarshalTest, Alloc_WhenTheSizeIsTheLargestThatCanBeRounded_IsAnOrdinaryOverflow)
{
    Writing out(8);
    EXPECT_EQ(iAp2MarshalAlloc(&out.mio, kMaxSize - 3), nullptr);
    EXPECT_EQ(out.mio.flags, 2U);
    EXPECT_THAT(takeMessages(), ElementsAre(allocOverflow(kMaxSize - 3, 8), kAllocFailed));
}

TEST_F(MarshalTest, Alloc_WhenItFails_ReportsFromItsOwnSource)
{
    Writing out(0);
    iAp2MarshalPutUint8(&out.mio, 1);
    const std::vector<support::Trace> traces = support::takeTraces();
    ASSERT_EQ(traces.size(), 2U);
    for (const support::Trace& trace : traces)
    {
        const support::TraceColumns columns = support::columnsOf(trace.text);
        EXPECT_EQ(trace.severity, 192);
        EXPECT_EQ(columns.tag, "IAP2");
        EXPECT_EQ(columns.file, "iAp2Marshal.cpp");
        EXPECT_GT(columns.line, 0);
    }
}

/* ---- Typed values ---- */

/** One row for each typed member: what it puts and takes, and the slots that it uses. */
template <typename Value> struct Member
{
    void (*put)(MarshalIo*, Value);
    Value (*get)(MarshalIo*);
    std::size_t slotSize;
    std::vector<Value> values;
};

template <typename Value> void expectRoundTrip(const Member<Value>& member)
{
    for (const Value value : member.values)
    {
        Writing out(16);
        member.put(&out.mio, value);
        EXPECT_EQ(out.used(), member.slotSize);
        EXPECT_EQ(out.mio.dataAvail, 16 - member.slotSize);

        // The value in the host's order, and everything behind it untouched.
        std::vector<std::uint8_t> expected(16, kFill);
        std::memcpy(expected.data(), &value, sizeof value);
        EXPECT_EQ(out.bytes, expected);

        Reading in(out.bytes);
        EXPECT_EQ(member.get(&in.mio), value);
        EXPECT_EQ(in.mio.data, in.payload() + member.slotSize);
        EXPECT_EQ(in.mio.dataAvail, 16 - member.slotSize);
        EXPECT_EQ(in.mio.flags, 1U);
    }
    EXPECT_THAT(takeMessages(), IsEmpty());
}

template <typename Value> void expectOverflow(const Member<Value>& member)
{
    for (std::size_t room = 0; room < member.slotSize; ++room)
    {
        Writing out(room);
        member.put(&out.mio, 1);
        EXPECT_EQ(out.used(), 0U);
        EXPECT_EQ(out.mio.dataAvail, room);
        EXPECT_EQ(out.mio.flags, 2U);
        EXPECT_THAT(out.bytes, Each(kFill));
        EXPECT_THAT(takeMessages(),
                    ElementsAre(allocOverflow(member.slotSize, room), kAllocFailed));

        Reading in(std::vector<std::uint8_t>(room, 0x11));
        EXPECT_EQ(member.get(&in.mio), 0);
        EXPECT_EQ(in.mio.data, in.payload());
        EXPECT_EQ(in.mio.dataAvail, 0U);
        EXPECT_EQ(in.mio.flags, 3U);
        EXPECT_THAT(
            takeMessages(),
            ElementsAre(getOverflow(static_cast<std::uint32_t>(member.slotSize)), kGetFailed));
    }
}

template <typename Value> std::vector<Value> edgeValues()
{
    return {0,
            1,
            static_cast<Value>(0x5A),
            std::numeric_limits<Value>::min(),
            std::numeric_limits<Value>::max(),
            static_cast<Value>(-1),
            static_cast<Value>(0x0102030405060708)};
}

#define KORVANE_TEST_MEMBER(Name, Type)                                                            \
    TEST_F(MarshalTest, Put##Name##AndGet##Name##_WhenThereIsRoom_KeepTheValueAndThePadding)       \
    {                                                                                              \
        expectRoundTrip<Type>({iAp2MarshalPut##Name, iAp2MarshalGet##Name,                         \
                               sizeof(Type) == 8 ? 8 : 4, edgeValues<Type>()});                    \
    }                                                                                              \
    TEST_F(MarshalTest, Put##Name##AndGet##Name##_WhenTheSlotDoesNotFit_ReportAndFail)             \
    {                                                                                              \
        expectOverflow<Type>(                                                                      \
            {iAp2MarshalPut##Name, iAp2MarshalGet##Name, sizeof(Type) == 8 ? 8 : 4, {}});          \
    }

KORVANE_TEST_MEMBER(Uint8, std::uint8_t)
KORVANE_TEST_MEMBER(Uint16, std::uint16_t)
KORVANE_TEST_MEMBER(Uint32, std::uint32_t)
KORVANE_TEST_MEMBER(Uint64, std::uint64_t)
KORVANE_TEST_MEMBER(Int8, std::int8_t)
KORVANE_TEST_MEMBER(Int16, std::int16_t)
KORVANE_TEST_MEMBER(Int32, std::int32_t)
KORVANE_TEST_MEMBER(Int64, std::int64_t)

TEST_F(MarshalTest, GetSigned_WhenTheTopBitIsSet_ExtendsTheSign)
{
    Reading in({0xFF, 0xEE, 0xEE, 0xEE, 0xFF, 0xEE, 0xEE, 0xEE, 0xFE, 0xFF, 0xEE, 0xEE, 0xFE, 0xFF,
                0xEE, 0xEE});
    EXPECT_EQ(iAp2MarshalGetInt8(&in.mio), -1);
    EXPECT_EQ(iAp2MarshalGetUint8(&in.mio), 255);
    EXPECT_EQ(iAp2MarshalGetInt16(&in.mio), -2);
    EXPECT_EQ(iAp2MarshalGetUint16(&in.mio), 65534);
}

TEST_F(MarshalTest, PutUint32_WhenTheBodyIsFullExactly_AcceptsOneAndRefusesTheNext)
{
    Writing out(4);
    iAp2MarshalPutUint32(&out.mio, 0x01020304);
    EXPECT_EQ(out.mio.flags, 0U);
    EXPECT_EQ(out.mio.dataAvail, 0U);
    const std::vector<std::uint8_t> before = out.bytes;
    iAp2MarshalPutUint32(&out.mio, 5);
    EXPECT_EQ(out.mio.flags, 2U);
    EXPECT_EQ(out.mio.dataAvail, 0U);
    EXPECT_EQ(out.bytes, before);
    EXPECT_THAT(takeMessages(), ElementsAre(allocOverflow(4, 0), kAllocFailed));
}

TEST_F(MarshalTest, PutUint32_WhenALargerPutFailedBefore_StillSucceeds)
{
    Writing out(4);
    iAp2MarshalPutUint64(&out.mio, 1);
    EXPECT_THAT(takeMessages(), ElementsAre(allocOverflow(8, 4), kAllocFailed));
    iAp2MarshalPutUint32(&out.mio, 0xAABBCCDD);
    EXPECT_EQ(out.used(), 4U);
    EXPECT_EQ(out.mio.flags, 2U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(MarshalTest, Get_WhenOneFailed_EveryLaterOneReturnsZero)
{
    Reading in({1, 2, 3, 4, 5, 6});
    EXPECT_EQ(iAp2MarshalGetUint64(&in.mio), 0U); // 6 bytes are not 8
    EXPECT_EQ(iAp2MarshalGetUint8(&in.mio), 0U);
    EXPECT_EQ(iAp2MarshalGetUint16(&in.mio), 0U);
    EXPECT_EQ(iAp2MarshalGetUint32(&in.mio), 0U);
    EXPECT_EQ(iAp2MarshalGetUint64(&in.mio), 0U);
    EXPECT_EQ(iAp2MarshalGetInt8(&in.mio), 0);
    EXPECT_EQ(iAp2MarshalGetInt16(&in.mio), 0);
    EXPECT_EQ(iAp2MarshalGetInt32(&in.mio), 0);
    EXPECT_EQ(iAp2MarshalGetInt64(&in.mio), 0);
    EXPECT_EQ(takeMessages().size(), 18U);

    std::uint32_t length = 99;
    EXPECT_EQ(iAp2MarshalGetBytes(&in.mio, &length), in.payload());
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(in.mio.flags, 3U);
    EXPECT_THAT(takeMessages(), ElementsAre(getOverflow(4), kGetFailed));
}

TEST_F(MarshalTest, Get_WhenThePayloadEndsInsideASlot_DoesNotReadBehindIt)
{
    Reading in({1, 0, 0, 0, 2, 0});
    EXPECT_EQ(iAp2MarshalGetUint16(&in.mio), 1U);
    EXPECT_EQ(iAp2MarshalGetUint16(&in.mio), 0U); // its two bytes are there, its padding is not
    EXPECT_EQ(in.mio.flags, 3U);
    EXPECT_THAT(takeMessages(), ElementsAre(getOverflow(4), kGetFailed));
}

/* ---- Byte strings ---- */

TEST_F(MarshalTest, PutBytes_WhenThereIsRoom_WritesLengthAndBytesAndLeavesThePadding)
{
    Writing out(16);
    iAp2MarshalPutBytes(&out.mio, "abcde", 5);
    EXPECT_EQ(out.used(), 12U);
    EXPECT_EQ(out.bytes, (std::vector<std::uint8_t>{5, 0, 0, 0, 'a', 'b', 'c', 'd', 'e', kFill,
                                                    kFill, kFill, kFill, kFill, kFill, kFill}));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(MarshalTest, PutBytes_WhenTheLengthIsZero_WritesTheLengthSlotOnly)
{
    Writing out(8);
    iAp2MarshalPutBytes(&out.mio, "", 0);
    EXPECT_EQ(out.used(), 4U);
    EXPECT_EQ(out.bytes, (std::vector<std::uint8_t>{0, 0, 0, 0, kFill, kFill, kFill, kFill}));
    Reading in(out.bytes);
    std::uint32_t length = 99;
    EXPECT_EQ(iAp2MarshalGetBytes(&in.mio, &length), in.payload() + 4);
    EXPECT_EQ(length, 0U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(MarshalTest, PutBytes_WhenBytesAreNull_WritesNothingAtAll)
{
    for (const std::uint32_t length : {0U, 5U})
    {
        Writing out(16);
        iAp2MarshalPutBytes(&out.mio, nullptr, length);
        EXPECT_EQ(out.used(), 0U);
        EXPECT_EQ(out.mio.flags, 0U);
        EXPECT_THAT(out.bytes, Each(kFill));
        EXPECT_THAT(
            takeMessages(),
            ElementsAre("E iAp2MarshalPutBytes error : iAp2MarshalPutBytes() bytes is NULL"));
    }
}

TEST_F(MarshalTest, PutBytes_WhenBytesAndCursorAreNull_ReportsTheBytes)
{
    iAp2MarshalPutBytes(nullptr, nullptr, 5);
    EXPECT_THAT(takeMessages(),
                ElementsAre("E iAp2MarshalPutBytes error : iAp2MarshalPutBytes() bytes is NULL"));
}

TEST_F(MarshalTest, PutBytes_WhenOnlyTheLengthFits_KeepsTheLength)
{
    Writing out(8);
    iAp2MarshalPutBytes(&out.mio, "abcde", 5);
    EXPECT_EQ(out.used(), 4U);
    EXPECT_EQ(out.mio.dataAvail, 4U);
    EXPECT_EQ(out.mio.flags, 2U);
    EXPECT_EQ(out.bytes, (std::vector<std::uint8_t>{5, 0, 0, 0, kFill, kFill, kFill, kFill}));
    EXPECT_THAT(takeMessages(), ElementsAre(allocOverflow(8, 4), kAllocFailed));
}

TEST_F(MarshalTest, PutBytes_WhenNothingFits_ReportsLengthAndBytes)
{
    Writing out(0);
    iAp2MarshalPutBytes(&out.mio, "abcde", 5);
    EXPECT_EQ(out.used(), 0U);
    EXPECT_THAT(takeMessages(),
                ElementsAre(allocOverflow(4, 0), kAllocFailed, allocOverflow(8, 0), kAllocFailed));
    iAp2MarshalPutBytes(&out.mio, "", 0);
    EXPECT_THAT(takeMessages(), ElementsAre(allocOverflow(4, 0), kAllocFailed));
}

TEST_F(MarshalTest, PutBytes_WhenBytesOverlapTheirSlot_ReadsThemFromTheClearedSlot)
{
    // The slot of the bytes begins at 4; the source begins before, in and behind it.
    const struct
    {
        std::size_t source;
        std::vector<std::uint8_t> expected;
    } rows[] = {
        {4, {0, 0, 0, 0}}, {5, {0, 0, 0, 9}}, {7, {0, 9, 10, 11}}, {8, {9, 10, 11, 12}},
        {2, {0, 0, 0, 0}}, {1, {0, 0, 0, 0}}, {0, {4, 0, 0, 0}},
    };
    for (const auto& row : rows)
    {
        std::vector<std::uint8_t> bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
        MarshalIo mio{};
        iAp2MarshalInit(&mio, bytes.data(), bytes.size(), 0);
        iAp2MarshalPutBytes(&mio, bytes.data() + row.source, 4);
        EXPECT_EQ(std::vector<std::uint8_t>(bytes.begin() + 4, bytes.begin() + 8), row.expected)
            << row.source;
    }
}

TEST_F(MarshalTest, PutBytes_WhenTheRoundedLengthNeeds33Bits_IsAnOverflow)
{
    Writing out(8);
    iAp2MarshalPutBytes(&out.mio, "x", 0xFFFFFFFF);
    EXPECT_EQ(out.used(), 4U);
    EXPECT_EQ(out.mio.flags, 2U);
    EXPECT_THAT(takeMessages(), ElementsAre(allocOverflow(0x100000000, 4), kAllocFailed));
}

TEST_F(MarshalTest, PutAndGet_WhenMoreThan4GiBAreLeft_CountAllOfThem)
{
    std::uint8_t buffer[8] = {};
    MarshalIo mio{buffer, 0, 0x200000002, buffer, 0};
    iAp2MarshalPutUint32(&mio, 7);
    EXPECT_EQ(mio.dataAvail, 0x1FFFFFFFEU);
    mio = {buffer, 0, 0x200000002, buffer, 1};
    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 7U);
    EXPECT_EQ(mio.dataAvail, 0x1FFFFFFFEU);
}

using GetBytesFunction = void* (*)(MarshalIo*, std::uint32_t*);

class MarshalGetBytesTest : public support::TraceTest,
                            public testing::WithParamInterface<GetBytesFunction>
{
};

INSTANTIATE_TEST_SUITE_P(
    BothForms, MarshalGetBytesTest,
    testing::Values(GetBytesFunction([](MarshalIo* mio, std::uint32_t* length) -> void*
                                     { return iAp2MarshalGetBytes(mio, length); }),
                    GetBytesFunction([](MarshalIo* mio, std::uint32_t* length)
                                     { return iAp2MarshalGetVoidPointer(mio, length); })),
    [](const auto& form) { return form.index == 0 ? "GetBytes" : "GetVoidPointer"; });

TEST_P(MarshalGetBytesTest, GetBytes_WhenTheBytesAreThere_PointsIntoTheBuffer)
{
    Writing out(16);
    iAp2MarshalPutBytes(&out.mio, "abcde", 5);
    iAp2MarshalPutUint32(&out.mio, 7);
    Reading in(out.bytes);
    std::uint32_t length = 0;
    EXPECT_EQ(GetParam()(&in.mio, &length), in.payload() + 4);
    EXPECT_EQ(length, 5U);
    EXPECT_EQ(in.mio.data, in.payload() + 12);
    EXPECT_EQ(iAp2MarshalGetUint32(&in.mio), 7U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_P(MarshalGetBytesTest, GetBytes_WhenTheCursorIsNull_ReportsIt)
{
    std::uint32_t length = 7;
    EXPECT_EQ(GetParam()(nullptr, &length), nullptr);
    EXPECT_EQ(length, 7U);
    EXPECT_THAT(takeMessages(), ElementsAre("E ERROR : iAp2MarshalGetByte() mio is NULL"));
    EXPECT_EQ(GetParam()(nullptr, nullptr), nullptr);
    EXPECT_THAT(takeMessages(), ElementsAre("E ERROR : iAp2MarshalGetByte() mio is NULL"));
}

TEST_P(MarshalGetBytesTest, GetBytes_WhenTheLengthPointerIsNull_ReportsItAndTakesNothing)
{
    Reading in({1, 0, 0, 0, 'x', 0, 0, 0});
    EXPECT_EQ(GetParam()(&in.mio, nullptr), nullptr);
    EXPECT_EQ(in.mio.dataAvail, 8U);
    EXPECT_EQ(in.mio.flags, 1U);
    EXPECT_THAT(takeMessages(), ElementsAre("E ERROR : iAp2MarshalGetByte() size is NULL"));
}

TEST_P(MarshalGetBytesTest, GetBytes_WhenTheBytesAreNotAllThere_ReportsAndKeepsTheClaimedLength)
{
    Reading in({9, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8});
    std::uint32_t length = 0;
    EXPECT_EQ(GetParam()(&in.mio, &length), nullptr);
    EXPECT_EQ(length, 9U);
    EXPECT_EQ(in.mio.data, in.payload() + 4);
    EXPECT_EQ(in.mio.dataAvail, 0U);
    EXPECT_EQ(in.mio.flags, 3U);
    EXPECT_THAT(takeMessages(), ElementsAre(getOverflow(12), kGetFailed));
}

TEST_P(MarshalGetBytesTest, GetBytes_WhenOnlyThePaddingIsMissing_Fails)
{
    Reading in({5, 0, 0, 0, 1, 2, 3, 4, 5});
    std::uint32_t length = 0;
    EXPECT_EQ(GetParam()(&in.mio, &length), nullptr);
    EXPECT_THAT(takeMessages(), ElementsAre(getOverflow(8), kGetFailed));
}

TEST_P(MarshalGetBytesTest, GetBytes_WhenTheLengthCannotBeRounded_ReportsOnceAndKeepsTheRest)
{
    for (const int last : {0xFD, 0xFE, 0xFF})
    {
        const auto low = static_cast<std::uint8_t>(last);
        Reading in({low, 0xFF, 0xFF, 0xFF, 1, 2, 3, 4});
        std::uint32_t length = 0;
        EXPECT_EQ(GetParam()(&in.mio, &length), nullptr);
        EXPECT_EQ(length, 0xFFFFFF00U + low);
        EXPECT_EQ(in.mio.dataAvail, 4U);
        EXPECT_EQ(in.mio.flags, 1U);
        EXPECT_THAT(takeMessages(), ElementsAre(kGetFailed));
    }
}

TEST_P(MarshalGetBytesTest, GetBytes_WhenTheLengthIsTheLargestThatCanBeRounded_IsAnOverflow)
{
    Reading in({0xFC, 0xFF, 0xFF, 0xFF, 1, 2, 3, 4});
    std::uint32_t length = 0;
    EXPECT_EQ(GetParam()(&in.mio, &length), nullptr);
    EXPECT_EQ(length, 0xFFFFFFFCU);
    EXPECT_EQ(in.mio.flags, 3U);
    EXPECT_THAT(takeMessages(), ElementsAre(getOverflow(0xFFFFFFFC), kGetFailed));
}

TEST_P(MarshalGetBytesTest, GetBytes_WhenTheLengthItselfIsMissing_ReturnsTheCursorAndZero)
{
    Reading in({1, 2, 3});
    std::uint32_t length = 7;
    EXPECT_EQ(GetParam()(&in.mio, &length), in.payload());
    EXPECT_EQ(length, 0U);
    EXPECT_THAT(takeMessages(), ElementsAre(getOverflow(4), kGetFailed));
}

/* ---- The used size ---- */

TEST_F(MarshalTest, GetUsedSize_WhenValuesWerePut_CountsThemAndTheHeader)
{
    Writing out(32, 12);
    EXPECT_EQ(iAp2MarshalGetUsedSize(&out.mio), 12U);
    iAp2MarshalPutUint8(&out.mio, 1);
    iAp2MarshalPutBytes(&out.mio, "abcde", 5);
    EXPECT_EQ(iAp2MarshalGetUsedSize(&out.mio), 12U + 16U);
    EXPECT_THAT(std::vector<std::uint8_t>(out.bytes.begin(), out.bytes.begin() + 12), Each(kFill));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(MarshalTest, GetUsedSize_WhenTheCursorIsNull_ReportsIt)
{
    EXPECT_EQ(iAp2MarshalGetUsedSize(nullptr), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre("E ERROR : iAp2MarshalGetUsedSize() mio is NULL"));
}

TEST_F(MarshalTest, GetUsedSize_WhenTheCursorStandsBeforeTheBody_ReportsIt)
{
    std::uint8_t buffer[8];
    MarshalIo mio{buffer, 0, 8, buffer + 4, 0};
    EXPECT_EQ(iAp2MarshalGetUsedSize(&mio), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre("E ERROR : (mio->data - mio->data0) < 0"));
}

TEST_F(MarshalTest, GetUsedSize_WhenTheSumExceeds32Bits_ReportsIt)
{
    std::uint8_t buffer[8];
    MarshalIo mio{buffer + 4, 0xFFFFFFFBU, 4, buffer, 0};
    EXPECT_EQ(iAp2MarshalGetUsedSize(&mio), 0xFFFFFFFFU);
    EXPECT_THAT(takeMessages(), IsEmpty());
    for (const std::size_t headerSize : {std::size_t{0xFFFFFFFC}, kMaxSize - 3, kMaxSize})
    {
        mio.headerSize = headerSize;
        EXPECT_EQ(iAp2MarshalGetUsedSize(&mio), 0U);
        EXPECT_THAT(takeMessages(), ElementsAre("E ERROR : usedSize overflow"));
    }
}

TEST_F(MarshalTest, GetUsedSize_WhenTheBodyAloneExceeds32Bits_ReportsIt)
{
    auto* const start = reinterpret_cast<std::uint8_t*>(0x10000);
    MarshalIo mio{start + 0x100000000, 0, 0, start, 0};
    EXPECT_EQ(iAp2MarshalGetUsedSize(&mio), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre("E ERROR : usedSize overflow"));
}

/* ---- Model ---- */

/** What was put, as a reader should find it. */
struct Put
{
    int kind; // an index into the typed members, or 8 for a byte string
    std::uint64_t value;
    std::string bytes;
};

TEST_F(MarshalTest, PutAndGet_WhenOperationsAreRandom_AgreeWithTheModel)
{
    std::mt19937 random(20260101);
    for (int round = 0; round < 500; ++round)
    {
        Writing out(random() % 200, random() % 20);
        std::vector<std::uint8_t> model;
        std::size_t room = out.mio.dataAvail;
        std::deque<Put> written;
        bool overflowed = false;

        const auto slot = [&](const void* bytes, std::size_t size)
        {
            const std::size_t rounded = (size + 3) / 4 * 4;
            if (rounded > room)
            {
                overflowed = true;
                return false;
            }
            room -= rounded;
            const auto* const begin = static_cast<const std::uint8_t*>(bytes);
            model.insert(model.end(), begin, begin + size);
            model.resize(model.size() + rounded - size, kFill);
            return true;
        };

        for (int step = 0; step < 40; ++step)
        {
            Put put{static_cast<int>(random() % 9), (std::uint64_t{random()} << 32) | random(), {}};
            bool complete = true;
            switch (put.kind)
            {
#define KORVANE_TEST_PUT(index, Name, Type)                                                        \
    case index:                                                                                    \
    {                                                                                              \
        const auto value = static_cast<Type>(put.value);                                           \
        iAp2MarshalPut##Name(&out.mio, value);                                                     \
        complete = slot(&value, sizeof value);                                                     \
        break;                                                                                     \
    }
                KORVANE_TEST_PUT(0, Uint8, std::uint8_t)
                KORVANE_TEST_PUT(1, Uint16, std::uint16_t)
                KORVANE_TEST_PUT(2, Uint32, std::uint32_t)
                KORVANE_TEST_PUT(3, Uint64, std::uint64_t)
                KORVANE_TEST_PUT(4, Int8, std::int8_t)
                KORVANE_TEST_PUT(5, Int16, std::int16_t)
                KORVANE_TEST_PUT(6, Int32, std::int32_t)
                KORVANE_TEST_PUT(7, Int64, std::int64_t)
#undef KORVANE_TEST_PUT
            default:
            {
                put.bytes.assign(random() % 20, static_cast<char>(random()));
                const auto length = static_cast<std::uint32_t>(put.bytes.size());
                iAp2MarshalPutBytes(&out.mio, put.bytes.data(), length);
                const bool lengthFits = slot(&length, sizeof length);
                complete = slot(put.bytes.data(), length) && lengthFits;
                if (lengthFits && !complete)
                {
                    put.kind = 2; // a reader finds a length without bytes: a number
                    put.value = length;
                    complete = true;
                }
                break;
            }
            }
            if (complete)
            {
                written.push_back(put);
            }
        }
        ASSERT_EQ(out.mio.dataAvail, room);
        ASSERT_EQ(out.mio.flags, overflowed ? 2U : 0U);
        ASSERT_EQ(iAp2MarshalGetUsedSize(&out.mio), out.mio.headerSize + model.size());
        model.resize(out.body().size(), kFill);
        ASSERT_EQ(out.body(), model);

        Reading in(out.body());
        for (const Put& put : written)
        {
            switch (put.kind)
            {
#define KORVANE_TEST_GET(index, Name, Type)                                                        \
    case index:                                                                                    \
        ASSERT_EQ(iAp2MarshalGet##Name(&in.mio), static_cast<Type>(put.value));                    \
        break;
                KORVANE_TEST_GET(0, Uint8, std::uint8_t)
                KORVANE_TEST_GET(1, Uint16, std::uint16_t)
                KORVANE_TEST_GET(2, Uint32, std::uint32_t)
                KORVANE_TEST_GET(3, Uint64, std::uint64_t)
                KORVANE_TEST_GET(4, Int8, std::int8_t)
                KORVANE_TEST_GET(5, Int16, std::int16_t)
                KORVANE_TEST_GET(6, Int32, std::int32_t)
                KORVANE_TEST_GET(7, Int64, std::int64_t)
#undef KORVANE_TEST_GET
            default:
            {
                std::uint32_t length = 0;
                const std::uint8_t* const bytes = iAp2MarshalGetBytes(&in.mio, &length);
                ASSERT_NE(bytes, nullptr);
                ASSERT_EQ(std::string(reinterpret_cast<const char*>(bytes), length), put.bytes);
                break;
            }
            }
        }
        ASSERT_EQ(in.mio.flags, 1U);
        takeMessages();
    }
}

} // namespace
