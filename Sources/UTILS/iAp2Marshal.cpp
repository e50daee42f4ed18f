// The functions themselves are wanted here, not their inline forms.
#define IAP2_MARSHAL_NO_INLINE
#include <korvane/iAp2Marshal.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

#include "internal/inlining.h"
#include "internal/quietWriter.h"
#include "internal/recordLayout.h"
#include "internal/report.h"
#include "internal/rounding.h"
#include "internal/slotWriter.h"

using korvane::internal::canRoundUpToSlot;
using korvane::internal::QuietWriter;
using korvane::internal::roundUpToSlot;
using korvane::internal::SlotMeter;
using korvane::internal::SlotWriter;

/* ---- Cursor ---------------------------------------------------------------------------------- */

[[gnu::cold, gnu::noinline]] void SlotWriter::refuse(MarshalIo& mio, std::size_t size)
{
    if (canRoundUpToSlot(size))
    {
        mio.flags |= IAP2_MARSHAL_OVERFLOW;
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : iAp2MarshalAlloc() overflow size[%zu] dataAvail[%zu]",
                    roundUpToSlot(size), mio.dataAvail);
    }
    KORVANE_REPORT_FAILURE("iAp2MarshalAlloc", "overflow");
}

namespace
{

[[gnu::cold, gnu::noinline]] void reportNullBytes()
{
    KORVANE_REPORT_FAILURE("iAp2MarshalPutBytes", "iAp2MarshalPutBytes() bytes is NULL");
}

[[gnu::cold, gnu::noinline]] void refuseTake(MarshalIo& mio, std::uint32_t size)
{
    if (canRoundUpToSlot(size))
    {
        mio.flags |= IAP2_MARSHAL_OVERFLOW;
        mio.dataAvail = 0;
        // Prints the number just cleared; whoever reads the traces knows it as 0.
        KORVANE_LOG(IAP2_LOG_ERROR,
                    "ERROR : iAp2MarshalGet() Buffer overflow. dataAvail. mio[%zu] size[%u]",
                    mio.dataAvail, roundUpToSlot(size));
    }
    KORVANE_REPORT_FAILURE("iAp2MarshalGet", "overflow");
}

/** The one primitive under every Get: a slot of `size` bytes, or null once that is reported. */
inline std::uint8_t* marshalTake(MarshalIo& mio, std::uint32_t size)
{
    const std::uint32_t rounded = roundUpToSlot(size);
    if (__builtin_expect(!canRoundUpToSlot(size) || mio.dataAvail < rounded, 0))
    {
        refuseTake(mio, size);
        return nullptr;
    }
    std::uint8_t* const slot = mio.data;
    mio.data += rounded;
    mio.dataAvail -= rounded;
    return slot;
}

template <typename Value> inline Value get(MarshalIo& mio)
{
    Value value = 0;
    if (const std::uint8_t* const slot = marshalTake(mio, sizeof value))
    {
        std::memcpy(&value, slot, sizeof value);
    }
    return value;
}

} // namespace

