// The floor of marshalling: what a person would write for these records and this buffer alone.
#include "identification.h"

#include <cstring>

namespace
{

template <typename Value> std::uint8_t* store(std::uint8_t* out, Value value)
{
    std::memcpy(out, &value, sizeof value);
    return out + IAP2_MARSHAL_SLOT_SIZE;
}

std::uint8_t* storeBytes(std::uint8_t* out, const void* bytes, std::uint32_t length)
{
    out = store(out, length);
    std::memcpy(out, bytes, length);
    return out + ((std::size_t{length} + 3) & ~std::size_t{3});
}

std::uint8_t* storeText(std::uint8_t* out, const CmdSaveEssentialUtf8Param& text)
{
    return storeBytes(out, text.value, text.size);
}

std::uint8_t* storeText(std::uint8_t* out, const CmdSaveUtf8Param& text)
{
    out = store(out, text.present);
    return text.present == 1 ? storeBytes(out, text.value, text.size) : out;
}

std::uint8_t* storeNumbers(std::uint8_t* out, const Uint32ListParam& list)
{
    out = store(out, list.count);
    for (std::uint32_t i = 0; i < list.count; ++i)
    {
        out = store(out, list.values[i]);
    }
    return out;
}

/** A number with a presence flag. */
template <typename Param> std::uint8_t* storeParam(std::uint8_t* out, const Param& param)
{
    out = store(out, param.present);
    return param.present == 1 ? store(out, param.value) : out;
}

template <std::size_t count>
std::uint8_t* storeEach(std::uint8_t* out, const std::uint8_t (&values)[count])
{
    for (const std::uint8_t value : values)
    {
        out = store(out, value);
    }
    return out;
}

/** What every component begins with. */
template <typename Record> std::uint8_t* storeHead(std::uint8_t* out, const Record& record)
{
    out = store(out, record.identifier);
    return storeText(out, record.name);
}

/** A presence flag and, where it is 1, what every component begins with. */
template <typename Record> bool storeOptionalHead(std::uint8_t*& out, const Record& record)
{
    out = store(out, record.present);
    if (record.present != 1)
    {
        return false;
    }
    out = storeHead(out, record);
    return true;
}

} // namespace

std::uint8_t* storeByHand(const Identification& from, std::uint8_t* out)
{
    if (storeOptionalHead(out, from.uartTransport))
    {
        out = store(out, from.uartTransport.value);
    }
    if (storeOptionalHead(out, from.usbDeviceTransport))
    {
        out = store(out, from.usbDeviceTransport.value);
        out = storeNumbers(out, from.usbDeviceTransport.sampleRates);
    }
    if (storeOptionalHead(out, from.usbHostTransport))
    {
        out = storeEach(out, from.usbHostTransport.values);
    }
    out = store(out, from.bluetoothTransports.count);
    for (std::uint32_t i = 0; i < from.bluetoothTransports.count; ++i)
    {
        const auto& transport =
            static_cast<const BluetoothTransportComponent*>(from.bluetoothTransports.components)[i];
        out = storeHead(out, transport);
        out = store(out, transport.value);
        out = storeBytes(out, transport.macAddress, sizeof transport.macAddress);
    }
    out = store(out, from.hids.count);
    for (std::uint32_t i = 0; i < from.hids.count; ++i)
    {
        const auto& hid = static_cast<const iAP2HIDComponent*>(from.hids.components)[i];
        out = storeHead(out, hid);
        out = store(out, hid.value);
    }
    if (storeOptionalHead(out, from.vehicleInformation))
    {
        out = storeNumbers(out, from.vehicleInformation.engineTypes);
        out = storeText(out, from.vehicleInformation.essentialText);
        out = storeText(out, from.vehicleInformation.texts[0]);
        out = storeText(out, from.vehicleInformation.texts[1]);
        out = storeNumbers(out, from.vehicleInformation.chargingConnectors);
        for (const CmdSaveUint32Param& value : from.vehicleInformation.values)
        {
            out = storeParam(out, value);
        }
    }
    if (storeOptionalHead(out, from.vehicleStatus))
    {
        out = storeEach(out, from.vehicleStatus.values);
    }
    if (storeOptionalHead(out, from.locationInformation))
    {
        out = storeEach(out, from.locationInformation.values);
    }
    out = store(out, from.usbHostHids.count);
    for (std::uint32_t i = 0; i < from.usbHostHids.count; ++i)
    {
        const auto& hid = static_cast<const USBHostHIDComponent*>(from.usbHostHids.components)[i];
        out = storeHead(out, hid);
        out = store(out, hid.value);
        out = store(out, hid.values[0]);
        out = store(out, hid.values[1]);
    }
    out = store(out, from.wirelessTransports.count);
    for (std::uint32_t i = 0; i < from.wirelessTransports.count; ++i)
    {
        out = storeHead(out, static_cast<const WirelessCarPlayTransportComponent*>(
                                 from.wirelessTransports.components)[i]);
    }
    if (storeOptionalHead(out, from.bluetoothHid))
    {
        out = store(out, from.bluetoothHid.value);
    }
    out = store(out, from.routeGuidanceDisplays.count);
    for (std::uint32_t i = 0; i < from.routeGuidanceDisplays.count; ++i)
    {
        const auto& display = static_cast<const RouteGuidanceDisplayComponent*>(
            from.routeGuidanceDisplays.components)[i];
        out = storeHead(out, display);
        for (const CmdSaveUint16Param& value : display.values)
        {
            out = storeParam(out, value);
        }
    }
    return out;
}
