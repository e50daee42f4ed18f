#include <korvane/iAP2Utils.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <korvane/iAp2LogUtil.h>

#include "Faults.h"
#include "TraceRecorder.h"

namespace
{

using support::Hooks;
using support::ScopedHook;
using support::takeMessages;
using testing::ElementsAre;
using testing::IsEmpty;

/** A body of one or more byte strings, as a reader finds it. */
class Body
{
public:
    Body& bytes(const std::string& bytes)
    {
        iAp2MarshalPutBytes(&mOut, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
        return *this;
    }
    Body& number(std::uint32_t value)
    {
        iAp2MarshalPutUint32(&mOut, value);
        return *this;
    }
    MarshalIo* read()
    {
        const std::uint32_t length = iAp2MarshalGetUsedSize(&mOut) - IAP2_TXN_PAYLOAD_OFFSET;
        std::memcpy(mBuffer + IAP2_TXN_LENGTH_OFFSET, &length, sizeof length);
        iAp2MarshalInitFromTxn(&mIn, mBuffer);
        return &mIn;
    }

    Body()
    {
        std::memset(mBuffer, 0xEE, sizeof mBuffer);
        iAp2MarshalInit(&mOut, mBuffer, sizeof mBuffer, IAP2_TXN_PAYLOAD_OFFSET);
    }

private:
    std::uint8_t mBuffer[256];
    MarshalIo mOut{};
    MarshalIo mIn{};
};

class TextFromBodyTest : public support::TraceTest
{
protected:
    ~TextFromBodyTest() override
    {
        delete[] mParam.value;
    }

