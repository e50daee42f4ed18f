/** A client written in C. */
#ifndef KORVANE_TESTS_CCLIENT_H
#define KORVANE_TESTS_CCLIENT_H

#ifdef __cplusplus
extern "C" {
#endif

/** Uses every function that C can call; returns "", or what went wrong first. */
const char* runCClient(void);

#ifdef __cplusplus
}
#endif

#endif
