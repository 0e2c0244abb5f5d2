#include "sim/bus/bus.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "common/firmware_target.h"
#include "common/transfer_result.h"
#include "common/vanid_text.h"

namespace sim {

namespace {

constexpr std::uint32_t kJoined = 0;
constexpr std::uint32_t kLeft = 1;
constexpr std::uint32_t kLastWord = 0;
constexpr vanid_t kController{};  // the second identifier of a transfer result

const char* targetName(std::uint32_t target) {
    switch (static_cast<FirmwareTarget>(target)) {
    case FirmwareTarget::Arm:
        return "arm";
    case FirmwareTarget::Dsp:
        return "dsp";
    case FirmwareTarget::BoosterArm:
        return "booster_arm";
    }
    return "unknown";
}

}  // namespace

Bus::Bus(BusDescription busDescription, StoreMember store)
    : description(std::move(busDescription)),
      storeMember(std::move(store)),
      queue(makeEventQueue()),
      openedAt(queue->now()),
      callFaults(description.callFaults, *queue),
      devices(description.members.begin(), description.members.end()),
      random(description.seed),
      linkDownUntil(description.linkActiveAfter) {
    for (Device& device : devices) {
        if (const auto* const changes = device.takeChanges()) {
            reportLater(device, *changes);
        }
    }
}

Bus::~Bus() {
    stop();
}

void Bus::stop() {
    queue->stop();
    const Lock lock(mutex);
    stopped = true;
    for (Device& device : devices) {
        if (device.isInstalling()) {
            endInstallation(device);
        }
    }
}

Microseconds Bus::now() const {
    return queue->now() - openedAt;
}

bool Bus::isLinkActive() {
    const Lock lock(mutex);
    return isLinkUp();
}

bool Bus::isLinkUp() const {
    const Microseconds time = now();
    const auto covers = [time](const LinkDrop& drop) {
        return drop.at <= time && time < drop.at + drop.duration;
    };
    return !stopped && time >= linkDownUntil &&
           std::none_of(description.linkDrops.begin(), description.linkDrops.end(), covers);
}

Device* Bus::find(const vanid_t& id) {
    const auto found = std::find_if(devices.begin(), devices.end(), [&](const Device& device) {
        return isSameVanid(device.description.id, id);
    });
    return found == devices.end() ? nullptr : &*found;
}

Device* Bus::findOnBus(const vanid_t& id) {
    Device* const device = isLinkUp() ? find(id) : nullptr;
    return device != nullptr && device->isOnBus() ? device : nullptr;
}

// The device's answer, or kBroadcast for the broadcast identifier.
int Bus::request(const vanid_t& id, const std::function<int(Device&)>& carryOut) {
    if (!isBroadcastVanid(id)) {
        Device* const device = findOnBus(id);
        return device == nullptr ? result::kNoAnswer : carryOut(*device);
    }
    if (!isLinkUp()) {
        return result::kNoAnswer;
    }
    for (Device& device : devices) {
        if (device.isOrvin() && device.isOnBus()) {
            carryOut(device);
        }
    }
    return result::kBroadcast;
}

int Bus::getMembers(std::vector<vanid_t>& members, int capacity) {
    const Lock lock(mutex);
    if (!isLinkUp()) {
        return result::kNoAnswer;
    }
    for (const Device& device : devices) {
        if (device.isOnBus() && static_cast<int>(members.size()) < capacity) {
            members.push_back(device.description.id);
        }
    }
    return static_cast<int>(members.size());
}

int Bus::readType(const vanid_t& id, std::uint8_t& type) {
    const Lock lock(mutex);
    return request(id, [&](const Device& device) {
        type = device.description.type;
        return 0;
    });
}

bool Bus::isMaster(const vanid_t& id) {
    const Lock lock(mutex);
    const Device* const device = findOnBus(id);
    return device != nullptr && device->description.type == kBusMasterType;
}

int Bus::readVersions(const vanid_t& id, Versions& versions, std::string& name) {
    const Lock lock(mutex);
    return request(id, [&](const Device& device) {
        if (!device.isOrvin()) {
            return result::kRefused;
        }
        name = device.description.name;
        versions = device.readVersions();
        return 0;
    });
}

int Bus::writeRequest(const vanid_t& id, std::uint32_t target, std::uint32_t contentSize,
                      std::uint16_t checksum) {
    const Lock lock(mutex);
    return request(
        id, [&](Device& device) { return device.writeRequest(target, contentSize, checksum); });
}

// All devices receive a broadcast packet at the same time. Each packet advances the replay scripts,
// even if it does not reach the device.
int Bus::sendData(const vanid_t& id, std::uint32_t packet, const std::uint8_t* bytes) {
    const Lock lock(mutex);
    const int answer = request(id, [&](Device& device) {
        if (!device.hasAnswersLeft()) {
            reportLater(device, device.receive(packet, bytes, now(), answerDelay(device)));
        }
        return 0;
    });
    for (Device& device : devices) {
        if (device.hasAnswersLeft()) {
            reportLater(device, device.repeatAnswers(packet, bytes));
        }
    }
    return answer;
}

void Bus::reportLater(const Device& device, const PacketAnswers& answers) {
    for (const PacketAnswer& answer : answers) {
        after(answer.delay,
              [this, id = device.description.id, answer] { reportTransferResult(id, answer); });
    }
}

void Bus::reportLater(const Device& device, const std::vector<BusChange>& changes) {
    for (const BusChange& change : changes) {
        after(change.delay, [this, id = device.description.id, event = change.event] {
            reportBusChange(id, event);
        });
    }
}

Microseconds Bus::answerDelay(const Device& device) {
    const DeviceTiming& timing = device.description.timing;
    if (timing.acknowledgeJitter == 0) {
        return timing.acknowledge;
    }
    return timing.acknowledge +
           static_cast<Microseconds>(random()) % (timing.acknowledgeJitter + 1);
}

int Bus::checkImage(const vanid_t& id, std::uint32_t target, std::uint16_t& announced,
                    std::uint16_t& computed) {
    Microseconds duration = 0;
    int answer = 0;
    {
        const Lock lock(mutex);
        answer = request(id, [&](Device& device) {
            duration = device.description.timing.check;
            return device.checkImage(target, announced, computed);
        });
    }
    queue->sleep(duration);
    return answer;
}

int Bus::startUpdate(const vanid_t& id, std::uint32_t target) {
    const Lock lock(mutex);
    return request(id, [&](Device& device) {
        const int result = device.startUpdate(target);
        if (const auto* const changes = device.takeChanges()) {
            reportLater(device, *changes);
            device.installAtOnce();
        } else if (result == 0) {
            after(device.description.timing.install,
                  [this, &device, installation = device.installation()] {
                      finishInstallation(device, installation);
                  });
        }
        return result;
    });
}

void Bus::finishInstallation(Device& device, std::uint32_t installation) {
    {
        const Lock lock(mutex);
        if (device.installation() != installation) {
            return;  // interrupted
        }
        endInstallation(device);
        if (device.isOnBus()) {
            return;
        }
        after(device.description.timing.restart,
              [this, &device, installation] { comeBack(device, installation); });
    }
    reportBusChange(device.description.id, kLeft);
}

void Bus::comeBack(Device& device, std::uint32_t installation) {
    {
        const Lock lock(mutex);
        if (device.installation() != installation || !device.comeBack()) {
            return;
        }
    }
    for (int i = 0; i < device.description.faults.reportsBack; ++i) {
        reportBusChange(device.description.id, kJoined);
    }
}

void Bus::endInstallation(Device& device) {
    const bool hasNewFirmware = device.finishInstallation();
    if (storeMember && (hasNewFirmware || device.isGone())) {
        const auto member = static_cast<std::size_t>(&device - devices.data());
        storeMember(member, device.installedVersions(), !device.isGone());
    }
    if (hasNewFirmware && !description.store.empty()) {
        storeContent(device);
    }
}

void Bus::storeContent(const Device& device) const {
    std::error_code ignored;
    std::filesystem::create_directories(description.store, ignored);
    const std::string path = description.store + '/' + formatVanid(device.description.id) + '.' +
                             targetName(device.target());
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(device.content().data()),
               static_cast<std::streamsize>(device.content().size()));
    file.close();
    if (!file) {
        std::fprintf(stderr, "'%s': cannot be written\n", path.c_str());
    }
}

