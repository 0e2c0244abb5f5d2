#ifndef SIM_CONNECTIONS_H
#define SIM_CONNECTIONS_H

#include <functional>
#include <memory>

#include "talm/talm_api.h"

namespace sim {

class Bus;

// The bus behind an open handle, null for any other pointer: a tool that uses a handle it has
// closed gets an error instead of a crash.
std::shared_ptr<Bus> findBus(TalmApiHandle handle);

// Calls `visit` with the bus of every open handle.
void forEachBus(const std::function<void(Bus&)>& visit);

}  // namespace sim

#endif
