// Reading an identification back. What is read and where it goes is written once; how a value is
// taken from the buffer is the only difference between the Get operations and the floor.
#include "identification.h"

#include <cstring>

namespace
{

/** The Get operations. */
class Cursor
{
public:
    explicit Cursor(const std::uint8_t* transaction)
    {
        iAp2MarshalInitFromTxn(&mMio, transaction);
    }
    std::uint8_t uint8()
    {
        return iAp2MarshalGetUint8(&mMio);
    }
    std::uint16_t uint16()
    {
        return iAp2MarshalGetUint16(&mMio);
    }
    std::uint32_t uint32()
    {
        return iAp2MarshalGetUint32(&mMio);
    }
    std::uint8_t* bytes(std::uint32_t& length)
    {
        return iAp2MarshalGetBytes(&mMio, &length);
    }

private:
    MarshalIo mMio;
};

/** The floor: a pointer into the buffer. */
class Hand
{
public:
    explicit Hand(const std::uint8_t* transaction)
        : mData(const_cast<std::uint8_t*>(transaction) + IAP2_TXN_PAYLOAD_OFFSET)
    {
    }
    std::uint8_t uint8()
    {
        return take<std::uint8_t>();
    }
    std::uint16_t uint16()
    {
        return take<std::uint16_t>();
    }
    std::uint32_t uint32()
    {
        return take<std::uint32_t>();
    }
    std::uint8_t* bytes(std::uint32_t& length)
    {
        length = take<std::uint32_t>();
        std::uint8_t* const result = mData;
        mData += (std::size_t{length} + 3) & ~std::size_t{3};
        return result;
    }

private:
    template <typename Value> Value take()
    {
        Value value;
        std::memcpy(&value, mData, sizeof value);
        mData += IAP2_MARSHAL_SLOT_SIZE;
        return value;
    }

    std::uint8_t* mData;
};

template <typename Source> void readText(Source& in, CmdSaveEssentialUtf8Param& text)
{
    text.value = reinterpret_cast<char*>(in.bytes(text.size));
}

template <typename Source> void readText(Source& in, CmdSaveUtf8Param& text)
{
    text.present = in.uint8();
    if (text.present == 1)
    {
        text.value = reinterpret_cast<char*>(in.bytes(text.size));
    }
}

template <typename Source> void readNumbers(Source& in, Uint32ListParam& list)
{
    list.count = in.uint32();
    for (std::uint32_t i = 0; i < list.count; ++i)
    {
        list.values[i] = in.uint32();
    }
}

template <typename Source, std::size_t count>
void readEach(Source& in, std::uint8_t (&values)[count])
{
    for (std::uint8_t& value : values)
    {
        value = in.uint8();
    }
}

template <typename Source, typename Record> void readHead(Source& in, Record& record)
{
    record.identifier = in.uint16();
    readText(in, record.name);
}

template <typename Source, typename Record> bool readOptionalHead(Source& in, Record& record)
{
    record.present = in.uint8();
    if (record.present != 1)
    {
        return false;
    }
    readHead(in, record);
    return true;
}

template <typename Source> void readFields(Source& in, BluetoothTransportComponent& record)
{
    record.value = in.uint8();
    std::uint32_t length;
    const std::uint8_t* const address = in.bytes(length);
    std::memcpy(record.macAddress, address, sizeof record.macAddress);
}

template <typename Source> void readFields(Source& in, iAP2HIDComponent& record)
{
    record.value = in.uint32();
}

template <typename Source> void readFields(Source& in, USBHostHIDComponent& record)
{
    record.value = in.uint32();
    record.values[0] = in.uint16();
    record.values[1] = in.uint16();
}

template <typename Source> void readFields(Source&, WirelessCarPlayTransportComponent&)
{
}

template <typename Source> void readFields(Source& in, RouteGuidanceDisplayComponent& record)
{
    for (CmdSaveUint16Param& value : record.values)
    {
        value.present = in.uint8();
        if (value.present == 1)
        {
            value.value = in.uint16();
        }
    }
}

template <typename Record, typename Source> void readList(Source& in, ComponentListParam& list)
{
    list.count = in.uint32();
    auto* const records = static_cast<Record*>(list.components);
    for (std::uint32_t i = 0; i < list.count; ++i)
    {
        readHead(in, records[i]);
        readFields(in, records[i]);
    }
}

template <typename Source> void readVehicle(Source& in, VehicleInformationComponent& vehicle)
{
    if (!readOptionalHead(in, vehicle))
    {
        return;
    }
    readNumbers(in, vehicle.engineTypes);
    readText(in, vehicle.essentialText);
    readText(in, vehicle.texts[0]);
    readText(in, vehicle.texts[1]);
    readNumbers(in, vehicle.chargingConnectors);
    for (CmdSaveUint32Param& value : vehicle.values)
    {
        value.present = in.uint8();
        if (value.present == 1)
        {
            value.value = in.uint32();
        }
    }
}

template <typename Source> void readAll(Source in, Identification& to)
{
    if (readOptionalHead(in, to.uartTransport))
    {
        to.uartTransport.value = in.uint8();
    }
    if (readOptionalHead(in, to.usbDeviceTransport))
    {
        to.usbDeviceTransport.value = in.uint8();
        readNumbers(in, to.usbDeviceTransport.sampleRates);
    }
    if (readOptionalHead(in, to.usbHostTransport))
    {
        readEach(in, to.usbHostTransport.values);
    }
    readList<BluetoothTransportComponent>(in, to.bluetoothTransports);
    readList<iAP2HIDComponent>(in, to.hids);
    readVehicle(in, to.vehicleInformation);
    if (readOptionalHead(in, to.vehicleStatus))
    {
        readEach(in, to.vehicleStatus.values);
    }
    if (readOptionalHead(in, to.locationInformation))
    {
        readEach(in, to.locationInformation.values);
    }
    readList<USBHostHIDComponent>(in, to.usbHostHids);
    readList<WirelessCarPlayTransportComponent>(in, to.wirelessTransports);
    if (readOptionalHead(in, to.bluetoothHid))
    {
        to.bluetoothHid.value = in.uint32();
    }
    readList<RouteGuidanceDisplayComponent>(in, to.routeGuidanceDisplays);
}

} // namespace

void readByGet(const std::uint8_t* transaction, Identification& identification)
{
    readAll(Cursor(transaction), identification);
}

void readByHand(const std::uint8_t* transaction, Identification& identification)
{
    readAll(Hand(transaction), identification);
}
