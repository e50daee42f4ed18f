#include <korvane/iAP2Utils.h>
#include <korvane/utils.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <random>
#include <string>
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
using testing::Each;
using testing::ElementsAre;

/* ---- changeStringToByteArrayForBtMacAddr ---- */

std::string btMacError(const std::string& reason)
{
    return "E changeStringToByteArrayForBtMacAddr error : " + reason;
}

class BtMacTest : public support::TraceTest
{
protected:
    /** The first six are the output; behind them nothing may be written. */
    std::vector<int> bytes() const
    {
        EXPECT_EQ(mBytes[6], 0xEE);
        return {mBytes, mBytes + 6};
    }
    void expectUntouched() const
    {
        EXPECT_THAT(mBytes, Each(0xEE));
    }

    unsigned char mBytes[7] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
};

TEST_F(BtMacTest, ChangeString_WhenTextIsTwelveDigits_StoresAndTracesSixBytes)
{
    EXPECT_EQ(changeStringToByteArrayForBtMacAddr(mBytes, "001A7DDA7113"), 0);
    EXPECT_THAT(bytes(), ElementsAre(0x00, 0x1A, 0x7D, 0xDA, 0x71, 0x13));
    EXPECT_THAT(takeMessages(),
                ElementsAre("D MacAddress: [001A7DDA7113], size : [12]", "D MacAddress: [0]",
                            "D MacAddress: [1a]", "D MacAddress: [7d]", "D MacAddress: [da]",
                            "D MacAddress: [71]", "D MacAddress: [13]"));
}

TEST_F(BtMacTest, ChangeString_WhenDigitsAreLowerCase_StoresTheSameBytes)
{
    EXPECT_EQ(changeStringToByteArrayForBtMacAddr(mBytes, "001a7dda7113"), 0);
    EXPECT_THAT(bytes(), ElementsAre(0x00, 0x1A, 0x7D, 0xDA, 0x71, 0x13));
}

TEST_F(BtMacTest, ChangeString_WhenTextHasSeparators_ReadsThePairsAsTheyStand)
{
    EXPECT_EQ(changeStringToByteArrayForBtMacAddr(mBytes, "00:1A:7D:DA:71:13"), 0);
    EXPECT_THAT(bytes(), ElementsAre(0x00, 0x00, 0x0A, 0x7D, 0x00, 0x0A));
    EXPECT_THAT(takeMessages(),
                ElementsAre("D MacAddress: [00:1A:7D:DA:71:13], size : [17]", "D MacAddress: [0]",
                            "D MacAddress: [0]", "D MacAddress: [a]", "D MacAddress: [7d]",
                            "D MacAddress: [0]", "D MacAddress: [a]"));
}

TEST_F(BtMacTest, ChangeString_WhenPairsAreNotHexadecimal_ParsesAsFarAsStrtolGoes)
{
    EXPECT_EQ(changeStringToByteArrayForBtMacAddr(mBytes, "zz1z-1+f f0x"), 0);
    EXPECT_THAT(bytes(), ElementsAre(0x00, 0x01, 0xFF, 0x0F, 0x0F, 0x00));
}

TEST_F(BtMacTest, ChangeString_WhenTextIsLonger_IgnoresTheRest)
{
    EXPECT_EQ(changeStringToByteArrayForBtMacAddr(mBytes, "001A7DDA7113ffff"), 0);
    EXPECT_THAT(bytes(), ElementsAre(0x00, 0x1A, 0x7D, 0xDA, 0x71, 0x13));
    EXPECT_EQ(takeMessages().front(), "D MacAddress: [001A7DDA7113ffff], size : [16]");
}

