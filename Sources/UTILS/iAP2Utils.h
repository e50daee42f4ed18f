/**
 * Base64 and the secured form of values, MAC-address text, text parameters from a marshalled body.
 *
 * All functions may be called from any thread; a record and a cursor belong to one thread at a time.
 * Nothing blocks beyond the system allocator and the trace library. The only exception that leaves a
 * function is std::bad_alloc, where a string that is to be returned or traced cannot be made.
 */
#ifndef KORVANE_IAP2UTILS_H
#define KORVANE_IAP2UTILS_H

#include <cstdint>
#include <string>

#include <korvane/iAp2Marshal.h>

#pragma GCC visibility push(default)

/* ---- Base64 and the secured form ------------------------------------------------------------- */

/**
 * Writes the Base64 text of `inLen` bytes (RFC 4648, section 4: standard alphabet, "=" padding) and
 * a terminating zero. That takes an `outSize` of 4 * ceil(inLen / 3) + 1 bytes. The buffers must not
 * overlap.
 *
 * @param outLen  becomes the number of characters written, without the zero, on failure too; may be
 *                null.
 * @return 0; -6705 when a buffer is null ("inBuffer is NULL", "outBuffer is NULL"), even for no
 *         bytes at all; -6743 when the text and its zero do not fit ("length error"): the buffer
 *         then holds the first `outSize` characters and no zero. Failures are reported at level 90
 *         as "base64Encode error : <reason>".
 */
int base64Encode(const unsigned char* inBuffer, unsigned long inLen, char* outBuffer,
                 unsigned long outSize, unsigned long* outLen);

/*
 * The secured form of a value keeps it from being read at a glance in a trace: it is the value's
 * Base64 text with the last three characters moved to the front, 4 * ceil(n / 3) characters for n
 * bytes. It is no encryption: whoever knows the rule can read it. "abc" becomes "WJjY".
 */

/**
 * The secured form in a new array, ended by a zero; the caller releases it with `delete[]`.
 *
 * @return null, reported at level 90 as "createBase64EncodedString error : " and "inString is empty"
 *         or "outBuffer is NULL" (no memory).
 */
char* createBase64EncodedString(std::string& inString);

/** The secured form; empty where createBase64EncodedString() fails, which makes its report. */
std::string getSecuredString(std::string value);

/**
 * The secured form of a text that a zero ends. Empty where that fails: "getSecuredUtf8 error :
 * inValue is NULL!", or "getSecuredUtf8 error : encodedString is NULL!" after the report of
 * createBase64EncodedString(), as for every empty text.
 */
std::string getSecuredUtf8(unsigned char* inValue);

/** getSecuredUtf8() for the other type of characters; it reports as "getSecuredChar". */
std::string getSecuredChar(char* inValue);

/* ---- MAC addresses and characters ------------------------------------------------------------ */

/**
 * `mac` with a ":" behind every second character, where it has 12 characters; otherwise `mac` as it
 * is. Traces "insertColonIntoMacAddress()" and the result in its secured form at level 20. An empty
 * text has no secured form, which is reported as for getSecuredString().
 */
std::string insertColonIntoMacAddress(std::string mac);

/**
 * `inString` without `target`, which is meant to be one character: every occurrence of it goes. The
 * result is traced in clear at level 20.
 *
 * Hazard: of a longer `target` only the first character of each match goes, and the search starts
 * again at the beginning: "xaby" without "ab" is "xby". An empty `target` takes nothing away.
 */
std::string removeCharFromString(std::string inString, const std::string& target);

/* ---- Parameter records ----------------------------------------------------------------------- */

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