extern "C" {
void iAp2MarshalInit(MarshalIo* mio, uint8_t* buffer, size_t maxdata, size_t headerSize)
{
    if (headerSize > maxdata)
    {
        mio->headerSize = 0;
        mio->dataAvail = 0;
        mio->flags = IAP2_MARSHAL_OVERFLOW;
        KORVANE_LOG(IAP2_LOG_ERROR,
                    "iAp2MarshalInit() buffer over flow. headerSize[%zu] maxdata[%zu]", headerSize,
                    maxdata);
        return;
    }
    mio->data = buffer + headerSize;
    mio->data0 = mio->data;
    mio->headerSize = headerSize;
    mio->dataAvail = maxdata - headerSize;
    mio->flags = IAP2_MARSHAL_WRITING;
}

void iAp2MarshalInitFromTxn(MarshalIo* mio, const void* txn)
{
    auto* const record = static_cast<std::uint8_t*>(const_cast<void*>(txn));
    std::uint32_t payloadLength;
    std::memcpy(&payloadLength, record + IAP2_TXN_LENGTH_OFFSET, sizeof payloadLength);

    mio->data = record + IAP2_TXN_PAYLOAD_OFFSET;
    mio->data0 = mio->data;
    mio->dataAvail = payloadLength;
    mio->flags = IAP2_MARSHAL_READING;
}

uint8_t* iAp2MarshalAlloc(MarshalIo* mio, size_t size)
{
    return SlotWriter(mio).alloc(size);
}

#define KORVANE_PUT_AND_GET(Width)                                                                 \
    void iAp2MarshalPutUint##Width(MarshalIo* mio, uint##Width##_t value)                          \
    {                                                                                              \
        SlotWriter(mio).put(value);                                                                \
    }                                                                                              \
    uint##Width##_t iAp2MarshalGetUint##Width(MarshalIo* mio)                                      \
    {                                                                                              \
        return get<uint##Width##_t>(*mio);                                                         \
    }                                                                                              \
    void iAp2MarshalPutInt##Width(MarshalIo* mio, int##Width##_t value)                            \
    {                                                                                              \
        iAp2MarshalPutUint##Width(mio, static_cast<uint##Width##_t>(value));                       \
    }                                                                                              \
    int##Width##_t iAp2MarshalGetInt##Width(MarshalIo* mio)                                        \
    {                                                                                              \
        return static_cast<int##Width##_t>(iAp2MarshalGetUint##Width(mio));                        \
    }

// Signed values have the bytes of the unsigned ones.
KORVANE_PUT_AND_GET(8)
KORVANE_PUT_AND_GET(16)
KORVANE_PUT_AND_GET(32)
KORVANE_PUT_AND_GET(64)

#undef KORVANE_PUT_AND_GET

void iAp2MarshalPutBytes(MarshalIo* mio, const void* bytes, uint32_t length)
{
    if (bytes == nullptr)
    {
        reportNullBytes();
        return;
    }
    SlotWriter(mio).putBytes(bytes, length);
}

uint8_t* iAp2MarshalGetBytes(MarshalIo* mio, uint32_t* length)
{
    if (mio == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : iAp2MarshalGetByte() mio is NULL");
        return nullptr;
    }
    if (length == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : iAp2MarshalGetByte() size is NULL");
        return nullptr;
    }
    *length = get<std::uint32_t>(*mio);
    return marshalTake(*mio, *length);
}

void* iAp2MarshalGetVoidPointer(MarshalIo* mio, uint32_t* length)
{
    return iAp2MarshalGetBytes(mio, length);
}

uint32_t iAp2MarshalGetUsedSize(MarshalIo* mio)
{
    if (mio == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : iAp2MarshalGetUsedSize() mio is NULL");
        return 0;
    }
    if (mio->data < mio->data0)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : (mio->data - mio->data0) < 0");
        return 0;
    }
    constexpr std::size_t limit = std::numeric_limits<std::uint32_t>::max();
    const auto body = static_cast<std::size_t>(mio->data - mio->data0);
    if (body > limit || mio->headerSize > limit - body) // the sum itself could wrap
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : usedSize overflow");
        return 0;
    }
    return static_cast<std::uint32_t>(body + mio->headerSize);
}

} // extern "C"

/* ---- Parameter records ----------------------------------------------------------------------- */

// A trace from between two values: whoever receives it finds the cursor behind the former.
#define KORVANE_LOG_VALUE(out, level, ...)                                                         \
    do                                                                                             \
    {                                                                                              \
        if constexpr (std::decay_t<decltype(out)>::kTraces)                                        \
        {                                                                                          \
            if (korvane::internal::isLevelPrinted(level))                                          \
            {                                                                                      \
                (out).commit();                                                                    \
                logPrint(level, "IAP2", __FILE__, __LINE__, __VA_ARGS__);                          \
            }                                                                                      \
        }                                                                                          \
    } while (false)

