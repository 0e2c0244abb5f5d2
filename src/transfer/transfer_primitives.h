// The four steps of the image transfer protocol, each one call to the bus library. They lock
// nothing and retry nothing: dropping a device and reporting it is the transfer session's business.
#ifndef TRANSFER_TRANSFER_PRIMITIVES_H
#define TRANSFER_TRANSFER_PRIMITIVES_H

#include <cstddef>
#include <cstdint>

#include "talm/vanid.h"

struct BusSession;
struct FirmwareImageHeader;

// Bytes of content in a data packet: always all of them, as the library takes no length.
constexpr std::size_t ImageChunkSize = 64;

// What the library answers to a request to all devices. For a request to one it is a failure.
constexpr int kSentToAll = -2;

// Addresses every device.
extern const vanid_t broadcastVanid;

// Announces the image to a device. Prints the library's result when it is a failure.
[[nodiscard]] bool initializeTransfer(const BusSession& session, const vanid_t& destination,
                                      const FirmwareImageHeader& header);

// Sends one packet of ImageChunkSize bytes. Returns the library's result unchanged, which tells
// whether it took the packet; what the devices make of it arrives through the transfer callback.
[[nodiscard]] int sendChunk(const BusSession& session, const vanid_t& destination,
                            const std::uint8_t* content, std::uint32_t packetNumber);

// True when the device has the whole image: both checksums that it answers are equal.
[[nodiscard]] bool verifyData(const BusSession& session, const vanid_t& destination,
                              std::uint32_t device);

// Tells a device to install the image.
[[nodiscard]] bool startUpdate(const BusSession& session, const vanid_t& destination,
                               std::uint32_t device);

// Prints bytes in numbered rows of eight. A diagnostic aid that no step of the upgrade uses.
void dumpHex(const std::uint8_t* bytes, std::size_t length);

#endif