void Bus::setTransferCallback(const CallbackSlot& slot) {
    const Lock lock(mutex);
    transferSlot = slot;
}

void Bus::setBusChangeCallback(const CallbackSlot& slot) {
    const Lock lock(mutex);
    busChangeSlot = slot;
}

void Bus::requestGoBack(const vanid_t& id, std::uint32_t packet) {
    {
        const Lock lock(mutex);
        Device* const device = findOnBus(id);
        if (device == nullptr) {
            return;
        }
        device->discardFrom(packet);
    }
    reportTransferResult(id, PacketAnswer{0, kGoBack, packet});
}

void Bus::interrupt(const vanid_t& id, Microseconds duration) {
    const Lock lock(mutex);
    Device* const device = find(id);
    if (device == nullptr || !device->isOnBus()) {
        return;
    }
    device->losePower();
    after(0, [this, device] { reportBusChange(device->description.id, kLeft); });
    after(duration, [this, device, installation = device->installation()] {
        comeBack(*device, installation);
    });
}

void Bus::addFault(const vanid_t& id, const PacketFault& fault) {
    const Lock lock(mutex);
    if (Device* const device = find(id)) {
        device->addFault(fault);
    }
}

void Bus::dropLink(Microseconds duration) {
    const Lock lock(mutex);
    linkDownUntil = std::max(linkDownUntil, now() + duration);
}

void Bus::reportTransferResult(const vanid_t& source, const PacketAnswer& answer) {
    CallbackSlot slot{};
    {
        const Lock lock(mutex);
        slot = transferSlot;
    }
    if (slot.function == nullptr) {
        return;
    }
    const std::uint32_t packet = *answer.packet;
    Call call(Function::TransferCallback, source, {answer.result, packet});
    pass(call, interceptors, [&] {
        reinterpret_cast<TransferCallback>(slot.function)(answer.result, slot.userArgument, source,
                                                          kController, packet, kLastWord);
        return 0;
    });
}

void Bus::reportBusChange(const vanid_t& member, std::uint32_t event) {
    CallbackSlot slot{};
    {
        const Lock lock(mutex);
        slot = busChangeSlot;
    }
    if (slot.function == nullptr) {
        return;
    }
    Call call(Function::BusChangeCallback, member, {event});
    pass(call, interceptors, [&] {
        reinterpret_cast<BusChangeCallback>(slot.function)(slot.userArgument, &member, event);
        return 0;
    });
}

void Bus::after(Microseconds delay, Event event) {
    queue->schedule(queue->now() + delay, std::move(event));
}

}  // namespace sim
