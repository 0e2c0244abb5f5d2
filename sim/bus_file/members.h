#ifndef SIM_BUS_FILE_MEMBERS_H
#define SIM_BUS_FILE_MEMBERS_H

#include <vector>

#include "sim/bus/bus_description.h"
#include "sim/bus_file/field_reader.h"

namespace sim {

// Reads the `members` of a bus file and appends their call faults to `callFaults`. Throws
// BusFileError, also for duplicate identifiers.
std::vector<MemberDescription> readMembers(FieldReader& fields, std::vector<CallFault>& callFaults);

}  // namespace sim

#endif
