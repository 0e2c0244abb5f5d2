#ifndef COMMON_ONE_LINE_H
#define COMMON_ONE_LINE_H

#include <string>

// Replaces every control character by a question mark, so that the name or content of a file can
// neither start a new line of output nor control a terminal.
std::string onOneLine(std::string text);

#endif
