/**
 * The platform's trace library, as far as it is called here: one function.
 *
 * The head unit brings its own libtraceif.so; the one built from this folder stands in for it on a
 * workstation and writes each line to standard error.
 */
#ifndef TRACEIF_TRACEIF_H
#define TRACEIF_TRACEIF_H

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/**
 * Accepts one trace record; callable from any thread.
 *
 * @param path      source path of the caller.
 * @param function  name of the calling function.
 * @param line      source line of the call.
 * @param severity  0xE0 fatal, 0xC0 error, 0xA0 warning, 0x80 information, 0x40 and 0x20 debug.
 * @param size      2048 from this library; its meaning belongs to the platform.
 * @param flags     0 from this library; its meaning belongs to the platform.
 * @param format    a printf format with its arguments behind it.
 * @return          the platform's result; the stand-in returns the number of bytes written, or -1
 *                  with errno set when standard error cannot be written.
 */
int qn_log_print(const char* path, const char* function, int line, int severity, int size,
                 int flags, const char* format, ...) __attribute__((format(printf, 7, 8)));

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
