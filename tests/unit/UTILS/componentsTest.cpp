#include <korvane/iAp2Marshal.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <korvane/iAp2LogUtil.h>

#include "TraceRecorder.h"

namespace
{

using support::takeMessages;
using support::takeTraces;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint8_t kFill = 0xEE;

/** Bytes as they should lie on the wire; padding holds the fill of the buffer. */
class Wire
{
public:
    Wire& u8(std::uint8_t value)
    {
        return slot(&value, sizeof value);
    }
    Wire& u16(std::uint16_t value)
    {
        return slot(&value, sizeof value);
    }
    Wire& u32(std::uint32_t value)
    {
        return slot(&value, sizeof value);
    }
    Wire& bytes(const std::string& value)
    {
        u32(static_cast<std::uint32_t>(value.size()));
        return slot(value.data(), value.size());
    }
    /** A text with its terminating zero. */
    Wire& text(const std::string& value)
    {
        return bytes(value + '\0');
    }
    const std::vector<std::uint8_t>& get() const
    {
        return mBytes;
    }

private:
    Wire& slot(const void* bytes, std::size_t size)
    {
        const auto* const begin = static_cast<const std::uint8_t*>(bytes);
        mBytes.insert(mBytes.end(), begin, begin + size);
        mBytes.resize((mBytes.size() + 3) / 4 * 4, kFill);
        return *this;
    }

    std::vector<std::uint8_t> mBytes;
};

/** A cursor over a filled buffer. */
class Out
{
public:
    explicit Out(std::size_t size = 1024) : mBuffer(size, kFill)
    {
        iAp2MarshalInit(&mio, mBuffer.data(), mBuffer.size(), 0);
    }
    std::vector<std::uint8_t> written() const
    {
        return {mBuffer.begin(), mBuffer.begin() + (mio.data - mio.data0)};
    }
    const std::vector<std::uint8_t>& whole() const
    {
        return mBuffer;
    }
    MarshalIo mio{};

private:
    std::vector<std::uint8_t> mBuffer;
};

/** An essential text that borrows a literal. */
CmdSaveEssentialUtf8Param essential(const char* text)
{
    return {static_cast<std::uint32_t>(std::strlen(text) + 1), const_cast<char*>(text)};
}

CmdSaveUtf8Param utf8(std::uint8_t present, const char* text)
{
    return {present, static_cast<std::uint32_t>(std::strlen(text) + 1), const_cast<char*>(text)};
}

class ComponentsTest : public support::TraceTest
{
protected:
    /** What `marshal` writes. */
    static std::vector<std::uint8_t> bytesOf(const std::function<void(MarshalIo*)>& marshal)
    {
        Out out;
        marshal(&out.mio);
        EXPECT_EQ(out.mio.flags, 0U);
        return out.written();
    }
    static std::vector<std::uint8_t> simple(void* record, std::uint32_t type)
    {
        return bytesOf([=](MarshalIo* mio) { SimpleMashalingByType(record, mio, type); });
    }
    static std::vector<std::uint8_t> component(void* record, std::uint32_t number)
    {
        return bytesOf([=](MarshalIo* mio) { MarshalingByComponentType(record, mio, number); });
    }
    static std::vector<std::uint8_t> list(ComponentListParam list, std::int32_t number)
    {
        return bytesOf([&](MarshalIo* mio) { MarshalingByComponentListType(&list, mio, number); });
    }
};

TEST_F(ComponentsTest, Constants_WhenUsedByClients_HaveTheNumbersOfTheWireFormat)
{
    EXPECT_THAT(
        (std::vector<int>{IAP2_PARAM_BOOL, IAP2_PARAM_UINT32, IAP2_PARAM_UINT16, IAP2_PARAM_UINT8,
                          IAP2_PARAM_BYTES, IAP2_PARAM_UTF8, IAP2_PARAM_ESSENTIAL_UTF8}),
        ElementsAre(1, 7, 8, 9, 10, 11, 12));
    EXPECT_THAT(
        (std::vector<int>{IAP2_COMPONENT_UART_TRANSPORT, IAP2_COMPONENT_USB_DEVICE_TRANSPORT,
                          IAP2_COMPONENT_USB_HOST_TRANSPORT, IAP2_COMPONENT_BLUETOOTH_TRANSPORT,
                          IAP2_COMPONENT_IAP2_HID, IAP2_COMPONENT_VEHICLE_INFORMATION,
                          IAP2_COMPONENT_VEHICLE_STATUS, IAP2_COMPONENT_LOCATION_INFORMATION,
                          IAP2_COMPONENT_USB_HOST_HID, IAP2_COMPONENT_WIRELESS_CARPLAY_TRANSPORT,
                          IAP2_COMPONENT_BLUETOOTH_HID, IAP2_COMPONENT_ROUTE_GUIDANCE_DISPLAY}),
        ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11));
}

/* ---- Simple parameters ---- */

TEST_F(ComponentsTest, Simple_WhenCursorOrRecordIsNull_ReportsTheCursorFirst)
{
    CmdSaveBoolParam param{1, 1};
    SimpleMashalingByType(nullptr, nullptr, 1);
    SimpleMashalingByType(&param, nullptr, 1);
    EXPECT_THAT(takeMessages(),
                ElementsAre("E SimpleMashalingByType error : piAp2Marshal is NULL",
                            "E SimpleMashalingByType error : piAp2Marshal is NULL"));
    Out out;
    SimpleMashalingByType(nullptr, &out.mio, 1);
    SimpleMashalingByType(nullptr, &out.mio, 99);
    EXPECT_THAT(takeMessages(), ElementsAre("E SimpleMashalingByType error : pData is NULL",
                                            "E SimpleMashalingByType error : pData is NULL"));
    EXPECT_THAT(out.written(), IsEmpty());
}

