#include "transport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include <sys/socket.h>
#include <sys/types.h>

#include <korvane/ByteArray.h>

#include "failures.h"

namespace identification
{

namespace
{

/** Adds up to `size` bytes; fewer only where the peer has ended the connection. */
std::size_t receiveUpTo(int socket, IAP2::ByteArray& bytes, std::size_t size)
{
    std::array<char, 1024> piece;
    std::size_t received = 0;
    while (received < size)
    {
        const ssize_t count =
            recv(socket, piece.data(), std::min(size - received, piece.size()), 0);
        if (count == 0)
        {
            break;
        }
        if (count > 0)
        {
            bytes.append(piece.data(), static_cast<int>(count));
            received += static_cast<std::size_t>(count);
        }
        else if (errno != EINTR)
        {
            throw SystemError("receiving failed: " + errorText(errno));
        }
    }
    return received;
}

void receiveAll(int socket, IAP2::ByteArray& bytes, std::size_t size, const char* what)
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
    IAP2::ByteArray received;
    receiveAll(socket, received, IAP2_TXN_PAYLOAD_OFFSET, "header");

    std::uint32_t length = 0;
    std::memcpy(&length, received.constData() + IAP2_TXN_LENGTH_OFFSET, sizeof length);
    if (length > kPayloadCapacity)
    {
        throw SystemError("the header announces " + std::to_string(length) +
                          " bytes, more than the " + std::to_string(kPayloadCapacity) +
                          " that a payload can have");
    }
    if (length > 1) // the capacity is one more than the content, and only more may be asked for
    {
        received.reserve(static_cast<int>(IAP2_TXN_PAYLOAD_OFFSET + length));
    }
    receiveAll(socket, received, length, "payload");

    IAP2::ByteArray further;
    if (receiveUpTo(socket, further, 1) != 0)
    {
        throw SystemError("something follows the payload of " + std::to_string(length) + " bytes");
    }

    Transaction transaction;
    std::memcpy(transaction.bytes.data(), received.constData(),
                static_cast<std::size_t>(received.length()));
    transaction.payloadSize = length;
    return transaction;
}

} // namespace identification
