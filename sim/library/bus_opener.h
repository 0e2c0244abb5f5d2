#ifndef SIM_LIBRARY_BUS_OPENER_H
#define SIM_LIBRARY_BUS_OPENER_H

#include <functional>
#include <memory>
#include <string>

#include "sim/bus/bus.h"

namespace sim {

// Opens the bus of that name: the file at a path, unless the program brings buses of its own.
// Throws std::exception, with a reason in one line, when it cannot be opened.
using BusOpener = std::function<std::shared_ptr<Bus>(const std::string& name)>;
BusOpener& busOpener();

}  // namespace sim

#endif
