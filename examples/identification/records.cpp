#include "records.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <korvane/iAp2LogUtil.h>
#include <korvane/iAp2Marshal.h>
#include <korvane/utils.h>

#include "failures.h"
#include "show.h"

namespace identification
{

namespace
{

constexpr std::uint8_t kPresent = 1;

struct GuardedRelease
{
    void operator()(void* area) const
    {
        iAP2_free(area);
    }
};

/** The component records of one description, and the memory that they point to. */
class Records
{
public:
    explicit Records(const Description& description) : mDescription(description)
    {
    }

    void marshal(MarshalIo& mio)
    {
        const Description& d = mDescription;
        single(d.uart, mUart, mio, IAP2_COMPONENT_UART_TRANSPORT);
        single(d.usbDevice, mUsbDevice, mio, IAP2_COMPONENT_USB_DEVICE_TRANSPORT);
        single(d.usbHost, mUsbHost, mio, IAP2_COMPONENT_USB_HOST_TRANSPORT);
        list(d.bluetooth, mBluetooth, mio, IAP2_COMPONENT_BLUETOOTH_TRANSPORT);
        list(d.hid, mHid, mio, IAP2_COMPONENT_IAP2_HID);
        single(d.vehicleInformation, mVehicleInformation, mio, IAP2_COMPONENT_VEHICLE_INFORMATION);
        single(d.vehicleStatus, mVehicleStatus, mio, IAP2_COMPONENT_VEHICLE_STATUS);
        single(d.locationInformation, mLocation, mio, IAP2_COMPONENT_LOCATION_INFORMATION);
        list(d.usbHostHid, mUsbHostHid, mio, IAP2_COMPONENT_USB_HOST_HID);
        list(d.wirelessCarPlay, mWirelessCarPlay, mio, IAP2_COMPONENT_WIRELESS_CARPLAY_TRANSPORT);
        single(d.bluetoothHid, mBluetoothHid, mio, IAP2_COMPONENT_BLUETOOTH_HID);
        list(d.routeGuidanceDisplay, mRouteGuidance, mio, IAP2_COMPONENT_ROUTE_GUIDANCE_DISPLAY);
    }

private:
    template <typename Component, typename Record>
    void single(const std::optional<Component>& component, Record& record, MarshalIo& mio,
                std::uint32_t number)
    {
        if (component.has_value())
        {
            record.present = kPresent;
            fillCommon(record, *component);
            fill(record, *component);
        }
        MarshalingByComponentType(&record, &mio, number);
    }

    template <typename Component, typename Record>
    void list(const std::vector<Component>& components, std::vector<Record>& records,
              MarshalIo& mio, std::int32_t number)
    {
        records.resize(components.size());
        for (std::size_t i = 0; i < components.size(); ++i)
        {
            fillCommon(records[i], components[i]);
            fill(records[i], components[i]);
        }
        ComponentListParam param{static_cast<std::uint32_t>(records.size()), records.data()};
        MarshalingByComponentListType(&param, &mio, number);
    }

    template <typename Component, typename Record>
    void fillCommon(Record& record, const Component& component)
    {
        record.identifier = component.identifier;
        record.name = essentialText(component.name);
    }

    /* What stands behind the identifier and the name of each component. */

    static void fill(UARTTransportComponent& record, const UartTransport& component)
    {
        record.value = component.value;
    }

    void fill(USBDeviceTransportComponent& record, const UsbDeviceTransport& component)
    {
        record.value = component.value;
        record.sampleRates = numbers(component.sampleRates);
    }

    static void fill(USBHostTransportComponent& record, const Flags<3>& component)
    {
        std::copy(component.values.begin(), component.values.end(), record.values);
    }

    static void fill(BluetoothTransportComponent& record, const BluetoothTransport& component)
    {
        record.value = component.value;
        // The description's reader has let through nothing but twelve digits.
        if (changeStringToByteArrayForBtMacAddr(record.macAddress,
                                                component.macAddress.digits.c_str()) != 0)
        {
            throw SystemError("a MAC address could not be stored");
        }
        logPrint(IAP2_LOG_INFO, "IAP2", __FILE__, __LINE__,
                 "Bluetooth transport %u: MAC address [%s] (secured)", unsigned{record.identifier},
                 secured(component.macAddress).c_str());
    }

    static void fill(iAP2HIDComponent& record, const Hid& component)
    {
        record.value = component.value;
    }

