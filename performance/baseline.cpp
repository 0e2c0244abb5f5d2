// The smallest program that can do a transfer: it sends the packets from memory, polls as the tool
// does, and does nothing else. The tool is measured against it.
//
//     baseline CONNECTION IMAGE

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

#include "bus/bus_members.h"
#include "core/bus_session.h"
#include "core/error_info.h"
#include "image/firmware_image.h"
#include "transfer/timer_slack.h"
#include "transfer/transfer_primitives.h"

namespace {

std::atomic<std::uint64_t> acknowledged;

void countAcknowledgement(std::int32_t result, void*, vanid_t, vanid_t, std::uint32_t,
                          std::uint32_t) {
    if (result == 0) {
        ++acknowledged;
    }
}

void setCallback(const BusSession& session, TransferCallback callback) {
    const CallbackSlot slot{reinterpret_cast<void (*)()>(callback), nullptr};
    TalmApiSetCallback(session.handle, 2, 255, 2, &slot, 0);
}

void send(const BusSession& session, std::size_t devices, FirmwareImage& image) {
    std::vector<std::uint8_t> content(image.getHeader().contentSize);
    image.seek(0);
    if (image.read(content.data(), content.size()) < 0) {
        throw std::runtime_error("the image cannot be read");
    }
    // To all devices, so the library does not answer as it answers to one.
    static_cast<void>(initializeTransfer(session, broadcastVanid, image.getHeader()));
    setCallback(session, countAcknowledgement);
    const TimerSlack slack;  // the same waits as the tool's
    const std::size_t packets = content.size() / ImageChunkSize;
    for (std::size_t packet = 0; packet < packets; ++packet) {
        if (sendChunk(session, broadcastVanid, &content[packet * ImageChunkSize],
                      static_cast<std::uint32_t>(packet)) != kSentToAll) {
            throw std::runtime_error("the bus refused a packet");
        }
        while (acknowledged.load(std::memory_order_acquire) < devices * (packet + 1)) {
            usleep(1'000);
        }
    }
    setCallback(session, nullptr);
}

}  // namespace

int main(int argc, char** argv) try {
    BusSession session;
    ErrorInfo error;
    FirmwareImage image(&error);
    session.handle = TalmApiInitialize();
    if (argc != 3 || TalmApiOpen(session.handle, argv[1], 0) != 0 || !image.open(argv[2])) {
        throw std::runtime_error("usage: baseline CONNECTION IMAGE");
    }
    std::list<std::string> devices;
    describeBusMembers(session, devices, kOrvinsOnly);
    send(session, devices.size(), image);
    TalmApiCleanup(session.handle);
    TalmApiClose(session.handle);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "baseline: %s\n", error.what());
    return 1;
}