TEST_F(ComponentsTest, Simple_WhenTheTypeIsNotDefined_WarnsAndWritesNothing)
{
    CmdSaveBoolParam param{1, 1};
    for (const std::uint32_t type : {0U, 2U, 3U, 4U, 5U, 6U, 13U, 14U, 0xFFFFFFFFU})
    {
        EXPECT_THAT(simple(&param, type), IsEmpty());
        EXPECT_THAT(takeMessages(), ElementsAre("W not defined type !!")) << type;
    }
}

TEST_F(ComponentsTest, Simple_WhenABoolIsPresent_WritesFlagAndValue)
{
    for (const std::uint8_t value : {std::uint8_t{0}, std::uint8_t{1}, std::uint8_t{255}})
    {
        CmdSaveBoolParam param{1, value};
        EXPECT_EQ(simple(&param, IAP2_PARAM_BOOL), Wire().u8(1).u8(value).get());
        EXPECT_THAT(takeMessages(), ElementsAre("D boolParam [" + std::to_string(value) + "]"));
    }
}

TEST_F(ComponentsTest, Simple_WhenAUint8IsPresent_WritesFlagAndValue)
{
    CmdSaveUint8Param param{1, 200};
    EXPECT_EQ(simple(&param, IAP2_PARAM_UINT8), Wire().u8(1).u8(200).get());
    EXPECT_THAT(takeMessages(), ElementsAre("D uint8Param [200]"));
}

TEST_F(ComponentsTest, Simple_WhenAUint16IsPresent_WritesFlagAndValue)
{
    CmdSaveUint16Param param{1, 65535};
    EXPECT_EQ(simple(&param, IAP2_PARAM_UINT16), Wire().u8(1).u16(65535).get());
    EXPECT_THAT(takeMessages(), ElementsAre("D uint16Param [65535]"));
}

TEST_F(ComponentsTest, Simple_WhenAUint32IsPresent_WritesFlagAndValue)
{
    CmdSaveUint32Param param{1, 4294967295};
    EXPECT_EQ(simple(&param, IAP2_PARAM_UINT32), Wire().u8(1).u32(4294967295).get());
    EXPECT_THAT(takeMessages(), ElementsAre("D uint32Param [4294967295]"));
}

TEST_F(ComponentsTest, Simple_WhenBytesArePresent_WritesFlagAndByteStringWithoutATrace)
{
    std::uint8_t bytes[] = {1, 2, 3, 4, 5, 6};
    CmdSaveParam param{1, sizeof bytes, bytes};
    EXPECT_EQ(simple(&param, IAP2_PARAM_BYTES), Wire().u8(1).bytes("\1\2\3\4\5\6").get());
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ComponentsTest, Simple_WhenATextIsPresent_WritesFlagAndTextWithItsZero)
{
    CmdSaveUtf8Param param = utf8(1, "Grüße");
    EXPECT_EQ(simple(&param, IAP2_PARAM_UTF8), Wire().u8(1).text("Grüße").get());
    EXPECT_THAT(takeMessages(), ElementsAre("D Utf8Param [Grüße]"));
}

TEST_F(ComponentsTest, Simple_WhenATextIsNotEnded_TracesAndWritesNoMoreThanItsSize)
{
    char text[] = {'a', 'b', 'c', 'X'};
    CmdSaveUtf8Param param{1, 3, text};
    EXPECT_EQ(simple(&param, IAP2_PARAM_UTF8), Wire().u8(1).bytes("abc").get());
    EXPECT_THAT(takeMessages(), ElementsAre("D Utf8Param [abc]"));
    CmdSaveEssentialUtf8Param essentialParam{3, text};
    EXPECT_EQ(simple(&essentialParam, IAP2_PARAM_ESSENTIAL_UTF8), Wire().bytes("abc").get());
    EXPECT_THAT(takeMessages(), ElementsAre("D EssentialUTF8Param value [abc]"));
}

TEST_F(ComponentsTest, Simple_WhenAPresentValueIsNull_WritesTheFlagAndReportsTheBytes)
{
    constexpr char kBytesAreNull[] =
        "E iAp2MarshalPutBytes error : iAp2MarshalPutBytes() bytes is NULL";
    CmdSaveParam bytes{1, 6, nullptr};
    EXPECT_EQ(simple(&bytes, IAP2_PARAM_BYTES), Wire().u8(1).get());
    EXPECT_THAT(takeMessages(), ElementsAre(kBytesAreNull));
    CmdSaveUtf8Param text{1, 6, nullptr};
    EXPECT_EQ(simple(&text, IAP2_PARAM_UTF8), Wire().u8(1).get());
    EXPECT_THAT(takeMessages(), ElementsAre("D Utf8Param [(null)]", kBytesAreNull));
    Out out;
    std::ptrdiff_t position = -1;
    support::onTrace([&](const std::string&) { position = out.mio.data - out.mio.data0; });
    SimpleMashalingByType(&bytes, &out.mio, IAP2_PARAM_BYTES);
    EXPECT_EQ(position, 4);
}

