/**
 * The marshal cursor, the parameter and component records, and their marshalling.
 *
 * Messages between the parts of the stack are flat bodies of 4-byte slots behind a header that the
 * sender fills in. A writer starts a cursor with iAp2MarshalInit(), appends values with the Put
 * operations and asks iAp2MarshalGetUsedSize() how many bytes to send. A reader starts one with
 * iAp2MarshalInitFromTxn() and takes the values, in the same order and of the same widths, with the
 * Get operations. Nothing on the wire tells a reader what comes next.
 *
 *     value of 1, 2 or 4 bytes   one slot; the value in its first bytes, in the host's byte order
 *     value of 8 bytes           two slots, so that it is aligned to 4 only
 *     byte string                one slot for the length (32 bits), then the bytes, rounded up to 4
 *
 * Padding is never written: it keeps what the buffer held.
 *
 * Ownership: the caller owns cursor, buffer and records; nothing here allocates or frees.
 * Threads: a cursor and its buffer belong to one thread at a time; no state is shared, nothing
 * blocks. Errors: every failure is reported at level 90, an undefined type or component at 60; what
 * returns a value then returns 0 or null. No exception leaves a function.
 */
#ifndef KORVANE_IAP2MARSHAL_H
#define KORVANE_IAP2MARSHAL_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* ---- The cursor ------------------------------------------------------------------------------ */

/** Values of MarshalIo::flags; the overflow bit stays until the next initialisation. */
enum
{
    IAP2_MARSHAL_WRITING = 0,
    IAP2_MARSHAL_READING = 1,
    IAP2_MARSHAL_OVERFLOW = 2 /**< OR-ed in by every operation that did not fit */
};

/** The size of a slot, to which every value and byte string is rounded up, in bytes. */
enum
{
    IAP2_MARSHAL_SLOT_SIZE = 4
};

/** Where a received transaction record holds what iAp2MarshalInitFromTxn() reads, in bytes. */
enum
{
    IAP2_TXN_LENGTH_OFFSET = 64, /**< length of the payload, 32 bits in the host's byte order */
    IAP2_TXN_PAYLOAD_OFFSET = 72 /**< first byte of the payload */
};

/**
 * A cursor over a caller's buffer. While nothing has overflowed, `data0 <= data` and
 * `data + dataAvail` is the end of the usable buffer.
 */
typedef struct MarshalIo
{
    uint8_t* data;     /**< where the next value is written or read */
    size_t headerSize; /**< bytes in front of the body, for the header that the caller fills in */
    size_t dataAvail;  /**< bytes still free (writing) or unread (reading) behind `data` */
    uint8_t* data0;    /**< first byte of the body */
    uint32_t flags;    /**< see IAP2_MARSHAL_WRITING and its neighbours */
} MarshalIo;

/**
 * Starts writing behind a header of `headerSize` bytes at the front of `buffer`.
 *
 * @param maxdata  size of the whole buffer in bytes. A header as large as that is accepted and
 *                 leaves no room for a body.
 *
 * A header that is larger leaves `data` and `data0` as they were, sets `headerSize` and `dataAvail`
 * to 0 and `flags` to 2, and is reported as
 * "iAp2MarshalInit() buffer over flow. headerSize[%zu] maxdata[%zu]"; every later Put then fails.
 */
void iAp2MarshalInit(MarshalIo* mio, uint8_t* buffer, size_t maxdata, size_t headerSize);

/**
 * Starts reading the payload of a received transaction record; nothing is checked.
 *
 * The payload length at IAP2_TXN_LENGTH_OFFSET bounds every later Get. `headerSize` is left as it
 * was, so iAp2MarshalGetUsedSize() means nothing on such a cursor.
 */
void iAp2MarshalInitFromTxn(MarshalIo* mio, const void* txn);

/**
 * Reserves `size` bytes, rounded up to a multiple of 4, and returns their address (4-aligned
 * relative to the body); they are not cleared. 0 bytes always fit.
 *
 * When they do not fit: null, `flags` gains bit 2, `dataAvail` stays (a smaller Put may still
 * succeed), reported as "ERROR : iAp2MarshalAlloc() overflow size[%zu] dataAvail[%zu]" and
 * "iAp2MarshalAlloc error : overflow". A size that cannot be rounded up (the last three values of
 * 64 bits) gives null and the second line only, and leaves the cursor untouched.
 */
