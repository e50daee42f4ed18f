#include "identification.h"

#include <cstring>

namespace
{

// The records hold pointers to characters that may be written; nobody writes these.
CmdSaveEssentialUtf8Param essentialText(const char* text)
{
    return {static_cast<std::uint32_t>(std::strlen(text) + 1), const_cast<char*>(text)};
}

CmdSaveUtf8Param presentText(const char* text)
{
    return {1, static_cast<std::uint32_t>(std::strlen(text) + 1), const_cast<char*>(text)};
}

template <std::size_t count>
void fillNumbers(Uint32ListParam& list, const std::uint32_t (&numbers)[count])
{
    static_assert(count <= kNumberCapacity, "the storage holds them");
    std::memcpy(list.values, numbers, sizeof numbers);
    list.count = count;
}

/** Appends an element to a list and gives it identifier and name. */
template <typename Record>
Record& append(ComponentListParam& list, std::uint16_t identifier, const char* name)
{
    Record& record = static_cast<Record*>(list.components)[list.count++];
    record.identifier = identifier;
    record.name = essentialText(name);
    return record;
}

void addBluetoothTransport(Identification& to, std::uint16_t identifier, const char* name,
                           const std::uint8_t (&address)[6])
{
    auto& transport = append<BluetoothTransportComponent>(to.bluetoothTransports, identifier, name);
    transport.value = 1;
    std::memcpy(transport.macAddress, address, sizeof address);
}

void addUsbHostHid(Identification& to, std::uint16_t identifier, const char* name,
                   std::uint16_t vendor, std::uint16_t product)
{
    auto& hid = append<USBHostHIDComponent>(to.usbHostHids, identifier, name);
    hid.value = 2;
    hid.values[0] = vendor;
    hid.values[1] = product;
}

void addDisplay(Identification& to, std::uint16_t identifier, const char* name,
                const CmdSaveUint16Param (&values)[7])
{
    auto& display =
        append<RouteGuidanceDisplayComponent>(to.routeGuidanceDisplays, identifier, name);
    std::memcpy(display.values, values, sizeof values);
}

} // namespace

void clearIdentification(Identification& identification)
{
    identification = Identification{};
    identification.usbDeviceTransport.sampleRates.values = identification.sampleRates;
    identification.vehicleInformation.engineTypes.values = identification.engineTypes;
    identification.vehicleInformation.chargingConnectors.values = identification.chargingConnectors;
    identification.bluetoothTransports.components = identification.bluetoothTransportStorage;
    identification.hids.components = identification.hidStorage;
    identification.usbHostHids.components = identification.usbHostHidStorage;
    identification.wirelessTransports.components = identification.wirelessTransportStorage;
    identification.routeGuidanceDisplays.components = identification.routeGuidanceDisplayStorage;
}

void fillIdentification(Identification& to)
{
    clearIdentification(to);

    to.uartTransport.present = 1;
    to.uartTransport.identifier = 1;
    to.uartTransport.name = essentialText("UART 1");
    to.uartTransport.value = 1;

    to.usbDeviceTransport.present = 1;
    to.usbDeviceTransport.identifier = 2;
    to.usbDeviceTransport.name = essentialText("USB device, centre console");
    to.usbDeviceTransport.value = 1;
    fillNumbers(to.usbDeviceTransport.sampleRates,
                {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000});

    to.usbHostTransport.present = 1;
    to.usbHostTransport.identifier = 3;
    to.usbHostTransport.name = essentialText("USB host, rear seats");
    const std::uint8_t hostValues[] = {1, 4, 1};
    std::memcpy(to.usbHostTransport.values, hostValues, sizeof hostValues);

    addBluetoothTransport(to, 10, "Bluetooth, hands-free", {0x00, 0x1A, 0x7D, 0xDA, 0x71, 0x13});
    addBluetoothTransport(to, 11, "Bluetooth, media", {0x00, 0x1A, 0x7D, 0xDA, 0x71, 0x14});

    append<iAP2HIDComponent>(to.hids, 20, "Steering wheel").value = 1;
    append<iAP2HIDComponent>(to.hids, 21, "Rotary knob").value = 3;
    append<iAP2HIDComponent>(to.hids, 22, "Media keys").value = 5;

    VehicleInformationComponent& vehicle = to.vehicleInformation;
    vehicle.present = 1;
    vehicle.identifier = 30;
    vehicle.name = essentialText("Vehicle");
    fillNumbers(vehicle.engineTypes, {0, 3});
    vehicle.essentialText = essentialText("Kombi 2.0 Hybrid");
    vehicle.texts[0] = presentText("M\xC3\xBCnchen");
    vehicle.texts[1] = {}; // absent
    fillNumbers(vehicle.chargingConnectors, {2, 5, 6});
    const CmdSaveUint32Param vehicleValues[7] = {{1, 52000}, {1, 61}, {0, 0},   {1, 410},
                                                 {0, 0},     {1, 22}, {1, 7400}};
    std::memcpy(vehicle.values, vehicleValues, sizeof vehicleValues);

    to.vehicleStatus.present = 1;
    to.vehicleStatus.identifier = 31;
    to.vehicleStatus.name = essentialText("Vehicle status");
    for (std::uint8_t i = 0; i < 13; ++i)
    {
        to.vehicleStatus.values[i] = i % 2;
    }

    to.locationInformation.present = 1;
    to.locationInformation.identifier = 32;
    to.locationInformation.name = essentialText("Location");
    to.locationInformation.values[0] = 1;
    to.locationInformation.values[2] = 1;

    addUsbHostHid(to, 40, "Touch screen, front", 0x1D6B, 0x0104);
    addUsbHostHid(to, 41, "Touch screen, rear", 0x1D6B, 0x0105);

    append<WirelessCarPlayTransportComponent>(to.wirelessTransports, 50, "Wireless, 5 GHz");
    append<WirelessCarPlayTransportComponent>(to.wirelessTransports, 51, "");

    to.bluetoothHid.present = 1;
    to.bluetoothHid.identifier = 60;
    to.bluetoothHid.name = essentialText("Remote control");
    to.bluetoothHid.value = 9;

    addDisplay(to, 70, "Instrument cluster",
               {{1, 64}, {1, 40}, {1, 24}, {1, 3}, {1, 64}, {1, 2}, {1, 8}});
    addDisplay(to, 71, "Head-up display",
               {{1, 32}, {1, 24}, {0, 0}, {1, 2}, {0, 0}, {0, 0}, {1, 4}});
}
