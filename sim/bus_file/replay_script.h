#ifndef SIM_BUS_FILE_REPLAY_SCRIPT_H
#define SIM_BUS_FILE_REPLAY_SCRIPT_H

#include "sim/bus/replay_script.h"
#include "sim/bus_file/field_reader.h"

namespace sim {

// Reads the field `replay` of a member. Throws BusFileError.
ReplayScript readReplayScript(const Json& json, const std::string& place);

}  // namespace sim

#endif
