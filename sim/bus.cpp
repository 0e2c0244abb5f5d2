#include "sim/bus.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "sim/identifier.h"

namespace sim {

namespace {

constexpr std::uint32_t kJoined = 0;
constexpr std::uint32_t kLeft = 1;
constexpr std::uint32_t kLastWord = 0;
constexpr vanid_t kController{};  // the second identifier of a transfer result

const char* targetName(std::uint32_t target) {
    switch (target) {
    case kArmTarget:
        return "arm";
    case kDspTarget:
        return "dsp";
    default:
        return "booster_arm";
    }
}

}  // namespace

Bus::Bus(const std::string& path)
    : file_(path),
      description_(file_.description()),
      trace_(description_.trace),
      devices_(description_.members.begin(), description_.members.end()),
      random_(description_.seed),
      queue_(makeEventQueue()),
      openedAt_(queue_->now()) {}

Bus::~Bus() {
    stop();
}

int Bus::openResult() const {
    return FaultCounter().next(description_.open);
}

void Bus::stop() {
    queue_->stop();
    const Lock lock(mutex_);
    stopped_ = true;
    for (Device& device : devices_) {
        if (device.isInstalling() && device.finishInstallation()) {
            storeInstalled(device);
        }
    }
}

Microseconds Bus::now() const {
    return queue_->now() - openedAt_;
}

bool Bus::isLinkActive() {
    const Lock lock(mutex_);
    return isLinkUp();
}

bool Bus::isLinkUp() const {
    return !stopped_ && now() >= description_.linkActiveAfter;
}

Device* Bus::findOnBus(const vanid_t& id) {
    const auto found = std::find_if(devices_.begin(), devices_.end(), [&](const Device& device) {
        return sameIdentifier(device.description().id, id);
    });
    const bool answers = isLinkUp() && found != devices_.end() && found->isOnBus();
    return answers ? &*found : nullptr;
}

// One device's answer, or kBroadcast for a request to all Orvins.
int Bus::request(const vanid_t& id, const std::function<int(Device&)>& carryOut) {
    if (!isBroadcast(id)) {
        Device* const device = findOnBus(id);
        return device == nullptr ? result::kNoAnswer : carryOut(*device);
    }
    if (!isLinkUp()) {
        return result::kNoAnswer;
    }
    for (Device& device : devices_) {
        if (device.isOrvin() && device.isOnBus()) {
            carryOut(device);
        }
    }
    return result::kBroadcast;
}

// A faulty call that claims a number of members has still filled in only those that there are.
int Bus::getMembers(vanid_t* members, int capacity) {
    const Lock lock(mutex_);
    const int fault = getMembersCalls_.next(description_.getMembers);
    if (fault < 0) {
        return fault;
    }
    if (!isLinkUp()) {
        return result::kNoAnswer;
    }
    int count = 0;
    for (const Device& device : devices_) {
        if (device.isOnBus() && count < capacity) {
            members[count++] = device.description().id;
        }
    }
    return fault > 0 ? fault : count;
}

int Bus::readType(const vanid_t& id, std::uint8_t& type) {
    const Lock lock(mutex_);
    return request(id, [&](Device& device) { return device.readType(type); });
}

bool Bus::isMaster(const vanid_t& id) {
    const Lock lock(mutex_);
    const Device* const device = findOnBus(id);
    return device != nullptr && device->description().type == kBusMasterType;
}

int Bus::readVersions(const vanid_t& id, Versions& versions, std::string& name) {
    const Lock lock(mutex_);
    return request(id, [&](Device& device) {
        if (!device.isOrvin()) {
            return result::kRefused;
        }
        name = device.description().name;
        return device.readVersions(versions);
    });
}

int Bus::writeRequest(const vanid_t& id, std::uint32_t target, std::uint32_t contentSize,
                      std::uint16_t checksum) {
    const Lock lock(mutex_);
    return request(
        id, [&](Device& device) { return device.writeRequest(target, contentSize, checksum); });
}

int Bus::sendData(const vanid_t& id, std::uint32_t packet, const std::uint8_t* bytes) {
    const Lock lock(mutex_);
    if (const int fault = dataCalls_.next(description_.data)) {
        return fault;
    }
    return request(id, [&](Device& device) {
        passPacketTo(device, packet, bytes);
        return 0;
    });
}

void Bus::passPacketTo(Device& device, std::uint32_t packet, const std::uint8_t* bytes) {
    const std::optional<PacketAnswer> answer = device.receive(packet, bytes);
    if (!answer) {
        return;
    }
    const DeviceTiming& timing = device.description().timing;
    Microseconds delay = timing.acknowledge;
    if (timing.acknowledgeJitter > 0) {
        delay += static_cast<Microseconds>(random_()) % (timing.acknowledgeJitter + 1);
    }
    for (int i = 1; i <= answer->times; ++i) {
        after(i * delay,
              [this, &device, answer] { reportTransferResult(device.description().id, *answer); });
    }
}

int Bus::checkImage(const vanid_t& id, std::uint32_t target, std::uint16_t& announced,
                    std::uint16_t& computed) {
    const Lock lock(mutex_);
    return request(id,
                   [&](Device& device) { return device.checkImage(target, announced, computed); });
}

int Bus::startUpdate(const vanid_t& id, std::uint32_t target) {
    const Lock lock(mutex_);
    return request(id, [&](Device& device) {
        const int result = device.startUpdate(target);
        if (result == 0) {
            after(device.description().timing.install,
                  [this, &device] { finishInstallation(device); });
        }
        return result;
    });
}

void Bus::finishInstallation(Device& device) {
    {
        const Lock lock(mutex_);
        if (device.finishInstallation()) {
            storeInstalled(device);
        }
        if (device.isOnBus()) {
            return;
        }
        after(device.description().timing.restart, [this, &device] { comeBack(device); });
    }
    reportBusChange(device.description().id, kLeft);
}

void Bus::comeBack(Device& device) {
    {
        const Lock lock(mutex_);
        if (!device.comeBack()) {
            return;
        }
    }
    for (int i = 0; i < device.description().faults.reportsBack; ++i) {
        reportBusChange(device.description().id, kJoined);
    }
}

void Bus::storeInstalled(const Device& device) {
    const auto member = static_cast<std::size_t>(&device - devices_.data());
    file_.storeVersions(member, device.versions());
    if (description_.store.empty()) {
        return;
    }
    std::error_code ignored;
    std::filesystem::create_directories(description_.store, ignored);
    const std::string path = description_.store + '/' + identifierText(device.description().id) +
                             '.' + targetName(device.target());
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(device.content().data()),
               static_cast<std::streamsize>(device.content().size()));
    file.close();
    if (!file) {
        std::fprintf(stderr, "'%s': cannot be written\n", path.c_str());
    }
}

