#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <korvane/iAp2Marshal.h>

namespace
{

/** Prints `size` bytes that stand at `offset`, and what they are. */
void show(const std::uint8_t* bytes, std::size_t offset, std::size_t size, const char* meaning)
{
    std::printf("%4zu  ", offset);
    for (std::size_t i = 0; i < size; ++i)
    {
        std::printf("%02X ", static_cast<unsigned>(bytes[offset + i]));
    }
    std::printf("%*s%s\n", static_cast<int>(3 * (8 - size)) + 1, "", meaning);
}

} // namespace

int main()
{
    // [write]
    std::uint8_t txn[IAP2_TXN_PAYLOAD_OFFSET + 64];
    std::memset(txn, 0xEE, sizeof txn); // so that untouched bytes can be seen
    MarshalIo out;
    iAp2MarshalInit(&out, txn, sizeof txn, IAP2_TXN_PAYLOAD_OFFSET);
    iAp2MarshalPutUint8(&out, 1);
    iAp2MarshalPutInt16(&out, -2);
    iAp2MarshalPutUint32(&out, 0x01020304);
    iAp2MarshalPutUint64(&out, 0x0102030405060708);
    iAp2MarshalPutBytes(&out, "Navi", 5);
    iAp2MarshalPutBytes(&out, "", 0);
    // [write]

    const std::uint8_t* const body = txn + IAP2_TXN_PAYLOAD_OFFSET;
    show(body, 0, 4, "Uint8   1: one byte, three of padding");
    show(body, 4, 4, "Int16  -2: two bytes, two of padding");
    show(body, 8, 4, "Uint32  0x01020304: little-endian, as the host is");
    show(body, 12, 8, "Uint64  0x0102030405060708: at a multiple of 4, not of 8");
    show(body, 20, 4, "Bytes: the length 5");
    show(body, 24, 8, "       \"Navi\" and its zero, three bytes of padding");
    show(body, 32, 4, "Bytes: the length 0, and nothing more");

    // [send]
    const std::uint32_t used = iAp2MarshalGetUsedSize(&out); // 72 + 36
    const std::uint32_t payload = used - IAP2_TXN_PAYLOAD_OFFSET;
    std::memcpy(txn + IAP2_TXN_LENGTH_OFFSET, &payload, sizeof payload);
    // [send]

    // [read]
    MarshalIo in;
    std::uint32_t length;
    iAp2MarshalInitFromTxn(&in, txn);
    const unsigned first = iAp2MarshalGetUint8(&in);
    const int second = iAp2MarshalGetInt16(&in);
    const std::uint32_t third = iAp2MarshalGetUint32(&in);
    const std::uint64_t fourth = iAp2MarshalGetUint64(&in);
    const std::uint8_t* const text = iAp2MarshalGetBytes(&in, &length); // inside txn, not a copy
    iAp2MarshalGetUint64(&in); // only 4 bytes are left: 0, and the overflow bit is set
    // [read]

    std::printf("\n%u %d 0x%08x 0x%016llx %.*s flags %u dataAvail %zu\n", first, second, third,
                static_cast<unsigned long long>(fourth), static_cast<int>(length),
                reinterpret_cast<const char*>(text), in.flags, in.dataAvail);
    return used == IAP2_TXN_PAYLOAD_OFFSET + 36 ? 0 : 1;
}
