#ifndef SIM_BUS_FILE_BUS_FILE_ERROR_H
#define SIM_BUS_FILE_BUS_FILE_ERROR_H

#include <stdexcept>

namespace sim {

// Its text names, in one line, the place in the bus file and the error.
class BusFileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace sim

#endif