    void fill(VehicleInformationComponent& record, const VehicleInformation& component)
    {
        record.engineTypes = numbers(component.engineTypes);
        record.essentialText = essentialText(component.essentialText);
        for (std::size_t i = 0; i < component.texts.size(); ++i)
        {
            if (component.texts[i].has_value())
            {
                record.texts[i] = text(*component.texts[i]);
            }
        }
        record.chargingConnectors = numbers(component.chargingConnectors);
        fillOptionals(record.values, component.values);
    }

    static void fill(VehicleStatusComponent& record, const Flags<13>& component)
    {
        std::copy(component.values.begin(), component.values.end(), record.values);
    }

    static void fill(LocationInformationComponent& record, const Flags<3>& component)
    {
        std::copy(component.values.begin(), component.values.end(), record.values);
    }

    static void fill(USBHostHIDComponent& record, const UsbHostHid& component)
    {
        record.value = component.value;
        std::copy(component.values.begin(), component.values.end(), record.values);
    }

    static void fill(WirelessCarPlayTransportComponent&, const WirelessCarPlayTransport&)
    {
    }

    static void fill(BluetoothHIDComponent& record, const Hid& component)
    {
        record.value = component.value;
    }

    static void fill(RouteGuidanceDisplayComponent& record, const RouteGuidanceDisplay& component)
    {
        fillOptionals(record.values, component.values);
    }

    template <typename Param, typename Value, std::size_t count>
    static void fillOptionals(Param (&params)[count],
                              const std::array<std::optional<Value>, count>& values)
    {
        for (std::size_t i = 0; i < count; ++i)
        {
            if (values[i].has_value())
            {
                params[i] = Param{kPresent, *values[i]};
            }
        }
    }

    CmdSaveUtf8Param text(std::string value)
    {
        CmdSaveUtf8Param param{};
        if (reSettingUtf8ParamFromCharValue(&param, value.data()) != 0)
        {
            throw SystemError("a text could not be stored");
        }
        // Owned before anything else can fail.
        std::unique_ptr<char, GuardedRelease> owned(param.value);
        mTexts.push_back(std::move(owned));
        return param;
    }

    CmdSaveEssentialUtf8Param essentialText(const EssentialText& value)
    {
        if (!value.text.has_value())
        {
            return {0, nullptr};
        }
        const CmdSaveUtf8Param param = text(*value.text);
        return {param.size, param.value};
    }

    /** The records point to numbers that may be changed, so they get a copy. */
    Uint32ListParam numbers(const std::vector<std::uint32_t>& values)
    {
        mNumbers.push_back(values);
        return {static_cast<std::uint32_t>(values.size()), mNumbers.back().data()};
    }

    const Description& mDescription;
    std::vector<std::unique_ptr<char, GuardedRelease>> mTexts;
    std::vector<std::vector<std::uint32_t>> mNumbers;

    UARTTransportComponent mUart{};
    USBDeviceTransportComponent mUsbDevice{};
    USBHostTransportComponent mUsbHost{};
    std::vector<BluetoothTransportComponent> mBluetooth;
    std::vector<iAP2HIDComponent> mHid;
    VehicleInformationComponent mVehicleInformation{};
    VehicleStatusComponent mVehicleStatus{};
    LocationInformationComponent mLocation{};
    std::vector<USBHostHIDComponent> mUsbHostHid;
    std::vector<WirelessCarPlayTransportComponent> mWirelessCarPlay;
    BluetoothHIDComponent mBluetoothHid{};
    std::vector<RouteGuidanceDisplayComponent> mRouteGuidance;
};

} // namespace

Transaction marshalIdentification(const Description& description)
{
    Transaction transaction;
    MarshalIo mio{};
    iAp2MarshalInit(&mio, transaction.bytes.data(), transaction.bytes.size(),
                    IAP2_TXN_PAYLOAD_OFFSET);
    Records(description).marshal(mio);
    if ((mio.flags & IAP2_MARSHAL_OVERFLOW) != 0)
    {
        throw SystemError("the identification does not fit " + std::to_string(kPayloadCapacity) +
                          " bytes");
    }
    transaction.payloadSize = iAp2MarshalGetUsedSize(&mio) - mio.headerSize;
    const auto length = static_cast<std::uint32_t>(transaction.payloadSize);
    std::memcpy(transaction.bytes.data() + IAP2_TXN_LENGTH_OFFSET, &length, sizeof length);
    return transaction;
}

} // namespace identification