namespace
{

/** Only exactly 1 means present; any other number travels, but nothing follows it. */
constexpr std::uint8_t kPresent = 1;

/** How many characters of a text of `size` bytes "%.*s" may read: the text need not be ended. */
int shownLength(std::uint32_t size)
{
    return static_cast<int>(
        std::min<std::uint32_t>(size, std::uint32_t{std::numeric_limits<int>::max()}));
}

/** iAp2MarshalPutBytes() in the middle of a component. */
template <typename Out>
KORVANE_ALWAYS_INLINE void putByteString(Out& out, const void* bytes, std::uint32_t length)
{
    if (bytes == nullptr)
    {
        if constexpr (Out::kTraces) // elsewhere SlotMeter has refused it
        {
            out.commit();
            reportNullBytes();
        }
        return;
    }
    out.putBytes(bytes, length);
}

template <typename Out, typename Record>
KORVANE_ALWAYS_INLINE void putScalarParam(Out& out, const Record& param, const char* typeName)
{
    out.put(param.present);
    if (param.present == kPresent)
    {
        KORVANE_LOG_VALUE(out, IAP2_LOG_DEBUG, "%sParam [%u]", typeName, unsigned{param.value});
        out.put(param.value);
    }
}

template <typename Record> void putScalarParam(SlotMeter& meter, const Record& param, const char*)
{
    meter.put(param.present);
    meter.put(param.value);
}

template <typename Out> KORVANE_ALWAYS_INLINE void putParam(Out& out, const CmdSaveBoolParam& param)
{
    putScalarParam(out, param, "bool");
}

template <typename Out>
KORVANE_ALWAYS_INLINE void putParam(Out& out, const CmdSaveUint8Param& param)
{
    putScalarParam(out, param, "uint8");
}

template <typename Out>
KORVANE_ALWAYS_INLINE void putParam(Out& out, const CmdSaveUint16Param& param)
{
    putScalarParam(out, param, "uint16");
}

template <typename Out>
KORVANE_ALWAYS_INLINE void putParam(Out& out, const CmdSaveUint32Param& param)
{
    putScalarParam(out, param, "uint32");
}

template <typename Out> KORVANE_ALWAYS_INLINE void putParam(Out& out, const CmdSaveParam& param)
{
    out.put(param.present);
    if (param.present == kPresent)
    {
        putByteString(out, param.value, param.size);
    }
}

template <typename Out> KORVANE_ALWAYS_INLINE void putParam(Out& out, const CmdSaveUtf8Param& param)
{
    out.put(param.present);
    if (param.present == kPresent)
    {
        if (param.value == nullptr)
        {
            KORVANE_LOG_VALUE(out, IAP2_LOG_DEBUG, "Utf8Param [(null)]");
        }
        else
        {
            KORVANE_LOG_VALUE(out, IAP2_LOG_DEBUG, "Utf8Param [%.*s]", shownLength(param.size),
                              param.value);
        }
        putByteString(out, param.value, param.size);
    }
}

template <typename Out>
KORVANE_ALWAYS_INLINE void putParam(Out& out, CmdSaveEssentialUtf8Param& param)
{
    if (param.size != 0 && param.value != nullptr)
    {
        KORVANE_LOG_VALUE(out, IAP2_LOG_DEBUG, "EssentialUTF8Param value [%.*s]",
                          shownLength(param.size), param.value);
        out.putBytes(param.value, param.size);
    }
    else
    {
        param.size = 0;
        out.put(std::uint32_t{0});
    }
}

void putParam(SlotMeter& meter, const CmdSaveUtf8Param& param)
{
    meter.put(param.present);
    meter.putBytes(param.value, param.size);
    meter.refuseIf(param.present == kPresent && param.value == nullptr); // has to be reported
}

void putParam(SlotMeter& meter, CmdSaveEssentialUtf8Param& param)
{
    meter.putBytes(param.value, param.size);
}

/**
 * SlotWriter as functions: whoever checks every slot and traces every value is in no hurry, and need
 * not have a copy of the code for every value.
 */
class CarefulWriter : public SlotWriter
{
public:
    using SlotWriter::SlotWriter;

