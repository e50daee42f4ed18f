#include <korvane/utils.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

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

constexpr char kNoMemory[] = "E iAP2_malloc error : iAP2_malloc Error!!";

/** Memory is short for the calling thread. */
class NoMemory
{
private:
    ScopedHook<std::function<void*(std::size_t)>> mHook{
        &Hooks::malloc, [](std::size_t) -> void* { return nullptr; }};
};

/* ---- changeStringToByteArrayForMacAddr ---- */

std::string macError(const std::string& reason)
{
    return "E changeStringToByteArrayForMacAddr error : " + reason;
}

std::vector<int> valueOf(const CmdSaveParam& param)
{
    return {param.value, param.value + param.size};
}

class MacParameterTest : public support::TraceTest
{
protected:
    ~MacParameterTest() override
    {
        setLogLevel(91);
        iAP2_free(mParam.value);
    }

    CmdSaveParam mParam{};
};

TEST_F(MacParameterTest, ChangeString_WhenTextIsTwelveDigits_StoresSixBytes)
{
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, "a1b2c3d4e5f6"), 0);
    EXPECT_EQ(mParam.present, 1);
    EXPECT_EQ(mParam.size, 6U);
    EXPECT_THAT(valueOf(mParam), ElementsAre(0xA1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6));
    EXPECT_THAT(takeMessages(),
                ElementsAre("D MacAddress: [a1b2c3d4e5f6], size : [12]", "D MacAddress: [a1]",
                            "D MacAddress: [b2]", "D MacAddress: [c3]", "D MacAddress: [d4]",
                            "D MacAddress: [e5]", "D MacAddress: [f6]"));
}

TEST_F(MacParameterTest, ChangeString_WhenDigitsAreUpperCase_StoresTheSameBytes)
{
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, "A1B2C3D4E5F6"), 0);
    EXPECT_THAT(valueOf(mParam), ElementsAre(0xA1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6));
}

TEST_F(MacParameterTest, ChangeString_WhenTheValueIsAllocated_IsAGuardedBlockOfSixBytes)
{
    std::vector<std::size_t> requests;
    const ScopedHook watch(&Hooks::malloc,
                           [&requests](std::size_t bytes)
                           {
                               requests.push_back(bytes);
                               return support::real::malloc(bytes);
                           });
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, "001A7DDA7113"), 0);
    EXPECT_THAT(requests, ElementsAre(16 + 6));
}

TEST_F(MacParameterTest, ChangeString_WhenTextIsLonger_IgnoresTheRest)
{
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, "001A7DDA7113ffff"), 0);
    EXPECT_THAT(valueOf(mParam), ElementsAre(0x00, 0x1A, 0x7D, 0xDA, 0x71, 0x13));
    EXPECT_EQ(takeMessages().front(), "D MacAddress: [001A7DDA7113ffff], size : [16]");
}

TEST_F(MacParameterTest, ChangeString_WhenTextIsShort_TakesTheMissingDigitsAsNone)
{
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, "a1b"), 0);
    EXPECT_EQ(mParam.present, 1);
    EXPECT_THAT(valueOf(mParam), ElementsAre(0xA1, 0x0B, 0, 0, 0, 0));
    EXPECT_THAT(takeMessages(),
                ElementsAre("D MacAddress: [a1b], size : [3]", "D MacAddress: [a1]",
                            "D MacAddress: [b]", "D MacAddress: [0]", "D MacAddress: [0]",
                            "D MacAddress: [0]", "D MacAddress: [0]"));
}

TEST_F(MacParameterTest, ChangeString_WhenTextIsShort_ReadsNothingBehindItsEnd)
{
    // The text ends where its page does, and the next page cannot be read.
    const auto pageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    auto* const pages = static_cast<char*>(
        mmap(nullptr, 2 * pageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(mprotect(pages + pageSize, pageSize, PROT_NONE), 0);
    char* const text = pages + pageSize - 4;
    std::memcpy(text, "a1b", 4);
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, text), 0);
    EXPECT_THAT(valueOf(mParam), ElementsAre(0xA1, 0x0B, 0, 0, 0, 0));
    munmap(pages, 2 * pageSize);
}

