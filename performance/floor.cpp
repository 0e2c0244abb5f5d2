// The barest transfer that could do it, which the tool is measured against: the same packets from
// memory, the same polls, and nothing else.
//
//     floor CONNECTION IMAGE            the floor's transfer
//     floor CONNECTION IMAGE ROUNDS     as many of it and of the tool's, in turns; the floor's time
//                                       by the tool's goes to standard error, one line for a round

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "bus/bus_members.h"
#include "core/bus_session.h"
#include "core/error_info.h"
#include "group/orvin_group.h"
#include "image/firmware_image.h"
#include "status/message_writer.h"
#include "transfer/timer_slack.h"
#include "transfer/transfer_primitives.h"

namespace {

struct Transfer {
    BusSession session;
    std::list<std::string> devices;
    ErrorInfo error;
    FirmwareImage image{&error};
};

void countAcknowledgement(std::int32_t result, void* counter, vanid_t, vanid_t, std::uint32_t,
                          std::uint32_t) {
    if (result == 0) {
        ++*static_cast<std::atomic<std::uint64_t>*>(counter);
    }
}

void setCallback(const BusSession& session, const CallbackSlot& slot) {
    TalmApiSetCallback(session.handle, 2, 255, 2, &slot, 0);
}

void sendByFloor(Transfer& transfer) {
    std::vector<std::uint8_t> content(transfer.image.getHeader().contentSize);
    transfer.image.seek(0);
    if (transfer.image.read(content.data(), content.size()) < 0) {
        throw std::runtime_error("the image cannot be read");
    }
    static std::atomic<std::uint64_t> acknowledged;  // outlives the callbacks
    acknowledged = 0;
    // To all devices, so the library answers otherwise than to one.
    static_cast<void>(
        initializeTransfer(transfer.session, broadcastVanid, transfer.image.getHeader()));
    const TransferCallback callback = countAcknowledgement;
    setCallback(transfer.session, {reinterpret_cast<void (*)()>(callback), &acknowledged});
    const TimerSlack slack;  // the same waits as the tool's
    const std::size_t packets = content.size() / ImageChunkSize;
    for (std::size_t packet = 0; packet < packets; ++packet) {
        if (sendChunk(transfer.session, broadcastVanid, &content[packet * ImageChunkSize],
                      static_cast<std::uint32_t>(packet)) != kSentToAll) {
            throw std::runtime_error("a packet of the floor's was refused");
        }
        const std::uint64_t expected = transfer.devices.size() * (packet + 1);
        while (acknowledged.load(std::memory_order_acquire) < expected) {
            usleep(1'000);
        }
    }
    setCallback(transfer.session, {nullptr, nullptr});
}

void sendByTool(Transfer& transfer) {
    OrvinGroup group(&transfer.session, false);
    for (const std::string& device : transfer.devices) {
        group.addOrvin(device);
    }
    group.initializeTransfers(transfer.image);
    if (group.transferData(transfer.image) != 0 ||
        group.count() != static_cast<int>(transfer.devices.size())) {
        throw std::runtime_error("the tool's transfer failed");
    }
}

double seconds(void (*send)(Transfer&), Transfer& transfer) {
    const auto start = std::chrono::steady_clock::now();
    send(transfer);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void compare(Transfer& transfer, int rounds) {
    MessageWriter::init("");
    for (int round = 0; round < rounds; ++round) {
        const bool floorFirst = round % 2 == 0;
        const double first = seconds(floorFirst ? sendByFloor : sendByTool, transfer);
        const double second = seconds(floorFirst ? sendByTool : sendByFloor, transfer);
        std::fprintf(stderr, "%.4f\n", floorFirst ? first / second : second / first);
    }
}

}  // namespace

int main(int argc, char** argv) try {
    Transfer transfer;
    transfer.session.handle = TalmApiInitialize();
    if (argc < 3 || TalmApiOpen(transfer.session.handle, argv[1], 0) != 0 ||
        !transfer.image.open(argv[2])) {
        throw std::runtime_error("usage: floor CONNECTION IMAGE [ROUNDS]");
    }
    describeBusMembers(transfer.session, transfer.devices, kOrvinsOnly);
    if (argc > 3) {
        compare(transfer, std::atoi(argv[3]));
    } else {
        sendByFloor(transfer);
    }
    TalmApiCleanup(transfer.session.handle);
    TalmApiClose(transfer.session.handle);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "floor: %s\n", error.what());
    return 1;
}