void Bus::setTransferCallback(const CallbackSlot& slot) {
    const Lock lock(mutex_);
    transferSlot_ = slot;
}

void Bus::setBusChangeCallback(const CallbackSlot& slot) {
    const Lock lock(mutex_);
    busChangeSlot_ = slot;
}

void Bus::requestGoBack(const vanid_t& id, std::uint32_t packet) {
    {
        const Lock lock(mutex_);
        Device* const device = findOnBus(id);
        if (device == nullptr) {
            return;
        }
        device->discardFrom(packet);
    }
    reportTransferResult(id, PacketAnswer{kGoBackResult, packet, 1});
}

void Bus::reportTransferResult(const vanid_t& source, const PacketAnswer& answer) {
    CallbackSlot slot{};
    {
        const Lock lock(mutex_);
        slot = transferSlot_;
    }
    if (slot.function == nullptr) {
        return;
    }
    if (trace_.isOn()) {
        trace_.write(now(), "transferCallback(" + std::to_string(answer.result) + ", " +
                                identifierText(source) + ", " + std::to_string(answer.packet) +
                                ")");
    }
    const auto callback = reinterpret_cast<TransferCallback>(slot.function);
    callback(answer.result, slot.userArgument, source, kController, answer.packet, kLastWord);
}

void Bus::reportBusChange(const vanid_t& member, std::uint32_t event) {
    CallbackSlot slot{};
    {
        const Lock lock(mutex_);
        slot = busChangeSlot_;
    }
    if (slot.function == nullptr) {
        return;
    }
    if (trace_.isOn()) {
        trace_.write(now(), "busChangeCallback(" + identifierText(member) + ", " +
                                std::to_string(event) + ")");
    }
    const auto callback = reinterpret_cast<BusChangeCallback>(slot.function);
    callback(slot.userArgument, &member, event);
}

void Bus::after(Microseconds delay, Event event) {
    queue_->schedule(queue_->now() + delay, std::move(event));
}

}  // namespace sim