TEST_F(BtMacTest, ChangeString_WhenTextIsShort_ReadsNothingBehindItsEnd)
{
    // The text ends where its page does, and the next page cannot be read.
    const auto pageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    auto* const pages = static_cast<char*>(
        mmap(nullptr, 2 * pageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(mprotect(pages + pageSize, pageSize, PROT_NONE), 0);
    char* const text = pages + pageSize - 4;
    std::memcpy(text, "a1b", 4);
    EXPECT_EQ(changeStringToByteArrayForBtMacAddr(mBytes, text), 0);
    EXPECT_THAT(bytes(), ElementsAre(0xA1, 0x0B, 0, 0, 0, 0));
    munmap(pages, 2 * pageSize);
}

TEST_F(BtMacTest, ChangeString_WhenErrnoIsErangeBefore_IsNotMisled)
{
    errno = ERANGE;
    EXPECT_EQ(changeStringToByteArrayForBtMacAddr(mBytes, "a1b2c3d4e5f6"), 0);
}

TEST_F(BtMacTest, ChangeString_WhenTextIsNull_ReportsItFirst)
{
    EXPECT_EQ(changeStringToByteArrayForBtMacAddr(nullptr, nullptr), -6705);
    EXPECT_EQ(changeStringToByteArrayForBtMacAddr(mBytes, nullptr), -6705);
    EXPECT_THAT(takeMessages(),
                ElementsAre(btMacError("stringValue is NULL"), btMacError("stringValue is NULL")));
    expectUntouched();
}

TEST_F(BtMacTest, ChangeString_WhenTextIsEmpty_TracesAndReportsItBeforeTheOutput)
{
    EXPECT_EQ(changeStringToByteArrayForBtMacAddr(nullptr, ""), -6705);
    EXPECT_EQ(changeStringToByteArrayForBtMacAddr(mBytes, ""), -6705);
    EXPECT_THAT(takeMessages(), ElementsAre("D MacAddress: [], size : [0]",
                                            btMacError("Error stringValue is not present"),
                                            "D MacAddress: [], size : [0]",
                                            btMacError("Error stringValue is not present")));
    expectUntouched();
}

TEST_F(BtMacTest, ChangeString_WhenOutputIsNull_TracesTheTextAndReportsIt)
{
    EXPECT_EQ(changeStringToByteArrayForBtMacAddr(nullptr, "001A7DDA7113"), -6705);
    EXPECT_THAT(takeMessages(), ElementsAre("D MacAddress: [001A7DDA7113], size : [12]",
                                            btMacError("bytesData is NULL")));
}

/** strtol() whose call number `failing` (from 1) gives `value` and leaves `error` in errno. */
auto strtolFailingAt(int failing, long value, int error)
{
    return [=, call = 0](const char* text, char** end, int base) mutable
    {
        if (++call != failing)
        {
            return support::real::strtol(text, end, base);
        }
        errno = error;
        return value;
    };
}

TEST_F(BtMacTest, ChangeString_WhenStrtolReportsARange_FailsWithNothingStored)
{
    for (const int failing : {1, 6})
    {
        {
            const ScopedHook hook(&Hooks::strtol, strtolFailingAt(failing, 5, ERANGE));
            EXPECT_EQ(changeStringToByteArrayForBtMacAddr(mBytes, "001A7DDA7113"), -6751);
        }
        EXPECT_THAT(takeMessages(), ElementsAre("D MacAddress: [001A7DDA7113], size : [12]",
                                                btMacError("strtol overflow or underflow")));
        expectUntouched();
    }
}

TEST_F(BtMacTest, ChangeString_WhenAPairIsNoByte_FailsWithNothingStored)
{
    for (const int failing : {1, 6})
    {
        {
            const ScopedHook hook(&Hooks::strtol, strtolFailingAt(failing, 256, 0));
            EXPECT_EQ(changeStringToByteArrayForBtMacAddr(mBytes, "001A7DDA7113"), -6751);
        }
        EXPECT_THAT(takeMessages(),
                    ElementsAre("D MacAddress: [001A7DDA7113], size : [12]",
                                btMacError("parsingMac[parsingMacPostion] is larger than "
                                           "UINT8_MAX")));
        expectUntouched();
    }
}

TEST_F(BtMacTest, ChangeString_WhenAPairIsBothOutOfRangeAndTooLarge_ReportsTheRange)
{
    {
        const ScopedHook hook(&Hooks::strtol, strtolFailingAt(1, 256, ERANGE));
        EXPECT_EQ(changeStringToByteArrayForBtMacAddr(mBytes, "001A7DDA7113"), -6751);
    }
    EXPECT_EQ(takeMessages().back(), btMacError("strtol overflow or underflow"));
}

/* ---- insertColonIntoMacAddress ---- */

class InsertColonTest : public support::TraceTest
{
};

TEST_F(InsertColonTest, InsertColon_WhenTwelveCharactersAreNoAddress_InsertsTheColonsAllTheSame)
{
    EXPECT_EQ(insertColonIntoMacAddress("zz:: abcdefg"), "zz:::: a:bc:de:fg");
}

TEST_F(InsertColonTest, InsertColon_WhenTextHasTwelveCharacters_SeparatesThePairs)
{
    EXPECT_EQ(insertColonIntoMacAddress("001A7DDA7113"), "00:1A:7D:DA:71:13");
    EXPECT_THAT(takeMessages(), ElementsAre("D insertColonIntoMacAddress()",
                                            "D string [TM=MDA6MUE6N0Q6REE6NzE6M]"));
}

TEST_F(InsertColonTest, InsertColon_WhenTextHasAnotherLength_ReturnsItAsItIs)
{
    EXPECT_EQ(insertColonIntoMacAddress("00:1A:7D:DA:71:13"), "00:1A:7D:DA:71:13");
    EXPECT_EQ(insertColonIntoMacAddress("001A7DDA711"), "001A7DDA711");
    EXPECT_EQ(insertColonIntoMacAddress("001A7DDA71134"), "001A7DDA71134");
    EXPECT_THAT(takeMessages(),
                ElementsAre("D insertColonIntoMacAddress()", "D string [TM=MDA6MUE6N0Q6REE6NzE6M]",
                            "D insertColonIntoMacAddress()", "D string [TE=MDAxQTdEREE3M]",
                            "D insertColonIntoMacAddress()", "D string [A==MDAxQTdEREE3MTEzN]"));
}

TEST_F(InsertColonTest, InsertColon_WhenTextIsEmpty_ReportsItsMissingSecuredForm)
{
    EXPECT_EQ(insertColonIntoMacAddress(""), "");
    EXPECT_THAT(takeMessages(), ElementsAre("D insertColonIntoMacAddress()",
                                            "E createBase64EncodedString error : inString is empty",
                                            "D string []"));
}

TEST_F(InsertColonTest, InsertColon_WhenTracesAreSuppressed_StillReportsTheSecuredForm)
{
    setLogLevel(90);
    EXPECT_EQ(insertColonIntoMacAddress(""), "");
    EXPECT_THAT(takeMessages(),
                ElementsAre("E createBase64EncodedString error : inString is empty"));
}

/* ---- removeCharInString ---- */

class RemoveCharInStringTest : public support::TraceTest
{
};

TEST_F(RemoveCharInStringTest, RemoveChar_WhenItOccurs_ShrinksTheTextAndClearsItsTail)
{
    char text[] = "a:b:c\0#";
    removeCharInString(text, ':');
    EXPECT_EQ(std::string(text, sizeof text), std::string("abc\0\0\0#\0", 8));
    EXPECT_THAT(takeMessages(), ElementsAre("D origin Str[mM=YTpiO]", "D changed Str[WJjY]"));
}

TEST_F(RemoveCharInStringTest, RemoveChar_WhenItDoesNotOccur_LeavesTheText)
{
    char text[] = "abc\0#";
    removeCharInString(text, ':');
    EXPECT_EQ(std::string(text, sizeof text), std::string("abc\0#\0", 6));
    EXPECT_THAT(takeMessages(), ElementsAre("D origin Str[WJjY]", "D changed Str[WJjY]"));
}

TEST_F(RemoveCharInStringTest, RemoveChar_WhenItIsTheZero_LeavesTheText)
{
    char text[] = "abc\0#";
    removeCharInString(text, '\0');
    EXPECT_EQ(std::string(text, sizeof text), std::string("abc\0#\0", 6));
}

TEST_F(RemoveCharInStringTest, RemoveChar_WhenItEndsAndBeginsTheText_TakesBoth)
{
    char text[] = "::ab::c::";
    removeCharInString(text, ':');
    EXPECT_EQ(std::string(text, sizeof text), std::string("abc\0\0\0\0\0\0\0", 10));
}

TEST_F(RemoveCharInStringTest, RemoveChar_WhenNothingIsLeft_ReportsTheEmptySecuredValue)
{
    char text[] = ":::";
    removeCharInString(text, ':');
    EXPECT_EQ(std::string(text, sizeof text), std::string(4, '\0'));
    EXPECT_THAT(takeMessages(),
                ElementsAre("D origin Str[jo6O]",
                            "E createBase64EncodedString error : inString is empty",
                            "E getSecuredChar error : encodedString is NULL!", "D changed Str[]"));
}

TEST_F(RemoveCharInStringTest, RemoveChar_WhenTracesAreSuppressed_StillReportsTheEmptyValue)
{
    setLogLevel(90);
    char text[] = ":";
    removeCharInString(text, ':');
    EXPECT_THAT(takeMessages(), ElementsAre("E createBase64EncodedString error : inString is empty",
                                            "E getSecuredChar error : encodedString is NULL!"));
}

TEST_F(RemoveCharInStringTest, RemoveChar_WhenTextIsEmpty_ReportsItTwice)
{
    char text[] = "";
    removeCharInString(text, ':');
    EXPECT_STREQ(text, "");
    EXPECT_THAT(takeMessages(),
                ElementsAre("E createBase64EncodedString error : inString is empty",
                            "E getSecuredChar error : encodedString is NULL!", "D origin Str[]",
                            "E createBase64EncodedString error : inString is empty",
                            "E getSecuredChar error : encodedString is NULL!", "D changed Str[]"));
}

TEST_F(RemoveCharInStringTest, RemoveChar_WhenTextIsNull_ReportsIt)
{
    removeCharInString(nullptr, ':');
    EXPECT_THAT(takeMessages(), ElementsAre("E removeCharInString error : originStr is NULL"));
}

/** A failure of the allocator with a text of its own. */
class NamedFailure : public std::bad_alloc
{
public:
    const char* what() const noexcept override
    {
        return "the heap is gone";
    }
};

TEST_F(RemoveCharInStringTest, RemoveChar_WhenMemoryIsShort_ReportsTheAllocatorsText)
{
    char text[] = "a:b:c";
    {
        const ScopedHook hook(&Hooks::newArray,
                              [](std::size_t) -> void* { throw std::bad_alloc(); });
        removeCharInString(text, ':');
    }
    EXPECT_STREQ(text, "a:b:c");
    EXPECT_THAT(takeMessages(), ElementsAre("D origin Str[mM=YTpiO]",
                                            "E removeCharInString error : std::bad_alloc"));
    {
        const ScopedHook hook(&Hooks::newArray, [](std::size_t) -> void* { throw NamedFailure(); });
        removeCharInString(text, ':');
    }
    EXPECT_STREQ(text, "a:b:c");
    EXPECT_THAT(takeMessages(), ElementsAre("D origin Str[mM=YTpiO]",
                                            "E removeCharInString error : the heap is gone"));
}

TEST_F(RemoveCharInStringTest, RemoveChar_WhenNothingCanBeSecured_TakesTheCharactersAllTheSame)
{
    char text[] = "a:b";
    {
        const ScopedHook hook(&Hooks::newArrayNothrow,
                              [](std::size_t) -> void* { return nullptr; });
        removeCharInString(text, ':');
    }
    EXPECT_STREQ(text, "ab");
    EXPECT_THAT(takeMessages(),
                ElementsAre("E createBase64EncodedString error : outBuffer is NULL",
                            "E getSecuredChar error : encodedString is NULL!", "D origin Str[]",
                            "E createBase64EncodedString error : outBuffer is NULL",
                            "E getSecuredChar error : encodedString is NULL!", "D changed Str[]"));
}

TEST_F(RemoveCharInStringTest, RemoveChar_WhenItIsDone_HasReleasedItsScratchOfTextAndZero)
{
    std::vector<std::size_t> requests;
    int live = 0;
    const ScopedHook count(&Hooks::newArray,
                           [&](std::size_t size)
                           {
                               requests.push_back(size);
                               ++live;
                               return support::real::newArray(size);
                           });
    const ScopedHook discount(&Hooks::newArrayNothrow,
                              [&live](std::size_t size) -> void*
                              {
                                  ++live;
                                  return new (std::nothrow) char[size];
                              });
    const ScopedHook release(&Hooks::deleteArray,
                             [&live](void* block)
                             {
                                 live -= block != nullptr ? 1 : 0;
                                 support::real::deleteArray(block);
                             });
    char text[] = "a:b:c";
    removeCharInString(text, ':');
    EXPECT_THAT(requests, ElementsAre(6));
    EXPECT_EQ(live, 0);
}

/* ---- removeCharFromString ---- */

class RemoveCharFromStringTest : public support::TraceTest
{
};

TEST_F(RemoveCharFromStringTest, RemoveChar_WhenTargetIsOneCharacter_TakesEveryOne)
{
    EXPECT_EQ(removeCharFromString("00:1A:7D:DA:71:13", ":"), "001A7DDA7113");
    EXPECT_EQ(removeCharFromString("::a::", ":"), "a");
    EXPECT_THAT(takeMessages(), ElementsAre("D inString : 001A7DDA7113", "D inString : a"));
}

TEST_F(RemoveCharFromStringTest, RemoveChar_WhenTargetIsLonger_TakesTheFirstCharacterOfEachMatch)
{
    EXPECT_EQ(removeCharFromString("xaby", "ab"), "xby");
    EXPECT_THAT(takeMessages(), ElementsAre("D inString : xby"));
}

TEST_F(RemoveCharFromStringTest, RemoveChar_WhenAMatchIsBroughtTogether_TakesItToo)
{
    EXPECT_EQ(removeCharFromString("aaab", "ab"), "b");
    EXPECT_EQ(removeCharFromString("aabab", "aba"), "bab");
}

TEST_F(RemoveCharFromStringTest, RemoveChar_WhenTargetDoesNotOccur_ReturnsTheText)
{
    EXPECT_EQ(removeCharFromString("abc", ":"), "abc");
    EXPECT_EQ(removeCharFromString("abc", "abcd"), "abc");
    EXPECT_THAT(takeMessages(), ElementsAre("D inString : abc", "D inString : abc"));
}

TEST_F(RemoveCharFromStringTest, RemoveChar_WhenNothingIsLeft_ReturnsAnEmptyText)
{
    EXPECT_EQ(removeCharFromString(":::", ":"), "");
    EXPECT_THAT(takeMessages(), ElementsAre("D inString : "));
}

TEST_F(RemoveCharFromStringTest, RemoveChar_WhenTextIsEmpty_ReturnsItWithoutASearch)
{
    EXPECT_EQ(removeCharFromString("", ":"), "");
    EXPECT_EQ(removeCharFromString("", ""), "");
    EXPECT_THAT(takeMessages(), ElementsAre("D inString : ", "D inString : "));
}

TEST_F(RemoveCharFromStringTest, RemoveChar_WhenTargetIsEmpty_TakesNothing)
{
    EXPECT_EQ(removeCharFromString("abc", ""), "abc");
    EXPECT_THAT(takeMessages(), ElementsAre("D inString : abc"));
}

TEST_F(RemoveCharFromStringTest, RemoveChar_WhenTextIsTaken_LeavesTheCallersAsItWas)
{
    const std::string text = "a:b";
    EXPECT_EQ(removeCharFromString(text, ":"), "ab");
    EXPECT_EQ(text, "a:b");
    EXPECT_EQ(removeCharFromString(text, text), ":b");
    EXPECT_EQ(text, "a:b");
}

TEST_F(RemoveCharFromStringTest, RemoveChar_WhenTextsAreRandom_AgreesWithSearchesFromTheBeginning)
{
    setLogLevel(91);
    std::mt19937 random(53); // fixed: a failure can be repeated
    const auto text = [&random](std::size_t longest)
    {
        std::string made;
        for (std::size_t length = random() % longest; length != 0; --length)
        {
            made += "ab"[random() % 2];
        }
        return made;
    };
    for (int round = 0; round < 20000; ++round)
    {
        const std::string target = text(4) + "a";
        const std::string origin = text(24);
        std::string expected = origin;
        for (std::size_t found; (found = expected.find(target, 0)) != std::string::npos;)
        {
            expected.erase(found, 1);
        }
        ASSERT_EQ(removeCharFromString(origin, target), expected)
            << origin << " without " << target;
    }
}

} // namespace
