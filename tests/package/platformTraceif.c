/* A trace library as a platform could have it: told apart from the stand-in by what it prints. */
#include <stdarg.h>
#include <stdio.h>

#include <traceif/traceif.h>

int qn_log_print(const char* path, const char* function, int line, int severity, int size,
                 int flags, const char* format, ...)
{
    va_list arguments;
    (void)path;
    (void)function;
    (void)line;
    (void)size;
    (void)flags;
    fprintf(stderr, "platform %d: ", severity);
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    return fprintf(stderr, "\n");
}
