// Any bytes as a firmware image file: accepted only with sizes that add up, and then read to its
// end.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "core/error_info.h"
#include "image/firmware_image.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const int file = memfd_create("image", 0);
    if (file < 0 || write(file, data, size) != static_cast<ssize_t>(size)) {
        std::abort();
    }
    ErrorInfo error;
    FirmwareImage image(&error);
    if (image.open("/proc/self/fd/" + std::to_string(file))) {
        const FirmwareImageHeader& header = image.getHeader();
        char content[64];
        std::size_t total = 0;
        for (ssize_t count = 0; (count = image.read(content, sizeof content)) > 0;) {
            total += static_cast<std::size_t>(count);
        }
        if (std::uint64_t{header.headerSize} + header.contentSize != size ||
            total != header.contentSize || !image.seek(0)) {
            std::abort();
        }
        image.close();
    } else if (error.message.empty()) {
        std::abort();
    }
    close(file);
    return 0;
}