uint8_t* iAp2MarshalAlloc(MarshalIo* mio, size_t size);

/**
 * Puts one value into its slot (two slots for 64 bits). A value that does not fit is not written
 * and is reported as iAp2MarshalAlloc() does. The cursor pointer is not checked.
 */
void iAp2MarshalPutUint8(MarshalIo* mio, uint8_t value);
/** @copydoc iAp2MarshalPutUint8 */
void iAp2MarshalPutUint16(MarshalIo* mio, uint16_t value);
/** @copydoc iAp2MarshalPutUint8 */
void iAp2MarshalPutUint32(MarshalIo* mio, uint32_t value);
/** @copydoc iAp2MarshalPutUint8 */
void iAp2MarshalPutUint64(MarshalIo* mio, uint64_t value);
/** @copydoc iAp2MarshalPutUint8 */
void iAp2MarshalPutInt8(MarshalIo* mio, int8_t value);
/** @copydoc iAp2MarshalPutUint8 */
void iAp2MarshalPutInt16(MarshalIo* mio, int16_t value);
/** @copydoc iAp2MarshalPutUint8 */
void iAp2MarshalPutInt32(MarshalIo* mio, int32_t value);
/** @copydoc iAp2MarshalPutUint8 */
void iAp2MarshalPutInt64(MarshalIo* mio, int64_t value);

/**
 * Puts a byte string: its length, then `length` bytes copied from `bytes`. A length of 0 takes the
 * length slot only. Bytes that overlap their own slot are read after the slot has been cleared.
 *
 * Null bytes write nothing at all and are reported as
 * "iAp2MarshalPutBytes error : iAp2MarshalPutBytes() bytes is NULL". Hazard: where the length fits
 * and the bytes do not (reported as iAp2MarshalAlloc() does), the length stays written.
 */
void iAp2MarshalPutBytes(MarshalIo* mio, const void* bytes, uint32_t length);

/**
 * Takes one value from its slot (two slots for 64 bits).
 *
 * @return the value, or 0 when fewer bytes are left than its slots hold. Only `flags` tells such a
 *         failure from a value of 0: it gains bit 2, and `dataAvail` becomes 0, so that every later
 *         value is 0 too. Reported as
 *         "ERROR : iAp2MarshalGet() Buffer overflow. dataAvail. mio[%zu] size[%u]", where the first
 *         number is always 0, and "iAp2MarshalGet error : overflow".
 */
uint8_t iAp2MarshalGetUint8(MarshalIo* mio);
/** @copydoc iAp2MarshalGetUint8 */
uint16_t iAp2MarshalGetUint16(MarshalIo* mio);
/** @copydoc iAp2MarshalGetUint8 */
uint32_t iAp2MarshalGetUint32(MarshalIo* mio);
/** @copydoc iAp2MarshalGetUint8 */
uint64_t iAp2MarshalGetUint64(MarshalIo* mio);
/** @copydoc iAp2MarshalGetUint8 */
int8_t iAp2MarshalGetInt8(MarshalIo* mio);
/** @copydoc iAp2MarshalGetUint8 */
int16_t iAp2MarshalGetInt16(MarshalIo* mio);
/** @copydoc iAp2MarshalGetUint8 */
int32_t iAp2MarshalGetInt32(MarshalIo* mio);
/** @copydoc iAp2MarshalGetUint8 */
int64_t iAp2MarshalGetInt64(MarshalIo* mio);

/**
 * Takes a byte string and returns its address inside the buffer; nothing is copied and nothing is
 * terminated, and the address is good for as long as the buffer is.
 *
 * @param length  receives the length that the slot claims (0 where even that is missing).
 * @return        null when the bytes are not all there (reported as by the other Get operations;
 *                `*length` still holds the claim), when `mio` is null ("ERROR :
 *                iAp2MarshalGetByte() mio is NULL") or `length` is null ("ERROR :
 *                iAp2MarshalGetByte() size is NULL").
 *
 * Hazard: after an overflow 0 bytes still fit, so a further call returns the cursor's position and
 * a length of 0, not null.
 */
