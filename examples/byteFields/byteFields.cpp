// Fields of a received message: a length, an identifier, then parameters, each of them its own length,
// its own identifier and a number. All numbers are stored most significant byte first.

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <vector>

#include <korvane/iAp2LogUtil.h>
#include <korvane/utils.h>

namespace
{

// [example]
/** Prints the parameters; returns false when the message is not whole. */
bool showParameters(std::vector<unsigned char>& message)
{
    unsigned char* const bytes = message.data();
    const int length = static_cast<int>(message.size());
    if (length < 4 || getUint16FromBytes_C(bytes, message.size(), 0, 2) != length)
    {
        return false;
    }
    std::printf("message %04x\n", getUint16FromBytes_C(bytes, message.size(), 2, 2));
    int position = 4;
    while (length - position >= 4)
    {
        const int size = getUint16FromBytes_C(bytes, message.size(), position, 2);
        if (size < 4 || size > length - position)
        {
            return false;
        }
        // 0 is a number as well as a failure, which is why the lengths are compared first.
        const unsigned int identifier =
            getUint16FromBytes_C(bytes, message.size(), position + 2, 2);
        const std::uint64_t value =
            getUint64FromBytes_C(bytes, message.size(), position + 4, size - 4);
        std::printf("parameter %u: %" PRIu64 "\n", identifier, value);
        position += size;
    }
    return position == length;
}
// [example]

} // namespace

int main()
{
    setLogLevel(IAP2_LOG_ERROR);
    std::vector<unsigned char> message{0x00, 0x11, 0xAE, 0x00, 0x00, 0x05, 0x00, 0x01, 0x02,
                                       0x00, 0x08, 0x00, 0x02, 0x00, 0x00, 0xAC, 0x44};
    const bool isWhole = showParameters(message);
    message.pop_back();
    if (!isWhole || showParameters(message)) // the second has lost its last byte
    {
        std::fprintf(stderr, "byteFields: a message was taken for what it is not\n");
        // Every line of a dump shows 16 bytes, so the buffer has to be longer than the message.
        char title[] = "message";
        const int length = static_cast<int>(message.size());
        message.resize(message.size() + 16);
        printDataByHexa(title, message.data(), length);
        return 1;
    }
    return 0;
}
