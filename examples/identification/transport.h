/**
 * A transaction on its way through a Unix socket. Both functions throw SystemError.
 */
#ifndef IDENTIFICATION_TRANSPORT_H
#define IDENTIFICATION_TRANSPORT_H

#include "transaction.h"

namespace identification
{

/** Sends everything, in as many pieces as it takes, and then closes this direction. */
void sendTransaction(int socket, const Transaction& transaction);

/** Receives one transaction and nothing behind it, in whatever pieces it comes. */
Transaction receiveTransaction(int socket);

} // namespace identification

#endif