uint8_t* iAp2MarshalGetBytes(MarshalIo* mio, uint32_t* length);

/** iAp2MarshalGetBytes() with an untyped result; its reports are the same, names included. */
void* iAp2MarshalGetVoidPointer(MarshalIo* mio, uint32_t* length);

/**
 * The bytes of the buffer that are in use, header included.
 *
 * @return 0 when `mio` is null ("ERROR : iAp2MarshalGetUsedSize() mio is NULL"), when the cursor
 *         stands in front of the body ("ERROR : (mio->data - mio->data0) < 0"), or when the result
 *         does not fit 32 bits ("ERROR : usedSize overflow").
 */
uint32_t iAp2MarshalGetUsedSize(MarshalIo* mio);

/* ---- Parameter records ----------------------------------------------------------------------- */

/** Type codes of SimpleMashalingByType(); 2 to 6 are not defined. */
enum
{
    IAP2_PARAM_BOOL = 1,
    IAP2_PARAM_UINT32 = 7,
    IAP2_PARAM_UINT16 = 8,
    IAP2_PARAM_UINT8 = 9,
    IAP2_PARAM_BYTES = 10,
    IAP2_PARAM_UTF8 = 11,
    IAP2_PARAM_ESSENTIAL_UTF8 = 12
};

/*
 * In every record that has it, `present` is 1 when the value is valid; any other number counts as
 * absent. A text's `size` includes its terminating zero.
 */

/** Type 1. */
typedef struct CmdSaveBoolParam
{
    uint8_t present;
    uint8_t value;
} CmdSaveBoolParam;

/** Type 7. */
typedef struct CmdSaveUint32Param
{
    uint8_t present;
    uint32_t value;
} CmdSaveUint32Param;

/** Type 8. */
typedef struct CmdSaveUint16Param
{
    uint8_t present;
    uint16_t value;
} CmdSaveUint16Param;

/** Type 9. */
typedef struct CmdSaveUint8Param
{
    uint8_t present;
    uint8_t value;
} CmdSaveUint8Param;

/** Type 10: bytes. Who fills the record says who releases `value`. */
typedef struct CmdSaveParam
{
    uint8_t present;
    uint32_t size; /**< bytes at `value` */
    uint8_t* value;
} CmdSaveParam;

/** Type 11: a text. Who fills the record says who releases `value`. */
typedef struct CmdSaveUtf8Param
{
    uint8_t present;
    uint32_t size; /**< bytes at `value`, with the terminating zero */
    char* value;
} CmdSaveUtf8Param;

/** Type 12: a text that is always sent, if need be as an empty byte string. */
typedef struct CmdSaveEssentialUtf8Param
{
    uint32_t size; /**< bytes at `value`, with the terminating zero */
    char* value;
} CmdSaveEssentialUtf8Param;

/** A list of numbers inside a component record. */
typedef struct Uint32ListParam
{
    uint32_t count;
    uint32_t* values;
} Uint32ListParam;

/** A list of component records of one kind, for MarshalingByComponentListType(). */
typedef struct ComponentListParam
{
    uint32_t count;
    void* components; /**< array of `count` records */
} ComponentListParam;

/**
 * Writes one parameter record.
 *
 * @param pData  the record that belongs to `type`.
 * @param type   IAP2_PARAM_BOOL and its neighbours.
 *
 * Types 1 and 7 to 11 put the presence flag and, if it is 1, the value (types 10 and 11 as a byte
 * string). Type 12 has no flag on the wire; without a text it puts a length of 0 and, on purpose,
 * sets the record's `size` to 0. Every value but bytes is traced at level 20, a text up to its `size`,
 * so that it need not be ended.
 *
 * A null `mio` or `pData` ("SimpleMashalingByType error : ...") and an undefined type
 * ("not defined type !!", level 60) write nothing.
 */
void SimpleMashalingByType(void* pData, MarshalIo* mio, uint32_t type);

/* ---- Identification components --------------------------------------------------------------- */

