#ifndef SIM_BUS_FILE_BUS_FILE_H
#define SIM_BUS_FILE_BUS_FILE_H

#include <string>

#include "sim/bus/bus_description.h"
#include "sim/bus_file/field_reader.h"
#include "sim/bus_file/locked_file.h"

namespace sim {

// The JSON file that describes the simulated hardware, locked against other connections. Not
// thread-safe.
class BusFile {
public:
    // Throws BusFileError if the file cannot be read, is invalid or is in use.
    explicit BusFile(std::string name);

    // Paths in it are resolved: relative paths in the file start at the directory of the file.
    const BusDescription& description() const { return contents; }

    // Stores the state of the member (counted from 0). Replaces the file atomically. Reports a
    // failure on standard error.
    void storeMember(std::size_t member, const Versions& versions, bool onBus);

private:
    const std::string path;
    LockedFile file;
    Json json;
    BusDescription contents;
};

// Reads the description from the parsed text. Throws BusFileError.
BusDescription describeBus(const Json& json);

// Parses the text of a bus file. Throws BusFileError with line and column.
Json parseBusFile(const std::string& text);

}  // namespace sim

#endif