    template <typename Value> [[gnu::noinline]] void put(Value value)
    {
        SlotWriter::put(value);
    }
    template <typename Value, std::size_t count>
    [[gnu::noinline]] void putEach(const Value (&values)[count])
    {
        SlotWriter::putEach(values);
    }
    [[gnu::noinline]] void putBytes(const void* bytes, std::uint32_t length)
    {
        SlotWriter::putBytes(bytes, length);
    }
};

#define KORVANE_CAREFUL_PARAM(Record)                                                              \
    [[gnu::noinline]] void putParam(CarefulWriter& out, Record& param)                             \
    {                                                                                              \
        putParam<CarefulWriter>(out, param);                                                       \
    }

KORVANE_CAREFUL_PARAM(const CmdSaveUint16Param)
KORVANE_CAREFUL_PARAM(const CmdSaveUint32Param)
KORVANE_CAREFUL_PARAM(const CmdSaveUtf8Param)
KORVANE_CAREFUL_PARAM(CmdSaveEssentialUtf8Param)

#undef KORVANE_CAREFUL_PARAM

template <typename Record> void putParamAt(void* record, MarshalIo* mio)
{
    CarefulWriter out(mio);
    putParam(out, *static_cast<Record*>(record));
}

} // namespace

extern "C" void SimpleMashalingByType(void* pData, MarshalIo* mio, uint32_t type)
{
    if (mio == nullptr)
    {
        KORVANE_REPORT_FAILURE("SimpleMashalingByType", "piAp2Marshal is NULL");
        return;
    }
    if (pData == nullptr)
    {
        KORVANE_REPORT_FAILURE("SimpleMashalingByType", "pData is NULL");
        return;
    }
    switch (type)
    {
    case IAP2_PARAM_BOOL:
        return putParamAt<CmdSaveBoolParam>(pData, mio);
    case IAP2_PARAM_UINT32:
        return putParamAt<CmdSaveUint32Param>(pData, mio);
    case IAP2_PARAM_UINT16:
        return putParamAt<CmdSaveUint16Param>(pData, mio);
    case IAP2_PARAM_UINT8:
        return putParamAt<CmdSaveUint8Param>(pData, mio);
    case IAP2_PARAM_BYTES:
        return putParamAt<CmdSaveParam>(pData, mio);
    case IAP2_PARAM_UTF8:
        return putParamAt<CmdSaveUtf8Param>(pData, mio);
    case IAP2_PARAM_ESSENTIAL_UTF8:
        return putParamAt<CmdSaveEssentialUtf8Param>(pData, mio);
    default:
        KORVANE_LOG(IAP2_LOG_WARNING, "not defined type !!");
    }
}

/* ---- Identification components --------------------------------------------------------------- */

