// A fault is written to standard error and ends the run; scripts/fuzz looks for the word.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

[[noreturn]] __attribute__((format(printf, 1, 2))) inline void fault(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    fputs("FAULT: ", stderr);
    vfprintf(stderr, format, arguments);
    fputc('\n', stderr);
    va_end(arguments);
    abort();
}
