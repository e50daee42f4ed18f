/**
 * A connection between two ends of the same test.
 */
#ifndef KORVANE_TESTS_SOCKETPAIR_H
#define KORVANE_TESTS_SOCKETPAIR_H

#include <array>

#include <sys/socket.h>

#include "failures.h"
#include "files.h"

struct SocketPair
{
    SocketPair()
    {
        std::array<int, 2> ends{};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
        {
            throw identification::SystemError("no socket");
        }
        sender = identification::UniqueFd(ends[0]);
        reader = identification::UniqueFd(ends[1]);
    }

    identification::UniqueFd sender;
    identification::UniqueFd reader;
};

#endif
