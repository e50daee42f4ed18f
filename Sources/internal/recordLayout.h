/**
 * The layout of every public record, pinned: clients fill these records with code compiled long ago.
 * Offsets and sizes are those of targets with 64-bit pointers.
 */
#ifndef KORVANE_INTERNAL_RECORDLAYOUT_H
#define KORVANE_INTERNAL_RECORDLAYOUT_H

#include <cstddef>

#include <korvane/iAp2Marshal.h>

static_assert(sizeof(void*) == 8, "the library is built for 64-bit targets");

#define KORVANE_FIELD(Record, field, offset)                                                       \
    static_assert(offsetof(Record, field) == (offset), #Record "::" #field " has moved")
#define KORVANE_SIZE(Record, size)                                                                 \
    static_assert(sizeof(Record) == (size), "the size of " #Record " has changed")

KORVANE_FIELD(MarshalIo, data, 0);
KORVANE_FIELD(MarshalIo, headerSize, 8);
KORVANE_FIELD(MarshalIo, dataAvail, 16);
KORVANE_FIELD(MarshalIo, data0, 24);
KORVANE_FIELD(MarshalIo, flags, 32);
KORVANE_SIZE(MarshalIo, 40);

KORVANE_FIELD(CmdSaveBoolParam, present, 0);
KORVANE_FIELD(CmdSaveBoolParam, value, 1);
KORVANE_SIZE(CmdSaveBoolParam, 2);

KORVANE_FIELD(CmdSaveUint8Param, present, 0);
KORVANE_FIELD(CmdSaveUint8Param, value, 1);
KORVANE_SIZE(CmdSaveUint8Param, 2);

KORVANE_FIELD(CmdSaveUint16Param, present, 0);
KORVANE_FIELD(CmdSaveUint16Param, value, 2);
KORVANE_SIZE(CmdSaveUint16Param, 4);

KORVANE_FIELD(CmdSaveUint32Param, present, 0);
KORVANE_FIELD(CmdSaveUint32Param, value, 4);
KORVANE_SIZE(CmdSaveUint32Param, 8);

KORVANE_FIELD(CmdSaveParam, present, 0);
KORVANE_FIELD(CmdSaveParam, size, 4);
KORVANE_FIELD(CmdSaveParam, value, 8);
KORVANE_SIZE(CmdSaveParam, 16);

KORVANE_FIELD(CmdSaveUtf8Param, present, 0);
KORVANE_FIELD(CmdSaveUtf8Param, size, 4);
KORVANE_FIELD(CmdSaveUtf8Param, value, 8);
KORVANE_SIZE(CmdSaveUtf8Param, 16);

KORVANE_FIELD(CmdSaveEssentialUtf8Param, size, 0);
KORVANE_FIELD(CmdSaveEssentialUtf8Param, value, 8);
KORVANE_SIZE(CmdSaveEssentialUtf8Param, 16);

KORVANE_FIELD(Uint32ListParam, count, 0);
KORVANE_FIELD(Uint32ListParam, values, 8);
KORVANE_SIZE(Uint32ListParam, 16);

KORVANE_FIELD(ComponentListParam, count, 0);
KORVANE_FIELD(ComponentListParam, components, 8);
KORVANE_SIZE(ComponentListParam, 16);

KORVANE_FIELD(UARTTransportComponent, present, 0);
KORVANE_FIELD(UARTTransportComponent, identifier, 2);
KORVANE_FIELD(UARTTransportComponent, name, 8);
KORVANE_FIELD(UARTTransportComponent, value, 24);
KORVANE_SIZE(UARTTransportComponent, 32);

KORVANE_FIELD(USBDeviceTransportComponent, present, 0);
KORVANE_FIELD(USBDeviceTransportComponent, identifier, 2);
KORVANE_FIELD(USBDeviceTransportComponent, name, 8);
KORVANE_FIELD(USBDeviceTransportComponent, value, 24);
KORVANE_FIELD(USBDeviceTransportComponent, sampleRates, 32);
KORVANE_SIZE(USBDeviceTransportComponent, 48);

KORVANE_FIELD(USBHostTransportComponent, present, 0);
KORVANE_FIELD(USBHostTransportComponent, identifier, 2);
KORVANE_FIELD(USBHostTransportComponent, name, 8);
KORVANE_FIELD(USBHostTransportComponent, values, 24);
KORVANE_SIZE(USBHostTransportComponent, 32);

KORVANE_FIELD(BluetoothTransportComponent, identifier, 0);
KORVANE_FIELD(BluetoothTransportComponent, name, 8);
KORVANE_FIELD(BluetoothTransportComponent, value, 24);
KORVANE_FIELD(BluetoothTransportComponent, macAddress, 25);
KORVANE_SIZE(BluetoothTransportComponent, 32);

KORVANE_FIELD(iAP2HIDComponent, identifier, 0);
KORVANE_FIELD(iAP2HIDComponent, name, 8);
KORVANE_FIELD(iAP2HIDComponent, value, 24);
KORVANE_SIZE(iAP2HIDComponent, 32);

KORVANE_FIELD(VehicleInformationComponent, present, 0);
KORVANE_FIELD(VehicleInformationComponent, identifier, 2);
KORVANE_FIELD(VehicleInformationComponent, name, 8);
KORVANE_FIELD(VehicleInformationComponent, engineTypes, 24);
KORVANE_FIELD(VehicleInformationComponent, essentialText, 40);
KORVANE_FIELD(VehicleInformationComponent, texts, 56);
KORVANE_FIELD(VehicleInformationComponent, chargingConnectors, 88);
KORVANE_FIELD(VehicleInformationComponent, values, 104);
KORVANE_SIZE(VehicleInformationComponent, 160);

KORVANE_FIELD(VehicleStatusComponent, present, 0);
KORVANE_FIELD(VehicleStatusComponent, identifier, 2);
KORVANE_FIELD(VehicleStatusComponent, name, 8);
KORVANE_FIELD(VehicleStatusComponent, values, 24);
KORVANE_SIZE(VehicleStatusComponent, 40);

KORVANE_FIELD(LocationInformationComponent, present, 0);
KORVANE_FIELD(LocationInformationComponent, identifier, 2);
KORVANE_FIELD(LocationInformationComponent, name, 8);
KORVANE_FIELD(LocationInformationComponent, values, 24);
KORVANE_SIZE(LocationInformationComponent, 32);

KORVANE_FIELD(USBHostHIDComponent, identifier, 0);
KORVANE_FIELD(USBHostHIDComponent, name, 8);
KORVANE_FIELD(USBHostHIDComponent, value, 24);
KORVANE_FIELD(USBHostHIDComponent, values, 28);
KORVANE_SIZE(USBHostHIDComponent, 32);

KORVANE_FIELD(WirelessCarPlayTransportComponent, identifier, 0);
KORVANE_FIELD(WirelessCarPlayTransportComponent, name, 8);
KORVANE_SIZE(WirelessCarPlayTransportComponent, 24);

KORVANE_FIELD(BluetoothHIDComponent, present, 0);
KORVANE_FIELD(BluetoothHIDComponent, identifier, 2);
KORVANE_FIELD(BluetoothHIDComponent, name, 8);
KORVANE_FIELD(BluetoothHIDComponent, value, 24);
KORVANE_SIZE(BluetoothHIDComponent, 32);

KORVANE_FIELD(RouteGuidanceDisplayComponent, identifier, 0);
KORVANE_FIELD(RouteGuidanceDisplayComponent, name, 8);
KORVANE_FIELD(RouteGuidanceDisplayComponent, values, 24);
KORVANE_SIZE(RouteGuidanceDisplayComponent, 56);

#undef KORVANE_FIELD
#undef KORVANE_SIZE

#endif
