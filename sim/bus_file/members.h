#ifndef SIM_BUS_FILE_MEMBERS_H
#define SIM_BUS_FILE_MEMBERS_H

#include <vector>

#include "sim/bus/bus_description.h"
#include "sim/bus_file/field_reader.h"

namespace sim {

// The `members` of a bus file, each with an identifier of its own. Their calls that end otherwise
// are appended to `callFaults`. Throws BusFileError.
std::vector<MemberDescription> readMembers(FieldReader& fields, std::vector<CallFault>& callFaults);

}  // namespace sim

#endif