    CmdSaveUtf8Param mParam{};
};

TEST_F(TextFromBodyTest, ReSetting_WhenATextIsThere_TakesItAndTracesIt)
{
    Body body;
    body.bytes(std::string("Navi\0", 5)).number(7);
    MarshalIo* const mio = body.read();
    EXPECT_EQ(reSettingUtf8ParamForCPP(&mParam, mio), 0);
    EXPECT_EQ(mParam.present, 1);
    EXPECT_EQ(mParam.size, 5U);
    EXPECT_STREQ(mParam.value, "Navi");
    EXPECT_EQ(iAp2MarshalGetUint32(mio), 7U);
    EXPECT_THAT(takeMessages(), ElementsAre("I utf8Param->value[Navi]"));
}

TEST_F(TextFromBodyTest, ReSetting_WhenTheTextWasSentWithoutItsZero_EndsItAllTheSame)
{
    std::vector<std::size_t> requests;
    const ScopedHook dirty(&Hooks::newArrayNothrow,
                           [&requests](std::size_t bytes)
                           {
                               requests.push_back(bytes);
                               void* const block = new char[bytes];
                               return std::memset(block, 0xAA, bytes);
                           });
    Body body;
    body.bytes("abc");
    EXPECT_EQ(reSettingUtf8ParamForCPP(&mParam, body.read()), 0);
    EXPECT_THAT(requests, ElementsAre(4));
    EXPECT_EQ(mParam.size, 3U);
    EXPECT_EQ(std::memcmp(mParam.value, "abc", 4), 0);
    EXPECT_THAT(takeMessages(), ElementsAre("I utf8Param->value[abc]"));
}

TEST_F(TextFromBodyTest, ReSetting_WhenTheLengthIsZero_StoresAnEmptyText)
{
    Body body;
    body.bytes("");
    mParam.size = 99;
    EXPECT_EQ(reSettingUtf8ParamForCPP(&mParam, body.read()), 0);
    EXPECT_EQ(mParam.present, 1);
    EXPECT_EQ(mParam.size, 0U);
    ASSERT_NE(mParam.value, nullptr);
    EXPECT_EQ(mParam.value[0], '\0');
    EXPECT_THAT(takeMessages(), ElementsAre("I utf8Param->value[]"));
}

TEST_F(TextFromBodyTest, ReSetting_WhenTheRecordHasAValue_ReplacesIt)
{
    Body body;
    body.bytes("first").bytes("second");
    MarshalIo* const mio = body.read();
    EXPECT_EQ(reSettingUtf8ParamForCPP(&mParam, mio), 0);
    mParam.present = 0; // the flag does not decide
    EXPECT_EQ(reSettingUtf8ParamForCPP(&mParam, mio), 0);
    EXPECT_STREQ(mParam.value, "second");
}

TEST_F(TextFromBodyTest, ReSetting_WhenTheCursorIsNull_ReportsErrnoAndClearsIt)
{
    mParam.present = 1;
    errno = ENOENT;
    EXPECT_EQ(reSettingUtf8ParamForCPP(&mParam, nullptr), -6705);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(mParam.present, 1);
    const std::vector<support::Trace> traces = support::takeTraces();
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_EQ(traces[0].severity, 160);
    const support::TraceColumns columns = support::columnsOf(traces[0].text);
    EXPECT_EQ(columns.letter, "W");
    EXPECT_EQ(columns.file, "iAP2Utils.cpp");
    EXPECT_EQ(columns.message, "function[reSettingUtf8ParamForCPP], line[" +
                                   std::to_string(columns.line) +
                                   "] error[2][No such file or directory]");
}

TEST_F(TextFromBodyTest, ReSetting_WhenTheRecordIsNull_ReportsFromAnotherLine)
{
    Body body;
    body.bytes("kept");
    MarshalIo* const mio = body.read();
    const std::size_t available = mio->dataAvail;

    EXPECT_EQ(reSettingUtf8ParamForCPP(nullptr, nullptr), -6705);
    errno = 0;
    EXPECT_EQ(reSettingUtf8ParamForCPP(nullptr, mio), -6705);
    EXPECT_EQ(mio->dataAvail, available);

    const std::vector<support::Trace> traces = support::takeTraces();
    ASSERT_EQ(traces.size(), 2U);
    const support::TraceColumns cursor = support::columnsOf(traces[0].text);
    const support::TraceColumns record = support::columnsOf(traces[1].text);
    EXPECT_NE(cursor.line, record.line);
    EXPECT_EQ(record.message, "function[reSettingUtf8ParamForCPP], line[" +
                                  std::to_string(record.line) + "] error[0][Success]");
}

TEST_F(TextFromBodyTest, ReSetting_WhenWarningsAreSilenced_StillClearsErrno)
{
    setLogLevel(91);
    errno = ENOENT;
    EXPECT_EQ(reSettingUtf8ParamForCPP(&mParam, nullptr), -6705);
    EXPECT_EQ(errno, 0);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(TextFromBodyTest, ReSetting_WhenErrnoIsUnknown_ShowsItsNumber)
{
    errno = 99999;
    reSettingUtf8ParamForCPP(&mParam, nullptr);
    EXPECT_THAT(takeMessages(),
                ElementsAre(testing::EndsWith("] error[99999][Unknown error 99999]")));
}

TEST_F(TextFromBodyTest, ReSetting_WhenMemoryIsShort_ReportsAndHoldsNoValue)
{
    const ScopedHook fault(&Hooks::newArrayNothrow, [](std::size_t) -> void* { return nullptr; });
    Body body;
    body.bytes("text");
    mParam.present = 1;
    EXPECT_EQ(reSettingUtf8ParamForCPP(&mParam, body.read()), -6728);
    EXPECT_EQ(mParam.present, 0);
    EXPECT_EQ(mParam.value, nullptr);
    EXPECT_EQ(mParam.size, 4U);
    EXPECT_THAT(takeMessages(), ElementsAre("E ERROR utf8Param Malloc Fail"));
}

TEST_F(TextFromBodyTest, ReSetting_WhenTheBytesAreNotAllThere_HoldsNothing)
{
    for (const std::uint32_t claim : {5U, 0xFFFFFFFCU, 0xFFFFFFFFU})
    {
        mParam.present = 1;
        mParam.size = 7;
        mParam.value = new char[7];
        Body body;
        body.number(claim).number(0x64636261);
        EXPECT_EQ(reSettingUtf8ParamForCPP(&mParam, body.read()), -6751) << claim;
        EXPECT_EQ(mParam.present, 0);
        EXPECT_EQ(mParam.size, 0U);
        EXPECT_EQ(mParam.value, nullptr);
        EXPECT_EQ(takeMessages().back(), "E iAp2MarshalGet error : overflow");
    }
}

TEST_F(TextFromBodyTest, ReSetting_WhenTheBodyIsExhausted_StoresAnEmptyText)
{
    Body body;
    EXPECT_EQ(reSettingUtf8ParamForCPP(&mParam, body.read()), 0);
    EXPECT_EQ(mParam.present, 1);
    EXPECT_EQ(mParam.size, 0U);
    EXPECT_STREQ(mParam.value, "");
    EXPECT_EQ(takeMessages().back(), "I utf8Param->value[]");
}

} // namespace