namespace
{

/** True when a list of numbers is sent as such; otherwise a count of 0 takes its place. */
bool hasValues(const Uint32ListParam& list)
{
    return list.count != 0 && list.values != nullptr;
}

/** The device transport's rates: traced before they are put, and the record is left alone. */
template <typename Out>
KORVANE_ALWAYS_INLINE void putSampleRates(Out& out, const Uint32ListParam& rates)
{
    if (!hasValues(rates))
    {
        out.put(std::uint32_t{0});
        return;
    }
    out.put(rates.count);
    for (std::uint32_t i = 0; i < rates.count; ++i)
    {
        KORVANE_LOG_VALUE(out, IAP2_LOG_DEBUG, "USBDeviceModeAudioSampleRate[%u], value = %d", i,
                          static_cast<int>(rates.values[i]));
        out.put(rates.values[i]);
    }
}

/** The vehicle's lists: traced after they are put, and an empty one is marked in the record. */
template <typename Out>
KORVANE_ALWAYS_INLINE void putVehicleList(Out& out, Uint32ListParam& list, const char* valueName)
{
    if (!hasValues(list))
    {
        list.count = 0;
        out.put(std::uint32_t{0});
        return;
    }
    out.put(list.count);
    for (std::uint32_t i = 0; i < list.count; ++i)
    {
        out.put(list.values[i]);
        KORVANE_LOG_VALUE(out, IAP2_LOG_INFO, "%s value [%d]", valueName,
                          static_cast<int>(list.values[i]));
    }
}

void putSampleRates(SlotMeter& meter, const Uint32ListParam& rates)
{
    meter.putNumbers(rates.values, rates.count);
}

void putVehicleList(SlotMeter& meter, Uint32ListParam& list, const char*)
{
    meter.putNumbers(list.values, list.count);
}

[[gnu::noinline]] void putVehicleList(CarefulWriter& out, Uint32ListParam& list, const char* name)
{
    putVehicleList<CarefulWriter>(out, list, name);
}

/* What stands behind the identifier and the name of each component. */

template <typename Out>
KORVANE_ALWAYS_INLINE void putFields(Out& out, const UARTTransportComponent& record)
{
    out.put(record.value);
}

template <typename Out>
KORVANE_ALWAYS_INLINE void putFields(Out& out, const USBDeviceTransportComponent& record)
{
    out.put(record.value);
    putSampleRates(out, record.sampleRates);
}

template <typename Out>
KORVANE_ALWAYS_INLINE void putFields(Out& out, const USBHostTransportComponent& record)
{
    out.putEach(record.values);
}

template <typename Out>
KORVANE_ALWAYS_INLINE void putFields(Out& out, const BluetoothTransportComponent& record)
{
    out.put(record.value);
    out.putBytes(record.macAddress, sizeof record.macAddress);
}

template <typename Out>
KORVANE_ALWAYS_INLINE void putFields(Out& out, const iAP2HIDComponent& record)
{
    out.put(record.value);
}

template <typename Out>
KORVANE_ALWAYS_INLINE void putFields(Out& out, VehicleInformationComponent& record)
{
    putVehicleList(out, record.engineTypes, "EngineType");
    putParam(out, record.essentialText);
    for (const CmdSaveUtf8Param& text : record.texts)
    {
        putParam(out, text);
    }
    putVehicleList(out, record.chargingConnectors, "ChargingConnector");
    for (const CmdSaveUint32Param& value : record.values)
    {
        putParam(out, value);
    }
}

template <typename Out>
KORVANE_ALWAYS_INLINE void putFields(Out& out, const VehicleStatusComponent& record)
{
    out.putEach(record.values);
}

template <typename Out>
KORVANE_ALWAYS_INLINE void putFields(Out& out, const LocationInformationComponent& record)
{
    out.putEach(record.values);
}

template <typename Out>
KORVANE_ALWAYS_INLINE void putFields(Out& out, const USBHostHIDComponent& record)
{
    out.put(record.value);
    out.putEach(record.values);
}

template <typename Out>
KORVANE_ALWAYS_INLINE void putFields(Out&, const WirelessCarPlayTransportComponent&)
{
}

template <typename Out>
KORVANE_ALWAYS_INLINE void putFields(Out& out, const BluetoothHIDComponent& record)
{
    out.put(record.value);
}

template <typename Out>
KORVANE_ALWAYS_INLINE void putFields(Out& out, const RouteGuidanceDisplayComponent& record)
{
    for (const CmdSaveUint16Param& value : record.values)
    {
        putParam(out, value);
    }
}

} // namespace

/** The components in the order of their numbers, and whether they are sent once or in lists. */
#define KORVANE_FOR_EACH_COMPONENT(X)                                                              \
    X(UARTTransportComponent, Singleton)                                                           \
    X(USBDeviceTransportComponent, Singleton)                                                      \
    X(USBHostTransportComponent, Singleton)                                                        \
    X(BluetoothTransportComponent, List)                                                           \
    X(iAP2HIDComponent, List)                                                                      \
    X(VehicleInformationComponent, Singleton)                                                      \
    X(VehicleStatusComponent, Singleton)                                                           \
    X(LocationInformationComponent, Singleton)                                                     \
    X(USBHostHIDComponent, List)                                                                   \
    X(WirelessCarPlayTransportComponent, List)                                                     \
    X(BluetoothHIDComponent, Singleton)                                                            \
    X(RouteGuidanceDisplayComponent, List)

