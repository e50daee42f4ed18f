/**
 * An accessory as its description file gives it: plain values, independent of the records that are
 * marshalled and of the bytes that are sent.
 *
 * Every component lists its fields once, in the order in which they are sent, under the names that
 * they have in <korvane/iAp2Marshal.h>. Reading a file, reading a transaction back, comparing and
 * showing all walk along these lists.
 */
#ifndef IDENTIFICATION_DESCRIPTION_H
#define IDENTIFICATION_DESCRIPTION_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <korvane/iAp2Marshal.h>

namespace identification
{

/** A text that is always sent; where there is none, as a byte string of length 0. */
struct EssentialText
{
    std::optional<std::string> text;
};

/** Twelve upper-case hexadecimal digits. */
struct MacAddress
{
    std::string digits;
};

struct UartTransport
{
    std::uint16_t identifier = 0;
    EssentialText name;
    std::uint8_t value = 0;

    template <typename Self, typename Visit> static void forEachField(Self& self, Visit&& visit)
    {
        visit("identifier", self.identifier);
        visit("name", self.name);
        visit("value", self.value);
    }
};

struct UsbDeviceTransport
{
    std::uint16_t identifier = 0;
    EssentialText name;
    std::uint8_t value = 0;
    std::vector<std::uint32_t> sampleRates;

    template <typename Self, typename Visit> static void forEachField(Self& self, Visit&& visit)
    {
        visit("identifier", self.identifier);
        visit("name", self.name);
        visit("value", self.value);
        visit("sampleRates", self.sampleRates);
    }
};

struct BluetoothTransport
{
    std::uint16_t identifier = 0;
    EssentialText name;
    std::uint8_t value = 0;
    MacAddress macAddress;

    template <typename Self, typename Visit> static void forEachField(Self& self, Visit&& visit)
    {
        visit("identifier", self.identifier);
        visit("name", self.name);
        visit("value", self.value);
        visit("macAddress", self.macAddress);
    }
};

/** The HID functions of the accessory and of Bluetooth. */
struct Hid
{
    std::uint16_t identifier = 0;
    EssentialText name;
    std::uint32_t value = 0;

    template <typename Self, typename Visit> static void forEachField(Self& self, Visit&& visit)
    {
        visit("identifier", self.identifier);
        visit("name", self.name);
        visit("value", self.value);
    }
};

struct VehicleInformation
{
    std::uint16_t identifier = 0;
    EssentialText name;
    std::vector<std::uint32_t> engineTypes;
    EssentialText essentialText;
    std::array<std::optional<std::string>, 2> texts;
    std::vector<std::uint32_t> chargingConnectors;
    std::array<std::optional<std::uint32_t>, 7> values;

    template <typename Self, typename Visit> static void forEachField(Self& self, Visit&& visit)
    {
        visit("identifier", self.identifier);
        visit("name", self.name);
        visit("engineTypes", self.engineTypes);
        visit("essentialText", self.essentialText);
        visit("texts", self.texts);
        visit("chargingConnectors", self.chargingConnectors);
        visit("values", self.values);
    }
};

/** What consists of `count` small numbers: USB host transport, vehicle status, location. */
template <std::size_t count> struct Flags
{
    std::uint16_t identifier = 0;
    EssentialText name;
    std::array<std::uint8_t, count> values{};

    template <typename Self, typename Visit> static void forEachField(Self& self, Visit&& visit)
    {
        visit("identifier", self.identifier);
        visit("name", self.name);
        visit("values", self.values);
    }
};

struct UsbHostHid
{
    std::uint16_t identifier = 0;
    EssentialText name;
    std::uint32_t value = 0;
    std::array<std::uint16_t, 2> values{};

    template <typename Self, typename Visit> static void forEachField(Self& self, Visit&& visit)
    {
        visit("identifier", self.identifier);
        visit("name", self.name);
        visit("value", self.value);
        visit("values", self.values);
    }
};

struct WirelessCarPlayTransport
{
    std::uint16_t identifier = 0;
    EssentialText name;

    template <typename Self, typename Visit> static void forEachField(Self& self, Visit&& visit)
    {
        visit("identifier", self.identifier);
        visit("name", self.name);
    }
};

struct RouteGuidanceDisplay
{
    std::uint16_t identifier = 0;
    EssentialText name;
    std::array<std::optional<std::uint16_t>, 7> values;

