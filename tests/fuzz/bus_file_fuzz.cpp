// Reads any text as a bus file: the result is a description, or one line with the error.

#include <cstdlib>
#include <string>

#include "common/one_line.h"
#include "sim/bus_file/bus_file.h"
#include "sim/bus_file/bus_file_error.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        sim::describeBus(sim::parseBusFile({reinterpret_cast<const char*>(data), size}));
    } catch (const sim::BusFileError& error) {
        const std::string line = onOneLine(error.what());
        if (line.empty() || line.find('\n') != std::string::npos) {
            std::abort();
        }
    }
    return 0;
}
