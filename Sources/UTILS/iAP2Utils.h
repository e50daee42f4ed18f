/**
 * Text parameters taken from a marshalled body.
 *
 * A record and a cursor belong to one thread at a time; nothing blocks beyond the system allocator,
 * and no exception leaves a function.
 */
#ifndef KORVANE_IAP2UTILS_H
#define KORVANE_IAP2UTILS_H

#include <cstdint>

#include <korvane/iAp2Marshal.h>

#pragma GCC visibility push(default)

/**
 * Replaces the text of `param` by the next byte string of `mio`.
 *
 * The value is an array of `size + 1` characters from nothrow `new[]`, to be released with
 * `delete[]`; the one behind the received bytes is a zero, so the text is ended even where the
 * writer did not send its terminating zero. The record's previous value, if any, is released with
 * `delete[]` first: a record filled by the functions of <korvane/utils.h> must not come here.
 *
 * @return 0, `present` 1: the value is traced at level 40. A byte string of length 0, and equally an
 *         exhausted cursor, gives an empty text of size 0.
 *         -6705: `mio` or `param` is null; reported at level 60 with errno, which is then set to 0.
 *         -6751: the byte string is not all there, as the cursor has reported; value null, size 0,
 *         present 0.
 *         -6728: no memory ("ERROR utf8Param Malloc Fail", level 90); value null, present 0.
 */
std::int32_t reSettingUtf8ParamForCPP(CmdSaveUtf8Param* param, MarshalIo* mio);

#pragma GCC visibility pop

#endif