    template <typename Self, typename Visit> static void forEachField(Self& self, Visit&& visit)
    {
        visit("identifier", self.identifier);
        visit("name", self.name);
        visit("values", self.values);
    }
};

struct Description
{
    std::optional<UartTransport> uart;
    std::optional<UsbDeviceTransport> usbDevice;
    std::optional<Flags<3>> usbHost;
    std::vector<BluetoothTransport> bluetooth;
    std::vector<Hid> hid;
    std::optional<VehicleInformation> vehicleInformation;
    std::optional<Flags<13>> vehicleStatus;
    std::optional<Flags<3>> locationInformation;
    std::vector<UsbHostHid> usbHostHid;
    std::vector<WirelessCarPlayTransport> wirelessCarPlay;
    std::optional<Hid> bluetoothHid;
    std::vector<RouteGuidanceDisplay> routeGuidanceDisplay;
};

/** What is known of a component apart from its values. */
struct ComponentKind
{
    std::uint32_t number;
    const char* key;
    const char* title;
};

/** Visits the components in the order of their numbers, in which they are sent. */
template <typename Self, typename Visit> void forEachComponent(Self& self, Visit&& visit)
{
    visit(ComponentKind{IAP2_COMPONENT_UART_TRANSPORT, "uart", "UART transport"}, self.uart);
    visit(ComponentKind{IAP2_COMPONENT_USB_DEVICE_TRANSPORT, "usbDevice", "USB device transport"},
          self.usbDevice);
    visit(ComponentKind{IAP2_COMPONENT_USB_HOST_TRANSPORT, "usbHost", "USB host transport"},
          self.usbHost);
    visit(ComponentKind{IAP2_COMPONENT_BLUETOOTH_TRANSPORT, "bluetooth", "Bluetooth transport"},
          self.bluetooth);
    visit(ComponentKind{IAP2_COMPONENT_IAP2_HID, "hid", "iAP2 HID"}, self.hid);
    visit(ComponentKind{IAP2_COMPONENT_VEHICLE_INFORMATION, "vehicleInformation",
                        "vehicle information"},
          self.vehicleInformation);
    visit(ComponentKind{IAP2_COMPONENT_VEHICLE_STATUS, "vehicleStatus", "vehicle status"},
          self.vehicleStatus);
    visit(ComponentKind{IAP2_COMPONENT_LOCATION_INFORMATION, "locationInformation",
                        "location information"},
          self.locationInformation);
    visit(ComponentKind{IAP2_COMPONENT_USB_HOST_HID, "usbHostHid", "USB host HID"},
          self.usbHostHid);
    visit(ComponentKind{IAP2_COMPONENT_WIRELESS_CARPLAY_TRANSPORT, "wirelessCarPlay",
                        "wireless CarPlay transport"},
          self.wirelessCarPlay);
    visit(ComponentKind{IAP2_COMPONENT_BLUETOOTH_HID, "bluetoothHid", "Bluetooth HID"},
          self.bluetoothHid);
    visit(ComponentKind{IAP2_COMPONENT_ROUTE_GUIDANCE_DISPLAY, "routeGuidanceDisplay",
                        "route guidance display"},
          self.routeGuidanceDisplay);
}

template <typename Type> struct IsOptional : std::false_type
{
};
template <typename Value> struct IsOptional<std::optional<Value>> : std::true_type
{
};
template <typename Type> struct IsVector : std::false_type
{
};
template <typename Value> struct IsVector<std::vector<Value>> : std::true_type
{
};
template <typename Type> struct IsArray : std::false_type
{
};
template <typename Value, std::size_t count>
struct IsArray<std::array<Value, count>> : std::true_type
{
};

struct IgnoreField
{
    template <typename Field> void operator()(const char*, Field&) const
    {
    }
};

/** False for the single values: the numbers, std::string, EssentialText and MacAddress. */
template <typename Type, typename = void> struct IsComponent : std::false_type
{
};
template <typename Type>
struct IsComponent<Type,
                   std::void_t<decltype(Type::forEachField(std::declval<Type&>(), IgnoreField()))>>
    : std::true_type
{
};

inline std::string elementPlace(const std::string& place, std::size_t index)
{
    return place + '[' + std::to_string(index) + ']';
}

/**
 * Walks through a description in the order of the bytes and calls, with the place of each:
 *
 *     handler.presence(place, optional)  for whatever can be absent; then its value, if it has one
 *     handler.count(place, list)         for whatever can have any length; then its elements
 *     handler.value(place, value)        for every single value
 */
template <typename Handler> class Walk
{
public:
    explicit Walk(Handler& handler) : mHandler(handler)
    {
    }

    template <typename Self> void through(Self& description)
    {
        forEachComponent(description, [this](const ComponentKind& kind, auto& component)
                         { this->visit(kind.key, component); });
    }

private:
    template <typename Type> void visit(const std::string& place, Type& value)
    {
        using Plain = std::remove_const_t<Type>;
        if constexpr (IsOptional<Plain>::value)
        {
            mHandler.presence(place, value);
            if (value.has_value())
            {
                visit(place, *value);
            }
        }
        else if constexpr (IsVector<Plain>::value)
        {
            mHandler.count(place, value);
            elements(place, value);
        }
        else if constexpr (IsArray<Plain>::value)
        {
            elements(place, value);
        }
        else if constexpr (IsComponent<Plain>::value)
        {
            Plain::forEachField(value, [this, &place](const char* key, auto& field)
                                { this->visit(place + '.' + key, field); });
        }
        else
        {
            mHandler.value(place, value);
        }
    }

    template <typename Sequence> void elements(const std::string& place, Sequence& sequence)
    {
        for (std::size_t i = 0; i < sequence.size(); ++i)
        {
            visit(elementPlace(place, i), sequence[i]);
        }
    }

    Handler& mHandler;
};

} // namespace identification

#endif
