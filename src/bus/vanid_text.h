// The identifier of a device as the command line and the bus members give it.
#ifndef BUS_VANID_TEXT_H
#define BUS_VANID_TEXT_H

#include <string>

#include "common/vanid_text.h"

// Reads 17 fields of two hexadecimal digits with one separator between them. False, with `out`
// unchanged, only when the text is not 50 characters long. Separators are not looked at, and a
// field that is no number gives a byte all the same, usually 0.
bool parseVanid(vanid_t& out, const std::string& text);

#endif