TEST_F(ComponentsTest, Simple_WhenPresenceIsNotExactlyOne_WritesTheFlagAlone)
{
    for (const std::uint8_t flag : {std::uint8_t{0}, std::uint8_t{2}, std::uint8_t{255}})
    {
        CmdSaveBoolParam boolean{flag, 1};
        CmdSaveUint8Param number8{flag, 1};
        CmdSaveUint16Param number16{flag, 1};
        CmdSaveUint32Param number32{flag, 1};
        std::uint8_t byte = 1;
        CmdSaveParam bytes{flag, 1, &byte};
        CmdSaveUtf8Param text = utf8(flag, "x");
        const std::vector<std::uint8_t> expected = Wire().u8(flag).get();
        EXPECT_EQ(simple(&boolean, IAP2_PARAM_BOOL), expected);
        EXPECT_EQ(simple(&number8, IAP2_PARAM_UINT8), expected);
        EXPECT_EQ(simple(&number16, IAP2_PARAM_UINT16), expected);
        EXPECT_EQ(simple(&number32, IAP2_PARAM_UINT32), expected);
        EXPECT_EQ(simple(&bytes, IAP2_PARAM_BYTES), expected);
        EXPECT_EQ(simple(&text, IAP2_PARAM_UTF8), expected);
        EXPECT_THAT(takeMessages(), IsEmpty());
    }
}

TEST_F(ComponentsTest, Simple_WhenAnEssentialTextIsThere_WritesItWithoutAFlag)
{
    CmdSaveEssentialUtf8Param param = essential("Head unit");
    EXPECT_EQ(simple(&param, IAP2_PARAM_ESSENTIAL_UTF8), Wire().text("Head unit").get());
    EXPECT_EQ(param.size, 10U);
    EXPECT_THAT(takeMessages(), ElementsAre("D EssentialUTF8Param value [Head unit]"));
}

TEST_F(ComponentsTest, Simple_WhenAnEssentialTextIsMissing_WritesZeroAndClearsItsSize)
{
    CmdSaveEssentialUtf8Param null{5, nullptr};
    EXPECT_EQ(simple(&null, IAP2_PARAM_ESSENTIAL_UTF8), Wire().u32(0).get());
    EXPECT_EQ(null.size, 0U);
    char text[] = "text";
    CmdSaveEssentialUtf8Param empty{0, text};
    EXPECT_EQ(simple(&empty, IAP2_PARAM_ESSENTIAL_UTF8), Wire().u32(0).get());
    EXPECT_EQ(empty.size, 0U);
    EXPECT_EQ(empty.value, text);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ComponentsTest, Simple_WhenAValueIsTraced_TheCursorStandsBehindTheFlag)
{
    CmdSaveUint32Param param{1, 5};
    Out out;
    std::ptrdiff_t position = -1;
    support::onTrace([&](const std::string&) { position = out.mio.data - out.mio.data0; });
    SimpleMashalingByType(&param, &out.mio, IAP2_PARAM_UINT32);
    EXPECT_EQ(position, 4);
    EXPECT_EQ(out.written().size(), 8U);
}

/* ---- The twelve components ---- */

/** One component with a value in every field: its records, body and traces. */
struct Sample
{
    std::uint32_t number;
    const char* name;
    bool isSingleton;
    void* record;
    std::function<void(MarshalIo*)> marshal;
    std::vector<std::uint8_t> body;
    std::vector<std::string> traces;
};

class Samples
{
public:
    UARTTransportComponent uart{1, 0x0102, essential("uart"), 7};
    std::uint32_t rates[3] = {44100, 48000, 0xFFFFFFFF};
    USBDeviceTransportComponent usbDevice{1, 2, essential("usb device"), 8, {3, rates}};
    USBHostTransportComponent usbHost{1, 3, essential("usb host"), {1, 2, 3}};
    BluetoothTransportComponent bluetooth{
        4, essential("bluetooth"), 9, {0, 0x1A, 0x7D, 0xDA, 0x71, 0x13}};
    iAP2HIDComponent hid{5, essential("hid"), 0x01020304};
    std::uint32_t engines[2] = {1, 0x80000000};
    std::uint32_t connectors[2] = {3, 4};
    VehicleInformationComponent vehicle{
        1,
        6,
        essential("vehicle"),
        {2, engines},
        essential("maker"),
        {utf8(1, "model"), utf8(0, "unused")},
        {2, connectors},
        {{1, 10}, {0, 11}, {1, 12}, {2, 13}, {1, 14}, {0, 15}, {1, 16}}};
    VehicleStatusComponent status{
        1, 7, essential("status"), {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}};
    LocationInformationComponent location{1, 8, essential("location"), {1, 0, 255}};
    USBHostHIDComponent usbHid{9, essential("usb hid"), 5, {6, 7}};
    WirelessCarPlayTransportComponent wireless{10, essential("wireless")};
    BluetoothHIDComponent bluetoothHid{1, 11, essential("bluetooth hid"), 99};
    RouteGuidanceDisplayComponent route{
        12, essential("route"), {{1, 20}, {0, 21}, {1, 22}, {1, 23}, {1, 24}, {2, 25}, {1, 26}}};

