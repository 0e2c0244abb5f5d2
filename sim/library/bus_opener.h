#ifndef SIM_LIBRARY_BUS_OPENER_H
#define SIM_LIBRARY_BUS_OPENER_H

#include <functional>
#include <memory>
#include <string>

#include "sim/bus/bus.h"

namespace sim {

// Opens the bus `name`, by default the bus file at that path; a program may set another opener.
// Throws std::exception with a reason of one line.
using BusOpener = std::function<std::shared_ptr<Bus>(const std::string& name)>;
BusOpener& busOpener();

}  // namespace sim

#endif
