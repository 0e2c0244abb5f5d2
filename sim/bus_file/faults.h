#ifndef SIM_BUS_FILE_FAULTS_H
#define SIM_BUS_FILE_FAULTS_H

#include <string>
#include <vector>

#include "sim/bus/bus_description.h"
#include "sim/bus_file/field_reader.h"

namespace sim {

// Reads the `faults` of a member: returns those of the device itself, and appends its call faults
// to `callFaults`. Throws BusFileError.
DeviceFaults readDeviceFaults(const Json& json, const std::string& place, const vanid_t& device,
                              std::vector<CallFault>& callFaults);

// Reads the `faults` of the bus and appends them to `callFaults`. Throws BusFileError.
void readBusFaults(const Json& json, const std::string& place, std::vector<CallFault>& callFaults);

}  // namespace sim

#endif
