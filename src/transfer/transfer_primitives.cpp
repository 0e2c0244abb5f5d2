#include "transfer/transfer_primitives.h"

#include <cstdio>

#include "core/bus_session.h"
#include "core/console.h"
#include "image/firmware_image.h"

const vanid_t broadcastVanid = {{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}};

bool initializeTransfer(const BusSession& session, const vanid_t& destination,
                        const FirmwareImageHeader& header) {
    const int result =
        ImageTransfer_write_request(session.handle, destination, header.manufacturer, header.device,
                                    header.contentType, header.contentSize, header.contentChecksum);
    if (result != 0) {
        printLine("Res: %d", result);
        return false;
    }
    return true;
}

int sendChunk(const BusSession& session, const vanid_t& destination, const std::uint8_t* content,
              std::uint32_t packetNumber) {
    std::uint32_t ignored[2] = {};
    return ImageTransfer_data(session.handle, destination, packetNumber, content, &ignored[0],
                              &ignored[1]);
}

bool verifyData(const BusSession& session, const vanid_t& destination, std::uint32_t device) {
    // They start different, so that a library that writes neither does not pass for a successful
    // check.
    std::uint16_t announced = 0;
    std::uint16_t computed = 1;
    const int result = OrvinImageMaintenance_check_image(session.handle, destination, device,
                                                         &announced, &computed);
    return result == 0 && announced == computed;
}

bool startUpdate(const BusSession& session, const vanid_t& destination, std::uint32_t device) {
    const int expected = vanid_is_broadcast(&destination) != 0 ? kSentToAll : 0;
    return OrvinImageMaintenance_start_update(session.handle, destination, device) == expected;
}

void dumpHex(const std::uint8_t* bytes, std::size_t length) {
    constexpr std::size_t kRowBytes = 8;
    char text[16];
    for (std::size_t i = 0; i < length; ++i) {
        if (i % kRowBytes == 0) {
            snprintf(text, sizeof text, "%s%02d: ", i == 0 ? "" : "\n",
                     static_cast<int>(i / kRowBytes + 1));
            printUnflushed(text);
        }
        snprintf(text, sizeof text, "%02x ", bytes[i]);
        printUnflushed(text);
    }
    printLine("%s", "");
}