TEST_F(MacParameterTest, ChangeString_WhenTextHasSeparators_ParsesThemAsDigitsThatAreNone)
{
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, "00:1A:7D:DA:71:13"), 0);
    EXPECT_THAT(valueOf(mParam), ElementsAre(0x00, 0x00, 0x0A, 0x7D, 0x00, 0x0A));
}

TEST_F(MacParameterTest, ChangeString_WhenPairsAreNotHexadecimal_ParsesAsFarAsStrtolGoes)
{
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, "zz1z-1+f f0x"), 0);
    EXPECT_THAT(valueOf(mParam), ElementsAre(0x00, 0x01, 0xFF, 0x0F, 0x0F, 0x00));
    EXPECT_EQ(mParam.present, 1);
}

TEST_F(MacParameterTest, ChangeString_WhenErrnoIsErangeBefore_IsNotMisled)
{
    errno = ERANGE;
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, "a1b2c3d4e5f6"), 0);
}

TEST_F(MacParameterTest, ChangeString_WhenTextIsNull_ReportsItFirst)
{
    EXPECT_EQ(changeStringToByteArrayForMacAddr(nullptr, nullptr), -6705);
    EXPECT_THAT(takeMessages(), ElementsAre(macError("stringValue is NULL")));
    mParam.present = 1;
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, nullptr), -6705);
    EXPECT_EQ(mParam.present, 1);
}

TEST_F(MacParameterTest, ChangeString_WhenTextIsEmpty_ReportsItBeforeTheRecord)
{
    EXPECT_EQ(changeStringToByteArrayForMacAddr(nullptr, ""), -6705);
    EXPECT_THAT(takeMessages(), ElementsAre("D MacAddress: [], size : [0]",
                                            macError("Error stringValue is not present")));
    mParam.present = 1;
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, ""), -6705);
    EXPECT_EQ(mParam.present, 1);
}

TEST_F(MacParameterTest, ChangeString_WhenTheRecordIsNull_ReportsItAfterTheTrace)
{
    EXPECT_EQ(changeStringToByteArrayForMacAddr(nullptr, "a1b2c3d4e5f6"), -6705);
    EXPECT_THAT(takeMessages(), ElementsAre("D MacAddress: [a1b2c3d4e5f6], size : [12]",
                                            macError("bytesData is NULL")));
}

TEST_F(MacParameterTest, ChangeString_WhenTheRecordHasAValue_ReleasesItFirst)
{
    ASSERT_EQ(changeStringToByteArrayForMacAddr(&mParam, "a1b2c3d4e5f6"), 0);
    const void* const previous = mParam.value - 16;
    std::vector<std::string> order;
    const ScopedHook allocations(&Hooks::malloc,
                                 [&order](std::size_t bytes)
                                 {
                                     order.emplace_back("malloc");
                                     return support::real::malloc(bytes);
                                 });
    const ScopedHook releases(&Hooks::free,
                              [&](void* block)
                              {
                                  EXPECT_EQ(block, previous);
                                  order.emplace_back("free");
                                  support::real::free(block);
                              });
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, "001A7DDA7113"), 0);
    EXPECT_THAT(order, ElementsAre("free", "malloc"));
    EXPECT_EQ(mParam.value[1], 0x1A);
}

