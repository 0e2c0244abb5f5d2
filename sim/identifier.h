#ifndef SIM_IDENTIFIER_H
#define SIM_IDENTIFIER_H

#include <optional>
#include <string>

#include "recording/identifier.h"
#include "talm/vanid.h"

namespace sim {

using recording::isBroadcast;
using recording::sameIdentifier;

// 17 fields of two hexadecimal digits, joined by ':'; nothing else is taken for an identifier.
std::optional<vanid_t> parseIdentifier(const std::string& text);
std::string identifierText(const vanid_t& id);

}  // namespace sim

#endif