/** Component numbers. */
enum
{
    IAP2_COMPONENT_UART_TRANSPORT = 0,
    IAP2_COMPONENT_USB_DEVICE_TRANSPORT = 1,
    IAP2_COMPONENT_USB_HOST_TRANSPORT = 2,
    IAP2_COMPONENT_BLUETOOTH_TRANSPORT = 3,
    IAP2_COMPONENT_IAP2_HID = 4,
    IAP2_COMPONENT_VEHICLE_INFORMATION = 5,
    IAP2_COMPONENT_VEHICLE_STATUS = 6,
    IAP2_COMPONENT_LOCATION_INFORMATION = 7,
    IAP2_COMPONENT_USB_HOST_HID = 8,
    IAP2_COMPONENT_WIRELESS_CARPLAY_TRANSPORT = 9,
    IAP2_COMPONENT_BLUETOOTH_HID = 10,
    IAP2_COMPONENT_ROUTE_GUIDANCE_DISPLAY = 11
};

/*
 * The records. Those that begin with `present` are sent once or not at all, the others in lists.
 * Fields stand in the order in which they are sent, behind the identifier and the name.
 */

typedef struct UARTTransportComponent
{
    uint8_t present;
    uint16_t identifier;
    CmdSaveEssentialUtf8Param name;
    uint8_t value;
} UARTTransportComponent;

typedef struct USBDeviceTransportComponent
{
    uint8_t present;
    uint16_t identifier;
    CmdSaveEssentialUtf8Param name;
    uint8_t value;
    Uint32ListParam sampleRates; /**< audio sample rates */
} USBDeviceTransportComponent;

typedef struct USBHostTransportComponent
{
    uint8_t present;
    uint16_t identifier;
    CmdSaveEssentialUtf8Param name;
    uint8_t values[3];
} USBHostTransportComponent;

typedef struct BluetoothTransportComponent
{
    uint16_t identifier;
    CmdSaveEssentialUtf8Param name;
    uint8_t value;
    uint8_t macAddress[6];
} BluetoothTransportComponent;

typedef struct iAP2HIDComponent
{
    uint16_t identifier;
    CmdSaveEssentialUtf8Param name;
    uint32_t value;
} iAP2HIDComponent;

typedef struct VehicleInformationComponent
{
    uint8_t present;
    uint16_t identifier;
    CmdSaveEssentialUtf8Param name;
    Uint32ListParam engineTypes;
    CmdSaveEssentialUtf8Param essentialText;
    CmdSaveUtf8Param texts[2];
    Uint32ListParam chargingConnectors;
    CmdSaveUint32Param values[7];
} VehicleInformationComponent;

typedef struct VehicleStatusComponent
{
    uint8_t present;
    uint16_t identifier;
    CmdSaveEssentialUtf8Param name;
    uint8_t values[13];
} VehicleStatusComponent;

typedef struct LocationInformationComponent
{
    uint8_t present;
    uint16_t identifier;
    CmdSaveEssentialUtf8Param name;
    uint8_t values[3];
} LocationInformationComponent;

typedef struct USBHostHIDComponent
{
    uint16_t identifier;
    CmdSaveEssentialUtf8Param name;
    uint32_t value;
    uint16_t values[2];
} USBHostHIDComponent;

typedef struct WirelessCarPlayTransportComponent
{
    uint16_t identifier;
    CmdSaveEssentialUtf8Param name;
} WirelessCarPlayTransportComponent;

typedef struct BluetoothHIDComponent
{
    uint8_t present;
    uint16_t identifier;
    CmdSaveEssentialUtf8Param name;
    uint32_t value;
} BluetoothHIDComponent;

typedef struct RouteGuidanceDisplayComponent
{
    uint16_t identifier;
    CmdSaveEssentialUtf8Param name;
    CmdSaveUint16Param values[7];
} RouteGuidanceDisplayComponent;

/**
 * Writes the body of one component, without a presence flag: the identifier, the name (as type 12
 * does, which may set its size to 0) and the remaining fields in order. Neither argument is checked
 * and a full buffer does not stop it: look at the cursor's `flags` afterwards.
 *
 * A list of numbers without values is sent as a count of 0; the vehicle information's lists then
 * have their `count` set to 0 in the record too.
 */
