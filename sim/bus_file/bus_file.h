#ifndef SIM_BUS_FILE_BUS_FILE_H
#define SIM_BUS_FILE_BUS_FILE_H

#include <string>

#include "sim/bus/bus_description.h"
#include "sim/bus_file/field_reader.h"
#include "sim/bus_file/locked_file.h"

namespace sim {

// The JSON file that is the simulated hardware, kept from any other connection. Not for several
// threads at once.
class BusFile {
public:
    // Throws BusFileError, naming the place, when the file cannot be read, is broken or is in use.
    explicit BusFile(std::string name);

    // Paths in it are as seen from here: relative ones in the file start at the file's directory.
    const BusDescription& description() const { return contents; }

    // Makes this the state of the member (counted from 0) in the file, which a reader always finds
    // whole. A failure is reported on standard error.
    void storeMember(std::size_t member, const Versions& versions, bool onBus);

private:
    const std::string path;
    LockedFile file;
    Json json;
    BusDescription contents;
};

// The description that a bus file's text holds. Throws BusFileError.
BusDescription describeBus(const Json& json);

// The parsed text. Throws BusFileError with line and column.
Json parseBusFile(const std::string& text);

}  // namespace sim

#endif