    std::vector<Sample> all()
    {
        return {
            {0,
             "UARTTransportComponent",
             true,
             &uart,
             [this](MarshalIo* mio) { MarshalingForUARTTransportComponent(&uart, mio); },
             Wire().u16(0x0102).text("uart").u8(7).get(),
             {"D EssentialUTF8Param value [uart]"}},
            {1,
             "USBDeviceTransportComponent",
             true,
             &usbDevice,
             [this](MarshalIo* mio) { MarshalingForUSBDeviceTransportComponent(&usbDevice, mio); },
             Wire()
                 .u16(2)
                 .text("usb device")
                 .u8(8)
                 .u32(3)
                 .u32(44100)
                 .u32(48000)
                 .u32(0xFFFFFFFF)
                 .get(),
             {"D EssentialUTF8Param value [usb device]",
              "D USBDeviceModeAudioSampleRate[0], value = 44100",
              "D USBDeviceModeAudioSampleRate[1], value = 48000",
              "D USBDeviceModeAudioSampleRate[2], value = -1"}},
            {2,
             "USBHostTransportComponent",
             true,
             &usbHost,
             [this](MarshalIo* mio) { MarshalingForUSBHostTransportComponent(&usbHost, mio); },
             Wire().u16(3).text("usb host").u8(1).u8(2).u8(3).get(),
             {"D EssentialUTF8Param value [usb host]"}},
            {3,
             "BluetoothTransportComponent",
             false,
             &bluetooth,
             [this](MarshalIo* mio) { MarshalingForBluetoothTransportComponent(&bluetooth, mio); },
             Wire()
                 .u16(4)
                 .text("bluetooth")
                 .u8(9)
                 .bytes(std::string("\x00\x1A\x7D\xDA\x71\x13", 6))
                 .get(),
             {"D EssentialUTF8Param value [bluetooth]"}},
            {4,
             "iAP2HIDComponent",
             false,
             &hid,
             [this](MarshalIo* mio) { MarshalingForiAP2HIDComponent(&hid, mio); },
             Wire().u16(5).text("hid").u32(0x01020304).get(),
             {"D EssentialUTF8Param value [hid]"}},
            {5,
             "VehicleInformationComponent",
             true,
             &vehicle,
             [this](MarshalIo* mio) { MarshalingForVehicleInformationComponent(&vehicle, mio); },
             Wire()
                 .u16(6)
                 .text("vehicle")
                 .u32(2)
                 .u32(1)
                 .u32(0x80000000)
                 .text("maker")
                 .u8(1)
                 .text("model")
                 .u8(0)
                 .u32(2)
                 .u32(3)
                 .u32(4)
                 .u8(1)
                 .u32(10)
                 .u8(0)
                 .u8(1)
                 .u32(12)
                 .u8(2)
                 .u8(1)
                 .u32(14)
                 .u8(0)
                 .u8(1)
                 .u32(16)
                 .get(),
             {"D EssentialUTF8Param value [vehicle]", "I EngineType value [1]",
              "I EngineType value [-2147483648]", "D EssentialUTF8Param value [maker]",
              "D Utf8Param [model]", "I ChargingConnector value [3]",
              "I ChargingConnector value [4]", "D uint32Param [10]", "D uint32Param [12]",
              "D uint32Param [14]", "D uint32Param [16]"}},
            {6,
             "VehicleStatusComponent",
             true,
             &status,
             [this](MarshalIo* mio) { MarshalingForVehicleStatusComponent(&status, mio); },
             Wire()
                 .u16(7)
                 .text("status")
                 .u8(1)
                 .u8(2)
                 .u8(3)
                 .u8(4)
                 .u8(5)
                 .u8(6)
                 .u8(7)
                 .u8(8)
                 .u8(9)
                 .u8(10)
                 .u8(11)
                 .u8(12)
                 .u8(13)
                 .get(),
             {"D EssentialUTF8Param value [status]"}},
            {7,
             "LocationInformationComponent",
             true,
             &location,
             [this](MarshalIo* mio) { MarshalingForLocationInformationComponent(&location, mio); },
             Wire().u16(8).text("location").u8(1).u8(0).u8(255).get(),
             {"D EssentialUTF8Param value [location]"}},
            {8,
             "USBHostHIDComponent",
             false,
             &usbHid,
             [this](MarshalIo* mio) { MarshalingForUSBHostHIDComponent(&usbHid, mio); },
             Wire().u16(9).text("usb hid").u32(5).u16(6).u16(7).get(),
             {"D EssentialUTF8Param value [usb hid]"}},
            {9,
             "WirelessCarPlayTransportComponent",
             false,
             &wireless,
             [this](MarshalIo* mio)
             { MarshalingForWirelessCarPlayTransportComponent(&wireless, mio); },
             Wire().u16(10).text("wireless").get(),
             {"D EssentialUTF8Param value [wireless]"}},
            {10,
             "BluetoothHIDComponent",
             true,
             &bluetoothHid,
             [this](MarshalIo* mio) { MarshalingForBluetoothHIDComponent(&bluetoothHid, mio); },
             Wire().u16(11).text("bluetooth hid").u32(99).get(),
             {"D EssentialUTF8Param value [bluetooth hid]"}},
            {11,
             "RouteGuidanceDisplayComponent",
             false,
             &route,
             [this](MarshalIo* mio) { MarshalingForRouteGuidanceDisplayComponent(&route, mio); },
             Wire()
                 .u16(12)
                 .text("route")
                 .u8(1)
                 .u16(20)
                 .u8(0)
                 .u8(1)
                 .u16(22)
                 .u8(1)
                 .u16(23)
                 .u8(1)
                 .u16(24)
                 .u8(2)
                 .u8(1)
                 .u16(26)
                 .get(),
             {"D EssentialUTF8Param value [route]", "D uint16Param [20]", "D uint16Param [22]",
              "D uint16Param [23]", "D uint16Param [24]", "D uint16Param [26]"}},
        };
    }
};