void MarshalingForUARTTransportComponent(UARTTransportComponent* record, MarshalIo* mio);
/** @copydoc MarshalingForUARTTransportComponent */
void MarshalingForUSBDeviceTransportComponent(USBDeviceTransportComponent* record, MarshalIo* mio);
/** @copydoc MarshalingForUARTTransportComponent */
void MarshalingForUSBHostTransportComponent(USBHostTransportComponent* record, MarshalIo* mio);
/** @copydoc MarshalingForUARTTransportComponent */
void MarshalingForBluetoothTransportComponent(BluetoothTransportComponent* record, MarshalIo* mio);
/** @copydoc MarshalingForUARTTransportComponent */
void MarshalingForiAP2HIDComponent(iAP2HIDComponent* record, MarshalIo* mio);
/** @copydoc MarshalingForUARTTransportComponent */
void MarshalingForVehicleInformationComponent(VehicleInformationComponent* record, MarshalIo* mio);
/** @copydoc MarshalingForUARTTransportComponent */
void MarshalingForVehicleStatusComponent(VehicleStatusComponent* record, MarshalIo* mio);
/** @copydoc MarshalingForUARTTransportComponent */
void MarshalingForLocationInformationComponent(LocationInformationComponent* record,
                                               MarshalIo* mio);
/** @copydoc MarshalingForUARTTransportComponent */
void MarshalingForUSBHostHIDComponent(USBHostHIDComponent* record, MarshalIo* mio);
/** @copydoc MarshalingForUARTTransportComponent */
void MarshalingForWirelessCarPlayTransportComponent(WirelessCarPlayTransportComponent* record,
                                                    MarshalIo* mio);
/** @copydoc MarshalingForUARTTransportComponent */
void MarshalingForBluetoothHIDComponent(BluetoothHIDComponent* record, MarshalIo* mio);
/** @copydoc MarshalingForUARTTransportComponent */
void MarshalingForRouteGuidanceDisplayComponent(RouteGuidanceDisplayComponent* record,
                                                MarshalIo* mio);

/**
 * Writes one component: for the kinds that have one the presence flag, and behind it, if it is 1,
 * the body; for the list kinds the body.
 *
 * @param inData  the record that belongs to `number`.
 * @param number  IAP2_COMPONENT_UART_TRANSPORT and its neighbours.
 *
 * A null `mio` or `inData` ("MarshalingByComponentType Error : ...") and a number of 12 or more
 * ("not defined type !!", level 60) write nothing.
 */
void MarshalingByComponentType(void* inData, MarshalIo* mio, uint32_t number);

/**
 * Writes a list of components: the count, then the body of each. A null array sends the count
 * alone.
 *
 * @param inData  a ComponentListParam.
 * @param number  a list kind: 3, 4, 8, 9 or 11.
 *
 * A null `mio` or `inData` ("MarshalingByComponentListType Error : ...") and any other number
 * ("not defined type !!", level 60) write nothing, not even a count.
 */
void MarshalingByComponentListType(void* inData, MarshalIo* mio, int32_t number);

/* ---- Inline forms ---------------------------------------------------------------------------- */

/** The typed members: the end of their names, and the type. */
#define IAP2_MARSHAL_FOR_EACH_TYPE(X)                                                              \
    X(Uint8, uint8_t)                                                                              \
    X(Uint16, uint16_t)                                                                            \
    X(Uint32, uint32_t)                                                                            \
    X(Uint64, uint64_t)                                                                            \
    X(Int8, int8_t)                                                                                \
    X(Int16, int16_t)                                                                              \
    X(Int32, int32_t)                                                                              \
    X(Int64, int64_t)

/*
 * In optimised code the operations below inline to a bounds check and a store or load. A function
 * cannot call the library's function that it stands for, so what does not fit goes to one that has no
 * inline form and reports the same: reserving the slot fails as putting the value does, and taking a
 * byte string fails at its length slot as taking a value of one slot does. For 64 bits only another
 * Get does, so iAp2MarshalGetInt64() is always called.
 *
 * `gnu_inline` emits no body: the symbols stay the library's alone. Define IAP2_MARSHAL_NO_INLINE to
 * call the library every time.
 */
