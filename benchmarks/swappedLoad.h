/**
 * The floor of a decoded field: a call into a shared library that loads a number and swaps its bytes.
 */
#ifndef KORVANE_BENCHMARKS_SWAPPEDLOAD_H
#define KORVANE_BENCHMARKS_SWAPPEDLOAD_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The signatures of the decoders; only the data and the index are looked at. */
uint8_t swappedLoad8(unsigned char* data, unsigned long dataLen, int nStartIdx, int nLength);
uint16_t swappedLoad16(unsigned char* data, unsigned long dataLen, int nStartIdx, int nLength);
uint32_t swappedLoad32(unsigned char* data, unsigned long dataLen, int nStartIdx, int nLength);
uint64_t swappedLoad64(unsigned char* data, unsigned long dataLen, int nStartIdx, int nLength);

#ifdef __cplusplus
}
#endif

#endif
