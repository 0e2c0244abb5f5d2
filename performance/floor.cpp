#include "performance/floor.h"

#include <unistd.h>

#include <stdexcept>

#include "bus/vanid_text.h"
#include "image/firmware_image.h"
#include "performance/measured_bus.h"
#include "transfer/timer_slack.h"
#include "transfer/transfer_primitives.h"

namespace {

constexpr useconds_t kPollMicroseconds = 1'000;

void countAcknowledgement(std::int32_t result, void* counter, vanid_t, vanid_t, std::uint32_t,
                          std::uint32_t) {
    if (result == 0) {
        ++*static_cast<std::atomic<std::uint64_t>*>(counter);
    }
}

void setCallback(const BusSession& session, const CallbackSlot& slot) {
    TalmApiSetCallback(session.handle, 2, 255, 2, &slot, 0);
}

}  // namespace

Floor::Floor(const MeasuredBus& bus, FirmwareImage& image)
    : bus_(bus), content_(image.getHeader().contentSize) {
    if (image.read(content_.data(), content_.size()) != static_cast<ssize_t>(content_.size())) {
        throw std::runtime_error("the image cannot be read");
    }
    for (const std::string& device : bus.devices) {
        vanid_t id{};
        if (!parseVanid(id, device) || !initializeTransfer(bus.session, id, image.getHeader())) {
            throw std::runtime_error("the image cannot be announced");
        }
    }
    const TransferCallback callback = countAcknowledgement;
    setCallback(bus.session, {reinterpret_cast<void (*)()>(callback), &acknowledged_});
}

Floor::~Floor() {
    setCallback(bus_.session, {nullptr, nullptr});
}

void Floor::send() {
    const TimerSlack slack;  // the same waits as the tool's
    const std::size_t packets = content_.size() / ImageChunkSize;
    for (std::size_t packet = 0; packet < packets; ++packet) {
        if (sendChunk(bus_.session, broadcastVanid, &content_[packet * ImageChunkSize],
                      static_cast<std::uint32_t>(packet)) != kSentToAll) {
            throw std::runtime_error("a packet of the floor's was refused");
        }
        const std::uint64_t expected = bus_.devices.size() * (packet + 1);
        while (acknowledged_.load(std::memory_order_acquire) < expected) {
            usleep(kPollMicroseconds);
        }
    }
}
