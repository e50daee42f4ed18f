/**
 * Every sending member of the handler that builds its record itself, with what it sends.
 */
#ifndef KORVANE_TESTS_HANDLERSENDERS_H
#define KORVANE_TESTS_HANDLERSENDERS_H

#include <ostream>
#include <type_traits>

#include <korvane/iAP2MsgHandler.h>

namespace support
{

struct Sender
{
    const char* name;
    int (*send)(iAP2MsgHandler&);
    iAP2MsgData sent;
};

/** How GoogleTest shows a parameter of this type. */
inline void PrintTo(const Sender& sender, std::ostream* stream)
{
    *stream << sender.name;
}

inline char targets[3];
inline void* const p1 = &targets[0];
inline void* const p2 = &targets[1];
inline void* const p3 = &targets[2];

// A row is a suffix, the arguments behind the event id and the record that they make.
#define FOR_EACH_SUFFIX(X)                                                                         \
    X(, (7, 1, 2, 3, p1, p2, p3), {7, 1, 2, 3, p1, p2, p3})                                        \
    X(V, (7), {7, 0, 0, 0, nullptr, nullptr, nullptr})                                             \
    X(D, (7, 1), {7, 1, 0, 0, nullptr, nullptr, nullptr})                                          \
    X(DD, (7, 1, 2), {7, 1, 2, 0, nullptr, nullptr, nullptr})                                      \
    X(DDD, (7, 1, 2, 3), {7, 1, 2, 3, nullptr, nullptr, nullptr})                                  \
    X(P, (7, p1), {7, 0, 0, 0, p1, nullptr, nullptr})                                              \
    X(PP, (7, p1, p2), {7, 0, 0, 0, p1, p2, nullptr})                                              \
    X(PPP, (7, p1, p2, p3), {7, 0, 0, 0, p1, p2, p3})                                              \
    X(DP, (7, 1, p1), {7, 1, 0, 0, p1, nullptr, nullptr})                                          \
    X(DPP, (7, 1, p1, p2), {7, 1, 0, 0, p1, p2, nullptr})                                          \
    X(DPPP, (7, 1, p1, p2, p3), {7, 1, 0, 0, p1, p2, p3})                                          \
    X(DDP, (7, 1, 2, p1), {7, 1, 2, 0, p1, nullptr, nullptr})                                      \
    X(DDPP, (7, 1, 2, p1, p2), {7, 1, 2, 0, p1, p2, nullptr})                                      \
    X(DDPPP, (7, 1, 2, p1, p2, p3), {7, 1, 2, 0, p1, p2, p3})                                      \
    X(DDDP, (7, 1, 2, 3, p1), {7, 1, 2, 3, p1, nullptr, nullptr})                                  \
    X(DDDPP, (7, 1, 2, 3, p1, p2), {7, 1, 2, 3, p1, p2, nullptr})                                  \
    X(DDDPPP, (7, 1, 2, 3, p1, p2, p3), {7, 1, 2, 3, p1, p2, p3})

#define ASYNCHRONOUS(Suffix, arguments, ...)                                                       \
    {"sendMsg" #Suffix, [](iAP2MsgHandler& handler) { return handler.sendMsg##Suffix arguments; }, \
     __VA_ARGS__},
#define SYNCHRONOUS(Suffix, arguments, ...)                                                        \
    {"sendMsgSync" #Suffix,                                                                        \
     [](iAP2MsgHandler& handler) { return handler.sendMsgSync##Suffix arguments; }, __VA_ARGS__},

inline const Sender kAsynchronousSenders[] = {FOR_EACH_SUFFIX(ASYNCHRONOUS)};
inline const Sender kSynchronousSenders[] = {FOR_EACH_SUFFIX(SYNCHRONOUS)};
static_assert(std::extent<decltype(kAsynchronousSenders)>::value == 17, "all suffixes");
static_assert(std::extent<decltype(kSynchronousSenders)>::value == 17, "all suffixes");

#undef SYNCHRONOUS
#undef ASYNCHRONOUS
#undef FOR_EACH_SUFFIX

} // namespace support

#endif