#if defined(__OPTIMIZE__) && !defined(IAP2_MARSHAL_NO_INLINE)

#define IAP2_MARSHAL_INLINE extern inline __attribute__((gnu_inline, always_inline))

#define IAP2_MARSHAL_INLINE_PUT(Name, Type)                                                        \
    IAP2_MARSHAL_INLINE void iAp2MarshalPut##Name(MarshalIo* mio, Type value)                      \
    {                                                                                              \
        uint8_t* const slot = mio->data;                                                           \
        const size_t slotSize = sizeof value > 4U ? 8U : 4U;                                       \
        if (__builtin_expect(mio->dataAvail < slotSize, 0))                                        \
        {                                                                                          \
            iAp2MarshalAlloc(mio, slotSize);                                                       \
            return;                                                                                \
        }                                                                                          \
        mio->data = slot + slotSize;                                                               \
        mio->dataAvail -= slotSize;                                                                \
        memcpy(slot, &value, sizeof value);                                                        \
    }

#define IAP2_MARSHAL_INLINE_GET(Name, Type, fail)                                                  \
    IAP2_MARSHAL_INLINE Type iAp2MarshalGet##Name(MarshalIo* mio)                                  \
    {                                                                                              \
        const uint8_t* const slot = mio->data;                                                     \
        const size_t slotSize = sizeof(Type) > 4U ? 8U : 4U;                                       \
        Type value;                                                                                \
        if (__builtin_expect(mio->dataAvail < slotSize, 0))                                        \
        {                                                                                          \
            uint32_t length;                                                                       \
            fail;                                                                                  \
            (void)length;                                                                          \
            return 0;                                                                              \
        }                                                                                          \
        mio->data += slotSize;                                                                     \
        mio->dataAvail -= slotSize;                                                                \
        memcpy(&value, slot, sizeof value);                                                        \
        return value;                                                                              \
    }

IAP2_MARSHAL_FOR_EACH_TYPE(IAP2_MARSHAL_INLINE_PUT)
IAP2_MARSHAL_INLINE_GET(Uint8, uint8_t, iAp2MarshalGetVoidPointer(mio, &length))
IAP2_MARSHAL_INLINE_GET(Uint16, uint16_t, iAp2MarshalGetVoidPointer(mio, &length))
IAP2_MARSHAL_INLINE_GET(Uint32, uint32_t, iAp2MarshalGetVoidPointer(mio, &length))
IAP2_MARSHAL_INLINE_GET(Uint64, uint64_t, iAp2MarshalGetInt64(mio))
IAP2_MARSHAL_INLINE_GET(Int8, int8_t, iAp2MarshalGetVoidPointer(mio, &length))
IAP2_MARSHAL_INLINE_GET(Int16, int16_t, iAp2MarshalGetVoidPointer(mio, &length))
IAP2_MARSHAL_INLINE_GET(Int32, int32_t, iAp2MarshalGetVoidPointer(mio, &length))

/* Whatever is not in order is left to the twin in the library before anything is taken. */
IAP2_MARSHAL_INLINE uint8_t* iAp2MarshalGetBytes(MarshalIo* mio, uint32_t* length)
{
    uint8_t* slot;
    uint32_t claimed = 0;
    size_t taken = 0;
    int fits = mio && length && mio->dataAvail >= 4U;
    if (fits)
    {
        memcpy(&claimed, mio->data, sizeof claimed);
        taken = claimed;
        taken = 4U + (taken + 3U) / 4U * 4U;
        fits = claimed <= 0xFFFFFFFCU && mio->dataAvail >= taken;
    }
    if (__builtin_expect(!fits, 0))
    {
        void* const bytes = iAp2MarshalGetVoidPointer(mio, length);
        memcpy(&slot, &bytes, sizeof slot);
        return slot;
    }
    slot = mio->data;
    *length = claimed;
    mio->data = slot + taken;
    mio->dataAvail -= taken;
    return slot + 4;
}

#undef IAP2_MARSHAL_INLINE_GET
#undef IAP2_MARSHAL_INLINE_PUT
#undef IAP2_MARSHAL_INLINE

#endif

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