namespace
{

/** What every component is made of, without the presence flag of those that have one. */
template <typename Out, typename Component>
KORVANE_ALWAYS_INLINE void putBody(Out& out, Component& record)
{
    out.put(record.identifier);
    putParam(out, record.name);
    putFields(out, record);
}

/** The same with a check of every slot. */
template <typename Component> void putBodyOf(CarefulWriter& out, void* record)
{
    putBody(out, *static_cast<Component*>(record));
}

[[gnu::noinline]] void marshalBody(void (*put)(CarefulWriter& out, void* record), void* record,
                                   MarshalIo* mio)
{
    CarefulWriter out(mio);
    put(out, record);
}

enum class ComponentKind : std::uint8_t
{
    Singleton, ///< begins with a presence flag
    List       ///< begins with the identifier, and is sent in lists too
};

template <typename Component> struct Traits;

#define KORVANE_DEFINE_TRAITS(Component, sending)                                                  \
    template <> struct Traits<Component>                                                           \
    {                                                                                              \
        static constexpr ComponentKind kind = ComponentKind::sending;                              \
        static constexpr const char* name = #Component;                                            \
    };

KORVANE_FOR_EACH_COMPONENT(KORVANE_DEFINE_TRAITS)

#undef KORVANE_DEFINE_TRAITS

/** A component as MarshalingByComponentType() writes it when nothing is traced. */
template <typename Out, typename Component>
KORVANE_ALWAYS_INLINE void putComponent(Out& out, Component& record)
{
    if constexpr (Traits<Component>::kind == ComponentKind::Singleton)
    {
        out.put(record.present);
        if (record.present != kPresent)
        {
            return;
        }
    }
    putBody(out, record);
}

/** marshalCarefully() of components of any type: one copy for all. */
[[gnu::cold, gnu::noinline]] void marshalAnyCarefully(void* records, std::uint32_t count,
                                                      MarshalIo* mio, std::size_t size,
                                                      ComponentKind kind, const char* name,
                                                      void (*put)(CarefulWriter& out, void* record))
{
    CarefulWriter out(mio);
    auto* record = static_cast<std::uint8_t*>(records);
    for (std::uint32_t i = 0; i < count; ++i, record += size)
    {
        if (kind == ComponentKind::Singleton)
        {
            const std::uint8_t present = *record; // the first field of all that have it
            out.put(present);
            if (present != kPresent)
            {
                continue;
            }
        }
        KORVANE_LOG_VALUE(out, IAP2_LOG_DEBUG, "Marshaling %s", name);
        put(out, record);
    }
}

/** Writes components with a check of every slot, and traces what is traced. */
template <typename Component>
[[gnu::cold, gnu::noinline]] void marshalCarefully(Component* records, std::uint32_t count,
                                                   MarshalIo* mio)
{
    marshalAnyCarefully(records, count, mio, sizeof(Component), Traits<Component>::kind,
                        Traits<Component>::name, putBodyOf<Component>);
}

/** Writes components without a check of every slot, as long as they let themselves be written so. */
template <typename Component>
KORVANE_ALWAYS_INLINE void marshal(Component* records, std::uint32_t count, MarshalIo* mio)
{
    std::uint8_t* data = mio->data;
    std::size_t room = mio->dataAvail;
    const bool isTraced = korvane::internal::isLevelPrinted(IAP2_LOG_INFO);
    for (std::uint32_t i = 0; i < count; ++i)
    {
        SlotMeter meter(data, room);
        meter.refuseIf(isTraced);
        meter.refuseIf(meter.reachesIntoRoom(&records[i], sizeof records[i]));
        putComponent(meter, records[i]);
        if (__builtin_expect(meter.isRefused(), 0))
        {
            mio->data = data;
            mio->dataAvail = room;
            return marshalCarefully(records + i, count - i, mio);
        }
        QuietWriter out(data);
        putComponent(out, records[i]);
        room -= static_cast<std::size_t>(out.end() - data);
        data = out.end();
    }
    mio->data = data;
    mio->dataAvail = room;
}

/** Writes whole components. What it inlines is large, and there is one copy of it for each component. */
template <typename Component>
[[gnu::noinline, gnu::flatten]] void marshalWhole(void* records, std::uint32_t count,
                                                  MarshalIo* mio)
{
    if constexpr (Traits<Component>::kind == ComponentKind::Singleton)
    {
        count = 1; // does without the loop
    }
    marshal(static_cast<Component*>(records), count, mio);
}

} // namespace

