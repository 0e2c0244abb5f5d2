// Sends one image by the floor alone, with whichever bus library it finds, to have its instructions
// counted.
//
//     floor-transfer IMAGE BUS-FILE

#include <cstdio>
#include <stdexcept>

#include "core/error_info.h"
#include "image/firmware_image.h"
#include "performance/floor.h"
#include "performance/measured_bus.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("Usage: floor-transfer IMAGE BUS-FILE\n", stderr);
        return 2;
    }
    try {
        const MeasuredBus bus(argv[2]);
        ErrorInfo error;
        FirmwareImage image(&error);
        if (!image.open(argv[1])) {
            throw std::runtime_error(error.message);
        }
        Floor(bus, image).send();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "floor-transfer: %s\n", error.what());
        return 1;
    }
}
