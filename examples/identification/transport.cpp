#include "transport.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include <sys/socket.h>
#include <sys/types.h>

#include "failures.h"

namespace identification
{

namespace
{

/** Up to `size` bytes; fewer only where the peer has ended the connection. */
std::size_t receiveUpTo(int socket, std::uint8_t* bytes, std::size_t size)
{
    std::size_t received = 0;
    while (received < size)
    {
        const ssize_t count = recv(socket, bytes + received, size - received, 0);
        if (count == 0)
        {
            break;
        }
        if (count > 0)
        {
            received += static_cast<std::size_t>(count);
        }
        else if (errno != EINTR)
        {
            throw SystemError("receiving failed: " + errorText(errno));
        }
    }
    return received;
}

void receiveAll(int socket, std::uint8_t* bytes, std::size_t size, const char* what)
{
    const std::size_t received = receiveUpTo(socket, bytes, size);
    if (received != size)
    {
        throw SystemError("the connection ended after " + std::to_string(received) + " of " +
                          std::to_string(size) + " bytes of the " + what);
    }
}

} // namespace

void sendTransaction(int socket, const Transaction& transaction)
{
    std::size_t sent = 0;
    while (sent < transaction.size())
    {
        const ssize_t count =
            send(socket, transaction.bytes.data() + sent, transaction.size() - sent, MSG_NOSIGNAL);
        if (count >= 0)
        {
            sent += static_cast<std::size_t>(count);
        }
        else if (errno != EINTR)
        {
            throw SystemError("sending failed: " + errorText(errno));
        }
    }
    if (shutdown(socket, SHUT_WR) != 0)
    {
        throw SystemError("sending failed: " + errorText(errno));
    }
}

Transaction receiveTransaction(int socket)
{
    Transaction transaction;
    receiveAll(socket, transaction.bytes.data(), IAP2_TXN_PAYLOAD_OFFSET, "header");

    std::uint32_t length = 0;
    std::memcpy(&length, transaction.bytes.data() + IAP2_TXN_LENGTH_OFFSET, sizeof length);
    if (length > kPayloadCapacity)
    {
        throw SystemError("the header announces " + std::to_string(length) +
                          " bytes, more than the " + std::to_string(kPayloadCapacity) +
                          " that a payload can have");
    }
    receiveAll(socket, transaction.bytes.data() + IAP2_TXN_PAYLOAD_OFFSET, length, "payload");
    transaction.payloadSize = length;

    std::uint8_t further = 0;
    if (receiveUpTo(socket, &further, sizeof further) != 0)
    {
        throw SystemError("something follows the payload of " + std::to_string(length) + " bytes");
    }
    return transaction;
}

} // namespace identification
