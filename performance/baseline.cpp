// The smallest program that can do a transfer: it sends packets from memory, polls as the tool
// does, and does nothing else. The tool is measured against it.
//
//     baseline CONNECTION PACKETS
//
// The connection begins with the number of devices, as measured_bus.cpp has it.

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "talm/talm_api.h"

namespace {

std::atomic<std::uint64_t> acknowledged;

void countAcknowledgement(std::int32_t result, void*, vanid_t, vanid_t, std::uint32_t,
                          std::uint32_t) {
    if (result == 0) {
        ++acknowledged;
    }
}

void send(TalmApiHandle handle, std::uint64_t devices, std::uint32_t packets) {
    const std::uint8_t content[64] = {};
    for (std::uint32_t packet = 0; packet < packets; ++packet) {
        std::uint32_t outputs[2];
        ImageTransfer_data(handle, {}, packet, content, &outputs[0], &outputs[1]);
        while (acknowledged.load(std::memory_order_acquire) < devices * (packet + 1)) {
            usleep(1'000);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const TalmApiHandle handle = TalmApiInitialize();
    if (argc != 3 || TalmApiOpen(handle, argv[1], 0) != 0) {
        std::fprintf(stderr, "usage: baseline CONNECTION PACKETS\n");
        return 1;
    }
    const CallbackSlot slot{reinterpret_cast<void (*)()>(countAcknowledgement), nullptr};
    TalmApiSetCallback(handle, 2, 255, 2, &slot, 0);
    send(handle, std::strtoull(argv[1], nullptr, 10),
         static_cast<std::uint32_t>(std::strtoul(argv[2], nullptr, 10)));
    TalmApiClose(handle);
    return 0;
}
