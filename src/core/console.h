// The console: standard output, which a person or a program may read through a pipe.
//
// printLine and printProgress flush, so that the reader has every text before the wait that follows
// it. Any thread; a text is printed whole.
#ifndef CORE_CONSOLE_H
#define CORE_CONSOLE_H

// Prints the formatted text and a newline, and flushes.
void printLine(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Prints the text without a newline, and flushes: progress characters and beginnings of lines.
void printProgress(const char* text);

// Prints the text without a flush.
void printUnflushed(const char* text);

#endif