TEST_F(MacParameterTest, ChangeString_WhenMemoryIsShort_ReportsAndHoldsNothing)
{
    ASSERT_EQ(changeStringToByteArrayForMacAddr(&mParam, "a1b2c3d4e5f6"), 0);
    takeMessages();
    {
        const NoMemory fault;
        EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, "a1b2c3d4e5f6"), -6728);
    }
    EXPECT_EQ(mParam.present, 0);
    EXPECT_EQ(mParam.value, nullptr);
    EXPECT_THAT(takeMessages(),
                ElementsAre("D MacAddress: [a1b2c3d4e5f6], size : [12]", kNoMemory,
                            "E ERROR bytesData Malloc Fail", macError("bytesData is NULL")));
}

TEST_F(MacParameterTest, ChangeString_WhenStrtolIsOutOfRange_ReleasesTheValueButKeepsThePointer)
{
    int calls = 0;
    void* released = nullptr;
    mParam.present = 1;
    {
        const ScopedHook fault(&Hooks::strtol,
                               [&calls](const char* text, char** end, int base)
                               {
                                   EXPECT_EQ(base, 16);
                                   const long value = support::real::strtol(text, end, base);
                                   errno = ++calls == 3 ? ERANGE : 0;
                                   return value;
                               });
        const ScopedHook watch(&Hooks::free, [&released](void* block) { released = block; });
        EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, "a1b2c3d4e5f6"), -6751);
    }
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(mParam.present, 0);
    EXPECT_EQ(mParam.size, 6U);
    ASSERT_NE(mParam.value, nullptr);
    EXPECT_EQ(released, mParam.value - 16); // held back by the hook: the fixture releases it
    EXPECT_THAT(takeMessages(),
                ElementsAre("D MacAddress: [a1b2c3d4e5f6], size : [12]", "D MacAddress: [a1]",
                            "D MacAddress: [b2]", "E strtol overflow or underflow",
                            macError("strtol overflow or underflow")));
}

TEST_F(MacParameterTest, ChangeString_WhenAByteIsAbove255_ReleasesTheValueButKeepsThePointer)
{
    void* released = nullptr;
    {
        const ScopedHook fault(&Hooks::strtol, [](const char*, char**, int) { return 256L; });
        const ScopedHook watch(&Hooks::free, [&released](void* block) { released = block; });
        EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, "a1b2c3d4e5f6"), -6751);
    }
    EXPECT_EQ(mParam.present, 0);
    ASSERT_NE(mParam.value, nullptr);
    EXPECT_EQ(released, mParam.value - 16);
    EXPECT_THAT(takeMessages(),
                ElementsAre("D MacAddress: [a1b2c3d4e5f6], size : [12]",
                            "E parsingMac[parsingMacPostion] is larger than UINT8_MAX",
                            macError("parsingMac[parsingMacPostion] is larger than UINT8_MAX")));
}

TEST_F(MacParameterTest, ChangeString_WhenAByteIs255OrNegative_StoresItsLowByte)
{
    long next = 255;
    const ScopedHook fault(&Hooks::strtol,
                           [&next](const char*, char**, int)
                           {
                               const long value = next;
                               next = -0x1234;
                               return value;
                           });
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, "a1b2c3d4e5f6"), 0);
    EXPECT_THAT(valueOf(mParam), ElementsAre(0xFF, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC));
}

TEST_F(MacParameterTest, ChangeString_WhenRefilledAfterARangeFailure_ReleasesTheStalePointerAgain)
{
    void* block = nullptr;
    int releases = 0;
    const ScopedHook watch(&Hooks::free,
                           [&](void* released)
                           {
                               EXPECT_TRUE(block == nullptr || released == block);
                               block = released; // held back, so that the header stays intact
                               ++releases;
                           });
    {
        const ScopedHook fault(&Hooks::strtol, [](const char*, char**, int) { return 256L; });
        EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, "a1b2c3d4e5f6"), -6751);
    }
    EXPECT_EQ(releases, 1);
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mParam, "a1b2c3d4e5f6"), 0);
    EXPECT_EQ(releases, 2);
    EXPECT_EQ(mParam.present, 1);
    support::real::free(block);
}

/* ---- reSettingUtf8ParamFromCharValue ---- */