std::vector<std::uint8_t> joined(std::vector<std::uint8_t> first,
                                 const std::vector<std::uint8_t>& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::vector<std::string> joined(std::vector<std::string> first,
                                const std::vector<std::string>& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::vector<std::string> announced(const Sample& sample)
{
    return joined({std::string("D Marshaling ") + sample.name}, sample.traces);
}

TEST_F(ComponentsTest, ComponentFunctions_WhenEveryFieldHasAValue_WriteTheBody)
{
    Samples samples;
    for (const Sample& sample : samples.all())
    {
        EXPECT_EQ(bytesOf(sample.marshal), sample.body) << sample.name;
        EXPECT_EQ(takeMessages(), sample.traces) << sample.name;
    }
}

TEST_F(ComponentsTest, ComponentFunctions_WhenAPresenceFlagIsZero_WriteTheBodyAllTheSame)
{
    Samples samples;
    for (const Sample& sample : samples.all())
    {
        if (sample.isSingleton)
        {
            *static_cast<std::uint8_t*>(sample.record) = 0;
            EXPECT_EQ(bytesOf(sample.marshal), sample.body) << sample.name;
        }
    }
}

TEST_F(ComponentsTest, ComponentFunctions_WhenTracesAreSilenced_WriteTheSameBytes)
{
    setLogLevel(91);
    Samples samples;
    for (const Sample& sample : samples.all())
    {
        EXPECT_EQ(bytesOf(sample.marshal), sample.body) << sample.name;
    }
    EXPECT_THAT(takeMessages(), IsEmpty());
}

/** What a call leaves behind: the whole buffer, the cursor, and the record. */
struct Outcome
{
    std::vector<std::uint8_t> buffer;
    std::ptrdiff_t used;
    std::size_t room;
    std::uint32_t flags;

    bool operator==(const Outcome& other) const
    {
        return buffer == other.buffer && used == other.used && room == other.room &&
               flags == other.flags;
    }
};

Outcome outcomeOf(std::size_t size, const std::function<void(MarshalIo*)>& marshal)
{
    Out out(size);
    marshal(&out.mio);
    return {out.whole(), out.mio.data - out.mio.data0, out.mio.dataAvail, out.mio.flags};
}

/** Silence opens a faster way of writing, which must not show. */
void expectSameWhenSilent(std::size_t size, const std::function<void(MarshalIo*)>& marshal)
{
    setLogLevel(0);
    const Outcome traced = outcomeOf(size, marshal);
    setLogLevel(91);
    EXPECT_EQ(outcomeOf(size, marshal), traced) << size;
    setLogLevel(41); // failures are still reported
    EXPECT_EQ(outcomeOf(size, marshal), traced) << size;
    setLogLevel(0);
    takeMessages();
}

TEST_F(ComponentsTest, ComponentFunctions_WhenSilent_WriteTheSameInEveryRoom)
{
    Samples samples;
    for (const Sample& sample : samples.all())
    {
        const auto byType = [&](MarshalIo* mio)
        { MarshalingByComponentType(sample.record, mio, sample.number); };
        for (std::size_t size = 0; size < sample.body.size() + 12; ++size)
        {
            expectSameWhenSilent(size, sample.marshal);
            expectSameWhenSilent(size, byType);
        }
    }
}

TEST_F(ComponentsTest, ByListType_WhenSilent_WritesTheSameInEveryRoom)
{
    Samples samples;
    RouteGuidanceDisplayComponent displays[] = {samples.route, samples.route, samples.route};
    displays[1].name = {7, nullptr};
    BluetoothTransportComponent transports[] = {samples.bluetooth, samples.bluetooth};
    ComponentListParam displayList{3, displays};
    ComponentListParam transportList{2, transports};
    for (std::size_t size = 0; size < 300; ++size)
    {
        expectSameWhenSilent(size, [&](MarshalIo* mio)
                             { MarshalingByComponentListType(&displayList, mio, 11); });
        expectSameWhenSilent(size, [&](MarshalIo* mio)
                             { MarshalingByComponentListType(&transportList, mio, 3); });
    }
}

TEST_F(ComponentsTest, ComponentFunctions_WhenTextsHaveAnyLength_WriteThemWhole)
{
    for (std::size_t length = 0; length < 200; ++length)
    {
        std::string name;
        for (std::size_t i = 0; i < length; ++i)
        {
            name += static_cast<char>('a' + i % 26);
        }
        WirelessCarPlayTransportComponent wireless{1, essential(name.c_str())};
        for (const int level : {0, 91})
        {
            setLogLevel(level);
            EXPECT_EQ(bytesOf([&](MarshalIo* mio)
                              { MarshalingForWirelessCarPlayTransportComponent(&wireless, mio); }),
                      Wire().u16(1).text(name).get());
        }
    }
}

TEST_F(ComponentsTest, EveryCall_WhenNamesHaveAnyLength_WritesTheSameSilentAndTraced)
{
    Samples samples;
    std::string name;
    for (std::size_t length = 0; length < 70; ++length)
    {
        name += static_cast<char>('a' + length % 26);
        for (const Sample& sample : samples.all())
        {
            // The name stands at the same place in all records.
            static_assert(offsetof(UARTTransportComponent, name) ==
                          offsetof(iAP2HIDComponent, name));
            auto* const text = reinterpret_cast<CmdSaveEssentialUtf8Param*>(
                static_cast<char*>(sample.record) + offsetof(iAP2HIDComponent, name));
            *text = essential(name.c_str());
            ComponentListParam list{1, sample.record};
            expectSameWhenSilent(512, sample.marshal);
            expectSameWhenSilent(512, [&](MarshalIo* mio)
                                 { MarshalingByComponentType(sample.record, mio, sample.number); });
            expectSameWhenSilent(512,
                                 [&](MarshalIo* mio) {
                                     MarshalingByComponentListType(
                                         &list, mio, static_cast<std::int32_t>(sample.number));
                                 });
        }
    }
}

TEST_F(ComponentsTest, VehicleInformation_WhenItsTextsHaveAnyLength_WritesTheSameSilentAndTraced)
{
    std::string text;
    for (std::size_t length = 0; length < 70; ++length)
    {
        text += static_cast<char>('a' + length % 26);
        Samples samples;
        samples.vehicle.essentialText = essential(text.c_str());
        samples.vehicle.texts[0] = utf8(1, text.c_str());
        samples.vehicle.texts[1] = utf8(1, text.c_str() + length / 2);
        expectSameWhenSilent(1024, [&](MarshalIo* mio)
                             { MarshalingForVehicleInformationComponent(&samples.vehicle, mio); });
        expectSameWhenSilent(1024, [&](MarshalIo* mio)
                             { MarshalingByComponentType(&samples.vehicle, mio, 5); });
    }
}

TEST_F(ComponentsTest, ComponentFunctions_WhenSilentAndAValueIsMissing_ReportIt)
{
    setLogLevel(60);
    Samples samples;
    samples.vehicle.texts[0].value = nullptr;
    bytesOf([&](MarshalIo* mio)
            { MarshalingForVehicleInformationComponent(&samples.vehicle, mio); });
    EXPECT_THAT(takeMessages(),
                ElementsAre("E iAp2MarshalPutBytes error : iAp2MarshalPutBytes() bytes is NULL"));
}

TEST_F(ComponentsTest, ComponentFunctions_WhenTextsLieInTheBuffer_AreWrittenAsThoughSlotBySlot)
{
    // A name inside the buffer that is written to: what was written before is read as part of it.
    for (std::size_t at = 0; at < 40; ++at)
    {
        std::vector<std::uint8_t> buffers[2];
        for (int i = 0; i < 2; ++i)
        {
            setLogLevel(i == 0 ? 0 : 91);
            std::vector<std::uint8_t>& buffer = buffers[i];
            for (std::uint8_t byte = 0; byte < 64; ++byte)
            {
                buffer.push_back(byte);
            }
            BluetoothTransportComponent bluetooth{
                1, {12, reinterpret_cast<char*>(buffer.data() + at)}, 2, {1, 2, 3, 4, 5, 6}};
            MarshalIo mio{};
            iAp2MarshalInit(&mio, buffer.data(), buffer.size(), 0);
            MarshalingForBluetoothTransportComponent(&bluetooth, &mio);
        }
        EXPECT_EQ(buffers[0], buffers[1]) << at;
    }
    setLogLevel(0);
    takeTraces();
}

TEST_F(ComponentsTest, ComponentFunctions_WhenTheNameIsMissing_WriteAnEmptyByteString)
{
    UARTTransportComponent uart{1, 1, {5, nullptr}, 7};
    EXPECT_EQ(bytesOf([&](MarshalIo* mio) { MarshalingForUARTTransportComponent(&uart, mio); }),
              Wire().u16(1).u32(0).u8(7).get());
    EXPECT_EQ(uart.name.size, 0U);
}

TEST_F(ComponentsTest, ComponentFunctions_WhenTheBufferIsShort_WriteWhatFitsAndGoOn)
{
    Samples samples;
    for (const Sample& sample : samples.all())
    {
        for (std::size_t size = 0; size < sample.body.size(); size += 4)
        {
            Out out(size);
            sample.marshal(&out.mio);
            EXPECT_EQ(out.mio.flags, 2U) << sample.name << size;
            EXPECT_LE(out.written().size(), size);
        }
        Out exact(sample.body.size());
        sample.marshal(&exact.mio);
        EXPECT_EQ(exact.mio.flags, 0U);
        EXPECT_EQ(exact.written(), sample.body);
    }
}

TEST_F(ComponentsTest, ComponentFunctions_WhenOneValueDoesNotFit_PutTheSmallerOnesBehindIt)
{
    // Room for the identifier and two more slots: the name takes its length and nothing else fits
    // until the value does.
    UARTTransportComponent uart{1, 1, essential("a name that is too long"), 7};
    Out out(12);
    MarshalingForUARTTransportComponent(&uart, &out.mio);
    EXPECT_EQ(out.written(), Wire().u16(1).u32(24).u8(7).get());
    EXPECT_THAT(takeMessages(),
                ElementsAre("D EssentialUTF8Param value [a name that is too long]",
                            "E ERROR : iAp2MarshalAlloc() overflow size[24] dataAvail[4]",
                            "E iAp2MarshalAlloc error : overflow"));
}

TEST_F(ComponentsTest, ComponentFunctions_WhenAnArrayDoesNotFit_ReportEachOfItsValues)
{
    USBHostTransportComponent usbHost{1, 1, {0, nullptr}, {1, 2, 3}};
    Out out(12);
    MarshalingForUSBHostTransportComponent(&usbHost, &out.mio);
    EXPECT_EQ(out.written(), Wire().u16(1).u32(0).u8(1).get());
    EXPECT_THAT(takeMessages(),
                ElementsAre("E ERROR : iAp2MarshalAlloc() overflow size[4] dataAvail[0]",
                            "E iAp2MarshalAlloc error : overflow",
                            "E ERROR : iAp2MarshalAlloc() overflow size[4] dataAvail[0]",
                            "E iAp2MarshalAlloc error : overflow"));
}

TEST_F(ComponentsTest, SampleRates_WhenThereAreNone_WriteZeroAndLeaveTheRecord)
{
    std::uint32_t rate = 1;
    for (const Uint32ListParam rates : {Uint32ListParam{3, nullptr}, Uint32ListParam{0, &rate}})
    {
        USBDeviceTransportComponent usb{1, 2, essential("u"), 8, rates};
        EXPECT_EQ(
            bytesOf([&](MarshalIo* mio) { MarshalingForUSBDeviceTransportComponent(&usb, mio); }),
            Wire().u16(2).text("u").u8(8).u32(0).get());
        EXPECT_EQ(usb.sampleRates.count, rates.count);
        EXPECT_EQ(usb.sampleRates.values, rates.values);
    }
}

TEST_F(ComponentsTest, SampleRates_WhenTraced_AreNotYetPut)
{
    Samples samples;
    Out out;
    std::vector<std::ptrdiff_t> positions;
    support::onTrace(
        [&](const std::string& text)
        {
            if (text.find("USBDeviceModeAudioSampleRate") != std::string::npos)
            {
                positions.push_back(out.mio.data - out.mio.data0);
            }
        });
    MarshalingForUSBDeviceTransportComponent(&samples.usbDevice, &out.mio);
    const auto size = static_cast<std::ptrdiff_t>(out.written().size());
    EXPECT_THAT(positions, ElementsAre(size - 12, size - 8, size - 4));
}

TEST_F(ComponentsTest, VehicleLists_WhenThereAreNone_WriteZeroAndClearTheCounts)
{
    std::uint32_t value = 1;
    VehicleInformationComponent vehicle{};
    vehicle.engineTypes = {3, nullptr};
    vehicle.chargingConnectors = {0, &value};
    EXPECT_EQ(
        bytesOf([&](MarshalIo* mio) { MarshalingForVehicleInformationComponent(&vehicle, mio); }),
        Wire()
            .u16(0)
            .u32(0)
            .u32(0)
            .u32(0)
            .u8(0)
            .u8(0)
            .u32(0)
            .u8(0)
            .u8(0)
            .u8(0)
            .u8(0)
            .u8(0)
            .u8(0)
            .u8(0)
            .get());
    EXPECT_EQ(vehicle.engineTypes.count, 0U);
    EXPECT_EQ(vehicle.chargingConnectors.count, 0U);
    EXPECT_EQ(vehicle.chargingConnectors.values, &value);
    vehicle.chargingConnectors = {7, nullptr};
    bytesOf([&](MarshalIo* mio) { MarshalingForVehicleInformationComponent(&vehicle, mio); });
    EXPECT_EQ(vehicle.chargingConnectors.count, 0U);
}

TEST_F(ComponentsTest, VehicleLists_WhenTraced_ArePutAlready)
{
    Samples samples;
    Out out;
    std::vector<std::ptrdiff_t> positions;
    support::onTrace(
        [&](const std::string& text)
        {
            if (text.find("EngineType") != std::string::npos)
            {
                positions.push_back(out.mio.data - out.mio.data0);
            }
        });
    MarshalingForVehicleInformationComponent(&samples.vehicle, &out.mio);
    // identifier, name (4 + 8), count, then one value after the other
    EXPECT_THAT(positions, ElementsAre(24, 28));
}

/* ---- By component type ---- */

TEST_F(ComponentsTest, ByType_WhenCursorOrRecordIsNull_ReportsTheCursorFirst)
{
    Samples samples;
    MarshalingByComponentType(nullptr, nullptr, 0);
    MarshalingByComponentType(&samples.uart, nullptr, 99);
    EXPECT_THAT(takeMessages(),
                ElementsAre("E MarshalingByComponentType Error : iAp2Marshal is NULL",
                            "E MarshalingByComponentType Error : iAp2Marshal is NULL"));
    Out out;
    MarshalingByComponentType(nullptr, &out.mio, 99);
    EXPECT_THAT(takeMessages(), ElementsAre("E MarshalingByComponentType Error : inData is NULL"));
    EXPECT_THAT(out.written(), IsEmpty());
}

TEST_F(ComponentsTest, ByType_WhenTheNumberIsNotDefined_WarnsAndWritesNothing)
{
    Samples samples;
    for (const std::uint32_t number : {12U, 13U, 0xFFFFFFFFU})
    {
        EXPECT_THAT(component(&samples.uart, number), IsEmpty());
        EXPECT_THAT(takeMessages(), ElementsAre("W not defined type !!")) << number;
    }
}

TEST_F(ComponentsTest, ByType_WhenASingletonIsPresent_WritesTheFlagAndTheBody)
{
    Samples samples;
    for (const Sample& sample : samples.all())
    {
        if (sample.isSingleton)
        {
            EXPECT_EQ(component(sample.record, sample.number),
                      joined(Wire().u8(1).get(), sample.body))
                << sample.name;
            EXPECT_EQ(takeMessages(), announced(sample)) << sample.name;
        }
    }
}

TEST_F(ComponentsTest, ByType_WhenASingletonIsNotExactlyPresent_WritesTheFlagAlone)
{
    Samples samples;
    for (const Sample& sample : samples.all())
    {
        if (sample.isSingleton)
        {
            for (const std::uint8_t flag : {std::uint8_t{0}, std::uint8_t{2}, std::uint8_t{255}})
            {
                *static_cast<std::uint8_t*>(sample.record) = flag;
                EXPECT_EQ(component(sample.record, sample.number), Wire().u8(flag).get())
                    << sample.name;
                EXPECT_THAT(takeMessages(), IsEmpty());
            }
        }
    }
}

TEST_F(ComponentsTest, ByType_WhenTheKindIsAListKind_WritesTheBodyWithoutAFlag)
{
    Samples samples;
    for (const Sample& sample : samples.all())
    {
        if (!sample.isSingleton)
        {
            EXPECT_EQ(component(sample.record, sample.number), sample.body) << sample.name;
            EXPECT_EQ(takeMessages(), announced(sample)) << sample.name;
        }
    }
}

TEST_F(ComponentsTest, ByType_WhenTheFlagDoesNotFit_StillWritesTheBody)
{
    Samples samples;
    Out out(0);
    MarshalingByComponentType(&samples.uart, &out.mio, 0);
    const std::string slot = "E ERROR : iAp2MarshalAlloc() overflow size[4] dataAvail[0]";
    const std::string failed = "E iAp2MarshalAlloc error : overflow";
    EXPECT_THAT(takeMessages(),
                ElementsAre(slot, failed, "D Marshaling UARTTransportComponent", slot, failed,
                            "D EssentialUTF8Param value [uart]", slot, failed,
                            "E ERROR : iAp2MarshalAlloc() overflow size[8] dataAvail[0]", failed,
                            slot, failed));
    EXPECT_EQ(out.mio.flags, 2U);
}

/* ---- Lists ---- */

TEST_F(ComponentsTest, ByListType_WhenCursorOrRecordIsNull_ReportsTheCursorFirst)
{
    ComponentListParam param{};
    MarshalingByComponentListType(nullptr, nullptr, 3);
    MarshalingByComponentListType(&param, nullptr, 99);
    EXPECT_THAT(takeMessages(),
                ElementsAre("E MarshalingByComponentListType Error : iAp2Marshal is NULL",
                            "E MarshalingByComponentListType Error : iAp2Marshal is NULL"));
    Out out;
    MarshalingByComponentListType(nullptr, &out.mio, 99);
    EXPECT_THAT(takeMessages(),
                ElementsAre("E MarshalingByComponentListType Error : inData is NULL"));
    EXPECT_THAT(out.written(), IsEmpty());
}

TEST_F(ComponentsTest, ByListType_WhenTheNumberIsNoListKind_WarnsAndWritesNothing)
{
    Samples samples;
    for (const std::int32_t number : {std::numeric_limits<std::int32_t>::min(), -1, 0, 1, 2, 5, 6,
                                      7, 10, 12, std::numeric_limits<std::int32_t>::max()})
    {
        EXPECT_THAT(list({1, &samples.uart}, number), IsEmpty());
        EXPECT_THAT(takeMessages(), ElementsAre("W not defined type !!")) << number;
    }
}

/** A list of two: the sample, and a copy of it with another identifier. */
template <typename Component>
void expectList(const Sample& sample, const Component& first,
                const std::function<std::vector<std::uint8_t>(ComponentListParam)>& marshal)
{
    Component both[] = {first, first};
    both[1].identifier = 0x7777;
    std::vector<std::uint8_t> second = sample.body;
    second[0] = 0x77;
    second[1] = 0x77;
    EXPECT_EQ(marshal({2, both}), joined(joined(Wire().u32(2).get(), sample.body), second))
        << sample.name;
    EXPECT_EQ(takeMessages(), joined(announced(sample), announced(sample)));
}

TEST_F(ComponentsTest, ByListType_WhenThereAreTwoRecords_WritesTheCountAndEachBody)
{
    Samples samples;
    const std::vector<Sample> all = samples.all();
    const auto marshal = [](std::int32_t number)
    { return [number](ComponentListParam param) { return list(param, number); }; };
    expectList(all[3], samples.bluetooth, marshal(3));
    expectList(all[4], samples.hid, marshal(4));
    expectList(all[8], samples.usbHid, marshal(8));
    expectList(all[9], samples.wireless, marshal(9));
    expectList(all[11], samples.route, marshal(11));
}

TEST_F(ComponentsTest, ByListType_WhenTheCountIsZero_WritesTheCountOnly)
{
    Samples samples;
    EXPECT_EQ(list({0, &samples.bluetooth}, 3), Wire().u32(0).get());
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ComponentsTest, ByListType_WhenTheArrayIsNull_WritesTheCountOnly)
{
    EXPECT_EQ(list({2, nullptr}, 3), Wire().u32(2).get());
    EXPECT_EQ(list({0xFFFFFFFF, nullptr}, 11), Wire().u32(0xFFFFFFFF).get());
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ComponentsTest, ByListType_WhenTheBufferIsShort_GoesOnToTheLastRecord)
{
    Samples samples;
    WirelessCarPlayTransportComponent records[] = {samples.wireless, samples.wireless};
    ComponentListParam param{2, records};
    Out out(4);
    MarshalingByComponentListType(&param, &out.mio, 9);
    EXPECT_EQ(out.written(), Wire().u32(2).get());
    EXPECT_EQ(out.mio.flags, 2U);
    const std::vector<std::string> messages = takeMessages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(),
                         "D Marshaling WirelessCarPlayTransportComponent"),
              2);
}

} // namespace