// A body alone is written by few, and never in a hurry: one copy that checks every slot will do.
#define KORVANE_DEFINE_COMPONENT(Component, sending)                                               \
    extern "C" void MarshalingFor##Component(Component* record, MarshalIo* mio)                    \
    {                                                                                              \
        marshalBody(putBodyOf<Component>, record, mio);                                            \
    }

KORVANE_FOR_EACH_COMPONENT(KORVANE_DEFINE_COMPONENT)

#undef KORVANE_DEFINE_COMPONENT

namespace
{

enum ComponentNumber : std::uint32_t
{
#define KORVANE_COMPONENT_NUMBER(Component, sending) Component##Number,
    KORVANE_FOR_EACH_COMPONENT(KORVANE_COMPONENT_NUMBER) componentCount
#undef KORVANE_COMPONENT_NUMBER
};

bool isSentInLists(std::uint32_t number)
{
#define KORVANE_LIST_BIT(Component, sending)                                                       \
    | std::uint32_t{ComponentKind::sending == ComponentKind::List} << Component##Number
    constexpr std::uint32_t lists = 0 KORVANE_FOR_EACH_COMPONENT(KORVANE_LIST_BIT);
#undef KORVANE_LIST_BIT
    return number < componentCount && (lists >> number & 1) != 0;
}

/** Writes whole components. A switch and no table of functions, which the loader would have to fill. */
void marshalByNumber(std::uint32_t number, void* records, std::uint32_t count, MarshalIo* mio)
{
    switch (number)
    {
#define KORVANE_COMPONENT_CASE(Component, sending)                                                 \
    case Component##Number:                                                                        \
        return marshalWhole<Component>(records, count, mio);
        KORVANE_FOR_EACH_COMPONENT(KORVANE_COMPONENT_CASE)
#undef KORVANE_COMPONENT_CASE
    default:
        KORVANE_LOG(IAP2_LOG_WARNING, "not defined type !!");
    }
}

} // namespace

extern "C" {
void MarshalingByComponentType(void* inData, MarshalIo* mio, uint32_t number)
{
    if (mio == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "%s Error : %s", "MarshalingByComponentType",
                    "iAp2Marshal is NULL");
        return;
    }
    if (inData == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "%s Error : %s", "MarshalingByComponentType", "inData is NULL");
        return;
    }
    marshalByNumber(number, inData, 1, mio);
}

void MarshalingByComponentListType(void* inData, MarshalIo* mio, int32_t number)
{
    if (mio == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "%s Error : %s", "MarshalingByComponentListType",
                    "iAp2Marshal is NULL");
        return;
    }
    if (inData == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "%s Error : %s", "MarshalingByComponentListType",
                    "inData is NULL");
        return;
    }
    const auto index = static_cast<std::uint32_t>(number); // a negative number is far too large
    if (!isSentInLists(index))
    {
        KORVANE_LOG(IAP2_LOG_WARNING, "not defined type !!");
        return;
    }
    const ComponentListParam list = *static_cast<const ComponentListParam*>(inData);
    SlotWriter(mio).put(list.count);
    if (list.components != nullptr)
    {
        marshalByNumber(index, list.components, list.count, mio);
    }
}

} // extern "C"
