// One full identification, marshalled and read back, beside the same slots stored and read by hand.
#include <array>
#include <benchmark/benchmark.h>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <korvane/iAp2LogUtil.h>
#include <korvane/iAp2Marshal.h>

#include "allocations.h"
#include "benchmarks.h"
#include "identification.h"

namespace
{

constexpr int kSilent = 91;
constexpr std::size_t kHeaderSize = IAP2_TXN_PAYLOAD_OFFSET;
using Buffer = std::array<std::uint8_t, 4096>;

/** Marshals as a transaction record; returns its length. */
std::uint32_t marshal(Identification& from, Buffer& buffer)
{
    MarshalIo mio;
    iAp2MarshalInit(&mio, buffer.data(), buffer.size(), kHeaderSize);
    MarshalingByComponentType(&from.uartTransport, &mio, IAP2_COMPONENT_UART_TRANSPORT);
    MarshalingByComponentType(&from.usbDeviceTransport, &mio, IAP2_COMPONENT_USB_DEVICE_TRANSPORT);
    MarshalingByComponentType(&from.usbHostTransport, &mio, IAP2_COMPONENT_USB_HOST_TRANSPORT);
    MarshalingByComponentListType(&from.bluetoothTransports, &mio,
                                  IAP2_COMPONENT_BLUETOOTH_TRANSPORT);
    MarshalingByComponentListType(&from.hids, &mio, IAP2_COMPONENT_IAP2_HID);
    MarshalingByComponentType(&from.vehicleInformation, &mio, IAP2_COMPONENT_VEHICLE_INFORMATION);
    MarshalingByComponentType(&from.vehicleStatus, &mio, IAP2_COMPONENT_VEHICLE_STATUS);
    MarshalingByComponentType(&from.locationInformation, &mio, IAP2_COMPONENT_LOCATION_INFORMATION);
    MarshalingByComponentListType(&from.usbHostHids, &mio, IAP2_COMPONENT_USB_HOST_HID);
    MarshalingByComponentListType(&from.wirelessTransports, &mio,
                                  IAP2_COMPONENT_WIRELESS_CARPLAY_TRANSPORT);
    MarshalingByComponentType(&from.bluetoothHid, &mio, IAP2_COMPONENT_BLUETOOTH_HID);
    MarshalingByComponentListType(&from.routeGuidanceDisplays, &mio,
                                  IAP2_COMPONENT_ROUTE_GUIDANCE_DISPLAY);
    return mio.flags == IAP2_MARSHAL_WRITING ? iAp2MarshalGetUsedSize(&mio) : 0;
}

std::uint32_t marshalByHand(const Identification& from, Buffer& buffer)
{
    return static_cast<std::uint32_t>(storeByHand(from, buffer.data() + kHeaderSize) -
                                      buffer.data());
}

/** Fills in the header that the readers look at. */
void setPayloadLength(Buffer& buffer, std::uint32_t used)
{
    const auto length = static_cast<std::uint32_t>(used - kHeaderSize);
    std::memcpy(buffer.data() + IAP2_TXN_LENGTH_OFFSET, &length, sizeof length);
}

void silence(const benchmark::State&)
{
    setLogLevel(kSilent);
}

template <std::uint32_t (*marshalFunction)(Identification&, Buffer&)>
void marshalled(benchmark::State& state)
{
    Identification identification;
    fillIdentification(identification);
    Buffer buffer{};
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(&identification);
        std::uint32_t used = marshalFunction(identification, buffer);
        benchmark::DoNotOptimize(used);
        benchmark::ClobberMemory();
    }
}

std::uint32_t marshalByHandFloor(Identification& from, Buffer& buffer)
{
    return marshalByHand(from, buffer);
}

template <void (*readFunction)(const std::uint8_t*, Identification&)>
void readBack(benchmark::State& state)
{
    Identification sent;
    fillIdentification(sent);
    Buffer buffer{};
    setPayloadLength(buffer, marshalByHand(sent, buffer));
    Identification received;
    clearIdentification(received);
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(buffer.data());
        readFunction(buffer.data(), received);
        benchmark::DoNotOptimize(&received);
        benchmark::ClobberMemory();
    }
}

/** What `readFunction` makes of `buffer`, marshalled again, is `buffer`. */
template <void (*readFunction)(const std::uint8_t*, Identification&)>
bool isReadBack(const Buffer& buffer, std::uint32_t used)
{
    Identification received;
    clearIdentification(received);
    readFunction(buffer.data(), received);
    Buffer again{};
    if (marshalByHand(received, again) != used)
    {
        return false;
    }
    setPayloadLength(again, used);
    return again == buffer;
}

} // namespace

void registerMarshalBenchmarks()
{
    benchmark::RegisterBenchmark("Identification.marshalled/work", marshalled<marshal>)
        ->Setup(silence);
    benchmark::RegisterBenchmark("Identification.marshalled/floor", marshalled<marshalByHandFloor>);
    benchmark::RegisterBenchmark("Identification.readBack/work", readBack<readByGet>)
        ->Setup(silence);
    benchmark::RegisterBenchmark("Identification.readBack/floor", readBack<readByHand>);
}

const char* findMarshalDifference()
{
    Identification identification;
    fillIdentification(identification);
    // What lies in the buffer shows through the padding, which neither of them writes.
    Buffer buffer;
    Buffer buffer2;
    buffer.fill(0xA5);
    buffer2.fill(0xA5);
    setLogLevel(kSilent);
    const std::uint32_t used = marshal(identification, buffer);
    if (used != marshalByHand(identification, buffer2) || buffer != buffer2)
    {
        return "the identification marshalled by hand has other bytes";
    }
    buffer.fill(0);
    setPayloadLength(buffer, marshalByHand(identification, buffer));
    if (!isReadBack<readByGet>(buffer, used))
    {
        return "the Get operations read something else than was marshalled";
    }
    if (!isReadBack<readByHand>(buffer, used))
    {
        return "reading by hand gives something else than was marshalled";
    }
    return nullptr;
}