std::string textError(const std::string& reason)
{
    return "E reSettingUtf8ParamFromCharValue error : " + reason;
}

/** The function takes a mutable text that it does not change. */
std::int32_t reset(CmdSaveUtf8Param* param, std::string text)
{
    return reSettingUtf8ParamFromCharValue(param, text.data());
}

class TextParameterTest : public support::TraceTest
{
protected:
    ~TextParameterTest() override
    {
        setLogLevel(91);
        iAP2_free(mParam.value);
    }

    CmdSaveUtf8Param mParam{};
};

TEST_F(TextParameterTest, ReSetting_WhenTextIsGiven_StoresACopyWithItsZero)
{
    EXPECT_EQ(reset(&mParam, "Grüße"), 0);
    EXPECT_EQ(mParam.present, 1);
    EXPECT_EQ(mParam.size, 8U);
    EXPECT_STREQ(mParam.value, "Grüße");
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(TextParameterTest, ReSetting_WhenTextIsEmpty_StoresOneZeroByte)
{
    EXPECT_EQ(reset(&mParam, ""), 0);
    EXPECT_EQ(mParam.present, 1);
    EXPECT_EQ(mParam.size, 1U);
    ASSERT_NE(mParam.value, nullptr);
    EXPECT_EQ(mParam.value[0], '\0');
}

TEST_F(TextParameterTest, ReSetting_WhenTheRecordHasAValue_ReleasesItFirst)
{
    ASSERT_EQ(reset(&mParam, "first"), 0);
    mParam.present = 0; // the flag does not decide
    const void* const previous = mParam.value - 16;
    std::vector<std::string> order;
    const ScopedHook allocations(&Hooks::malloc,
                                 [&order](std::size_t bytes)
                                 {
                                     order.push_back("malloc " + std::to_string(bytes));
                                     return support::real::malloc(bytes);
                                 });
    const ScopedHook releases(&Hooks::free,
                              [&](void* block)
                              {
                                  EXPECT_EQ(block, previous);
                                  order.emplace_back("free");
                                  support::real::free(block);
                              });
    EXPECT_EQ(reset(&mParam, "second"), 0);
    EXPECT_THAT(order, ElementsAre("free", "malloc 23"));
    EXPECT_STREQ(mParam.value, "second");
}

TEST_F(TextParameterTest, ReSetting_WhenTextIsTheRecordsOwn_CopiesItBeforeTheRelease)
{
    ASSERT_EQ(reset(&mParam, "own text"), 0);
    EXPECT_EQ(reSettingUtf8ParamFromCharValue(&mParam, mParam.value), 0);
    EXPECT_STREQ(mParam.value, "own text");
    EXPECT_EQ(reSettingUtf8ParamFromCharValue(&mParam, mParam.value + 4), 0);
    EXPECT_STREQ(mParam.value, "text");
    EXPECT_EQ(mParam.size, 5U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(TextParameterTest, ReSetting_WhenTextIsTheRecordsOwnAndMemoryIsShort_StillReleasesIt)
{
    ASSERT_EQ(reset(&mParam, "own text"), 0);
    const void* const previous = mParam.value - 16;
    void* released = nullptr;
    {
        const NoMemory fault;
        const ScopedHook watch(&Hooks::free,
                               [&released](void* block)
                               {
                                   released = block;
                                   support::real::free(block);
                               });
        EXPECT_EQ(reSettingUtf8ParamFromCharValue(&mParam, mParam.value), -6728);
    }
    EXPECT_EQ(released, previous);
    EXPECT_EQ(mParam.value, nullptr);
    EXPECT_EQ(mParam.present, 0);
}

TEST_F(TextParameterTest, ReSetting_WhenTextIsNull_ReportsItBeforeTheRecord)
{
    EXPECT_EQ(reSettingUtf8ParamFromCharValue(nullptr, nullptr), -6705);
    EXPECT_THAT(takeMessages(), ElementsAre(textError("updateData is NULL")));
    ASSERT_EQ(reset(&mParam, "kept"), 0);
    EXPECT_EQ(reSettingUtf8ParamFromCharValue(&mParam, nullptr), -6705);
    EXPECT_STREQ(mParam.value, "kept");
    EXPECT_EQ(mParam.present, 1);
}

TEST_F(TextParameterTest, ReSetting_WhenTheRecordIsNull_ReportsIt)
{
    EXPECT_EQ(reset(nullptr, "x"), -6705);
    EXPECT_THAT(takeMessages(), ElementsAre(textError("utf8Param is NULL")));
}

TEST_F(TextParameterTest, ReSetting_WhenMemoryIsShort_ReportsAndHoldsNothing)
{
    ASSERT_EQ(reset(&mParam, "first"), 0);
    {
        const NoMemory fault;
        EXPECT_EQ(reset(&mParam, "second"), -6728);
    }
    EXPECT_EQ(mParam.present, 0);
    EXPECT_EQ(mParam.value, nullptr);
    EXPECT_EQ(mParam.size, 7U);
    EXPECT_THAT(takeMessages(), ElementsAre(kNoMemory, textError("ERROR utf8Param Malloc Fail")));
}

/** Every text that the calling thread measures is said to be this long. */
class LongText
{
public:
    explicit LongText(std::size_t length)
        : mHook(&Hooks::strlen, [length](const char*) { return length; })
    {
    }

private:
    ScopedHook<std::function<std::size_t(const char*)>> mHook;
};

TEST_F(TextParameterTest, ReSetting_WhenTextDoesNotFit32Bits_ReportsItWithThePreviousValueReleased)
{
    for (const std::size_t length :
         {std::size_t{0xFFFFFFFF}, std::size_t{0x100000000}, static_cast<std::size_t>(-1)})
    {
        ASSERT_EQ(reset(&mParam, "first"), 0);
        char text[] = "t";
        std::int32_t result = 0;
        {
            // Silent, since the trace measures its own texts too.
            setLogLevel(91);
            const LongText longText(length);
            result = reSettingUtf8ParamFromCharValue(&mParam, text);
        }
        EXPECT_EQ(result, -6751);
        EXPECT_EQ(mParam.value, nullptr);
        EXPECT_EQ(mParam.present, 1); // as it was
        EXPECT_EQ(mParam.size, 6U);
    }
}

TEST_F(TextParameterTest, ReSetting_WhenTextDoesNotFit32Bits_SaysSo)
{
    char text[] = "t";
    {
        bool first = true;
        const ScopedHook longText(&Hooks::strlen,
                                  [&first](const char* measured)
                                  {
                                      const bool isText = std::exchange(first, false);
                                      return isText ? 0xFFFFFFFF : std::string(measured).size();
                                  });
        EXPECT_EQ(reSettingUtf8ParamFromCharValue(&mParam, text), -6751);
    }
    EXPECT_THAT(takeMessages(),
                ElementsAre(textError("strlen(updateData) + 1 is larger than UINT32_MAX")));
}

TEST_F(TextParameterTest, ReSetting_WhenTextJustFits32Bits_AsksForAllOfIt)
{
    char text[] = "t";
    std::vector<std::size_t> requests;
    setLogLevel(91);
    {
        const LongText longText(0xFFFFFFFE);
        const ScopedHook watch(&Hooks::malloc,
                               [&requests](std::size_t bytes) -> void*
                               {
                                   requests.push_back(bytes);
                                   return nullptr;
                               });
        EXPECT_EQ(reSettingUtf8ParamFromCharValue(&mParam, text), -6728);
    }
    EXPECT_THAT(requests, ElementsAre(16 + std::size_t{0xFFFFFFFF}));
    EXPECT_EQ(mParam.size, 0xFFFFFFFFU);
}

} // namespace
