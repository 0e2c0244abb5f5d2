#include "core/console.h"

#include <cstdarg>
#include <cstdio>

void printLine(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    flockfile(stdout);
    vprintf(format, arguments);
    putchar('\n');
    fflush(stdout);
    funlockfile(stdout);
    va_end(arguments);
}

void printProgress(const char* text) {
    printUnflushed(text);
    fflush(stdout);
}

void printUnflushed(const char* text) {
    fputs(text, stdout);
}
