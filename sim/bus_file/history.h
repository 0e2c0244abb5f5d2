#ifndef SIM_BUS_FILE_HISTORY_H
#define SIM_BUS_FILE_HISTORY_H

#include "sim/bus/history.h"
#include "sim/bus_file/field_reader.h"

namespace sim {

// What a device once did, from the field of that name. Throws BusFileError.
History readHistory(const Json& json, const std::string& place);

}  // namespace sim

#endif
