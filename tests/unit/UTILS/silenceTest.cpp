/** Silencing the reports changes no result: what fails, fails in the same way. */
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <korvane/iAp2LogUtil.h>
#include <korvane/iAp2Marshal.h>
#include <korvane/iAP2Utils.h>
#include <korvane/utils.h>

#include "Faults.h"
#include "TraceRecorder.h"

namespace
{

using support::Hooks;
using support::ScopedHook;
using testing::IsEmpty;

class SilenceTest : public support::TraceTest
{
protected:
    SilenceTest()
    {
        setLogLevel(91);
    }
    ~SilenceTest() override
    {
        EXPECT_THAT(support::takeTraces(), IsEmpty());
    }
};

TEST_F(SilenceTest, Memory_WhenSilent_FailsTheSame)
{
    EXPECT_EQ(iAP2_malloc(static_cast<std::uint64_t>(-1)), nullptr);
    {
        const ScopedHook fault(&Hooks::malloc, [](std::size_t) -> void* { return nullptr; });
        EXPECT_EQ(iAP2_malloc(1), nullptr);
    }
    int released = 0;
    const ScopedHook watch(&Hooks::free, [&released](void*) { ++released; });
    alignas(16) char foreign[32] = {};
    iAP2_free(foreign + 16);
    iAP2_free(nullptr);
    EXPECT_EQ(released, 0);
}

TEST_F(SilenceTest, Cursor_WhenSilent_FailsTheSame)
{
    std::uint8_t buffer[8] = {9, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
    MarshalIo mio{};
    iAp2MarshalInit(&mio, buffer, 8, 9);
    EXPECT_EQ(mio.flags, 2U);
    iAp2MarshalInit(&mio, buffer, 8, 8);
    iAp2MarshalPutUint8(&mio, 1);
    EXPECT_EQ(mio.flags, 2U);
    EXPECT_EQ(iAp2MarshalAlloc(&mio, static_cast<std::size_t>(-1)), nullptr);
    iAp2MarshalPutBytes(&mio, nullptr, 1);
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 0U);
    EXPECT_EQ(mio.dataAvail, 0U);

    std::uint32_t length = 0;
    EXPECT_EQ(iAp2MarshalGetBytes(nullptr, &length), nullptr);
    EXPECT_EQ(iAp2MarshalGetBytes(&mio, nullptr), nullptr);
    mio = {buffer + 4, 0, 4, buffer, 1};
    EXPECT_EQ(iAp2MarshalGetBytes(&mio, &length), nullptr);
    EXPECT_EQ(mio.flags, 1U);

    EXPECT_EQ(iAp2MarshalGetUsedSize(nullptr), 0U);
    mio = {buffer, 0, 4, buffer + 4, 1};
    EXPECT_EQ(iAp2MarshalGetUsedSize(&mio), 0U);
    mio = {buffer, static_cast<std::size_t>(-1), 4, buffer, 1};
    EXPECT_EQ(iAp2MarshalGetUsedSize(&mio), 0U);
}

TEST_F(SilenceTest, ParameterRecords_WhenSilent_FailTheSame)
{
    CmdSaveParam mac{};
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mac, nullptr), -6705);
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mac, ""), -6705);
    EXPECT_EQ(changeStringToByteArrayForMacAddr(nullptr, "001A7DDA7113"), -6705);
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mac, "001A7DDA7113"), 0);
    {
        const ScopedHook fault(&Hooks::strtol, [](const char*, char**, int) { return 256L; });
        EXPECT_EQ(changeStringToByteArrayForMacAddr(&mac, "001A7DDA7113"), -6751);
    }
    mac.value = nullptr;
    CmdSaveUtf8Param text{};
    char empty[] = "";
    EXPECT_EQ(reSettingUtf8ParamFromCharValue(&text, nullptr), -6705);
    EXPECT_EQ(reSettingUtf8ParamFromCharValue(nullptr, empty), -6705);
    const ScopedHook noMemory(&Hooks::malloc, [](std::size_t) -> void* { return nullptr; });
    const ScopedHook noArray(&Hooks::newArrayNothrow, [](std::size_t) -> void* { return nullptr; });
    EXPECT_EQ(changeStringToByteArrayForMacAddr(&mac, "001A7DDA7113"), -6728);
    EXPECT_EQ(reSettingUtf8ParamFromCharValue(&text, empty), -6728);
    std::uint8_t body[4] = {};
    MarshalIo mio{body, 0, 4, body, 1};
    EXPECT_EQ(reSettingUtf8ParamForCPP(&text, &mio), -6728);
    errno = ENOENT;
    EXPECT_EQ(reSettingUtf8ParamForCPP(nullptr, &mio), -6705);
    EXPECT_EQ(errno, 0);
}

TEST_F(SilenceTest, Components_WhenSilent_FailTheSame)
{
    std::uint8_t buffer[64] = {};
    MarshalIo mio{};
    iAp2MarshalInit(&mio, buffer, sizeof buffer, 0);
    UARTTransportComponent uart{};
    ComponentListParam list{};
    SimpleMashalingByType(&uart, nullptr, 1);
    SimpleMashalingByType(nullptr, &mio, 1);
    SimpleMashalingByType(&uart, &mio, 2);
    MarshalingByComponentType(&uart, nullptr, 0);
    MarshalingByComponentType(nullptr, &mio, 0);
    MarshalingByComponentType(&uart, &mio, 12);
    MarshalingByComponentListType(&list, nullptr, 3);
    MarshalingByComponentListType(nullptr, &mio, 3);
    MarshalingByComponentListType(&list, &mio, 5);
    EXPECT_EQ(iAp2MarshalGetUsedSize(&mio), 0U);
    EXPECT_EQ(mio.flags, 0U);
}

} // namespace
