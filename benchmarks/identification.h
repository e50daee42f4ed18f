/**
 * One whole identification of an accessory: all twelve components, with the storage that their
 * records point into.
 */
#ifndef KORVANE_BENCHMARKS_IDENTIFICATION_H
#define KORVANE_BENCHMARKS_IDENTIFICATION_H

#include <cstddef>
#include <cstdint>

#include <korvane/iAp2Marshal.h>

constexpr std::uint32_t kListCapacity = 4;
constexpr std::uint32_t kNumberCapacity = 12;

struct Identification
{
    UARTTransportComponent uartTransport;
    USBDeviceTransportComponent usbDeviceTransport;
    USBHostTransportComponent usbHostTransport;
    ComponentListParam bluetoothTransports;
    ComponentListParam hids;
    VehicleInformationComponent vehicleInformation;
    VehicleStatusComponent vehicleStatus;
    LocationInformationComponent locationInformation;
    ComponentListParam usbHostHids;
    ComponentListParam wirelessTransports;
    BluetoothHIDComponent bluetoothHid;
    ComponentListParam routeGuidanceDisplays;

    // What the records above point to.
    std::uint32_t sampleRates[kNumberCapacity];
    std::uint32_t engineTypes[kNumberCapacity];
    std::uint32_t chargingConnectors[kNumberCapacity];
    BluetoothTransportComponent bluetoothTransportStorage[kListCapacity];
    iAP2HIDComponent hidStorage[kListCapacity];
    USBHostHIDComponent usbHostHidStorage[kListCapacity];
    WirelessCarPlayTransportComponent wirelessTransportStorage[kListCapacity];
    RouteGuidanceDisplayComponent routeGuidanceDisplayStorage[kListCapacity];
};

/** Empties `identification` and points its lists to their storage. */
void clearIdentification(Identification& identification);

/** Describes a head unit: several entries in every list, absent values, an empty text. */
void fillIdentification(Identification& to);

/**
 * Writes the body at `out` by hand: straight code over the same records, without any check of the
 * room.
 *
 * @return the first byte behind the body.
 */
std::uint8_t* storeByHand(const Identification& from, std::uint8_t* out);

/** Reads a transaction record into a cleared `identification` with the Get operations. */
void readByGet(const std::uint8_t* transaction, Identification& identification);

/** The same by hand, without any check of what is left. */
void readByHand(const std::uint8_t* transaction, Identification& identification);

#endif
