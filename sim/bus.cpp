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
constexpr std::size_t kReportParts = 4;
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

Bus::Bus(BusDescription description, StoreVersions storeVersions)
    : description_(std::move(description)),
      storeVersions_(std::move(storeVersions)),
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
    const Microseconds time = now();
    const auto covers = [time](const LinkDrop& drop) {
        return drop.at <= time && time < drop.at + drop.duration;
    };
    return !stopped_ && time >= description_.linkActiveAfter && time >= linkDownUntil_ &&
           std::none_of(description_.linkDrops.begin(), description_.linkDrops.end(), covers);
}

Device* Bus::find(const vanid_t& id) {
    const auto found = std::find_if(devices_.begin(), devices_.end(), [&](const Device& device) {
        return sameIdentifier(device.description().id, id);
    });
    return found == devices_.end() ? nullptr : &*found;
}

Device* Bus::findOnBus(const vanid_t& id) {
    Device* const device = isLinkUp() ? find(id) : nullptr;
    return device != nullptr && device->isOnBus() ? device : nullptr;
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

// A faulty call that claims a number of members claims at most those that there are, since the
// caller takes each for a member. There may be more than it has room for.
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
        if (!device.isOnBus()) {
            continue;
        }
        if (count < capacity) {
            members[count] = device.description().id;
        }
        ++count;
    }
    return std::min(count, fault > 0 ? fault : capacity);
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
    const auto reports = std::make_shared<Reports>();
    reports->reserve(isBroadcast(id) ? devices_.size() : 1);
    int result = 0;
    {
        const Lock lock(mutex_);
        if (const int fault = dataCalls_.next(description_.data)) {
            return fault;
        }
        const Microseconds sent = queue_->now();
        result = request(id, [&](Device& device) {
            passPacketTo(device, packet, bytes, sent, *reports);
            return 0;
        });
    }
    scheduleReports(reports);
    return result;
}

// In about kReportParts events instead of one for each answer, whose memory would cost the call
// time; in more when reports are due at different times. Several threads report at once; a callback
// that blocks holds up the rest of its part. Called without the lock, which a report takes.
void Bus::scheduleReports(const std::shared_ptr<const Reports>& reports) {
    const std::size_t partSize = (reports->size() + kReportParts - 1) / kReportParts;
    std::vector<TimedEvent> events;
    for (auto first = reports->begin(); first != reports->end();) {
        const auto sameTime = [first](const Report& each) { return each.due == first->due; };
        const auto left = static_cast<std::size_t>(reports->end() - first);
        const auto limit = first + static_cast<std::ptrdiff_t>(std::min(partSize, left));
        const auto last = std::find_if_not(first, limit, sameTime);
        events.push_back({first->due, [this, reports, first, last] {
                              std::for_each(first, last, [this](const Report& each) {
                                  reportTransferResult(each.device->description().id, each.answer);
                              });
                          }});
        first = last;
    }
    queue_->schedule(std::move(events));
}

std::optional<PacketFault> Bus::takePacketFault(const Device& device) {
    const auto found = packetFaults_.find(&device);
    if (found == packetFaults_.end()) {
        return std::nullopt;
    }
    const PacketFault fault = found->second;
    const bool goesOn = fault.kind == PacketFault::Kind::Lost && --found->second.value > 0;
    if (!goesOn) {
        packetFaults_.erase(found);
    }
    return fault;
}

void Bus::passPacketTo(Device& device, std::uint32_t packet, const std::uint8_t* bytes,
                       Microseconds sent, Reports& reports) {
    const std::optional<PacketFault> fault = takePacketFault(device);
    if (fault && fault->kind == PacketFault::Kind::Lost) {
        return;
    }
    std::optional<PacketAnswer> answer = device.receive(packet, bytes);
    if (!answer) {
        return;
    }
    Microseconds delay = answerDelay(device);
    if (fault) {
        delay += disturbAnswer(device, *fault, *answer);
    }
    for (int i = 1; i <= answer->times; ++i) {
        reports.push_back({sent + i * delay, &device, *answer});
    }
}

Microseconds Bus::answerDelay(const Device& device) {
    const DeviceTiming& timing = device.description().timing;
    if (timing.acknowledgeJitter == 0) {
        return timing.acknowledge;
    }
    return timing.acknowledge +
           static_cast<Microseconds>(random_()) % (timing.acknowledgeJitter + 1);
}

// Returns by how much later the answer comes.
Microseconds Bus::disturbAnswer(Device& device, const PacketFault& fault, PacketAnswer& answer) {
    switch (fault.kind) {
    case PacketFault::Kind::Answer:
        answer.result = static_cast<std::int32_t>(fault.value);
        return 0;
    case PacketFault::Kind::GoBack:
        answer = {kGoBackResult, static_cast<std::uint32_t>(fault.value), 1};
        device.discardFrom(answer.packet);
        return 0;
    case PacketFault::Kind::Late:
        return fault.value;
    case PacketFault::Kind::Twice:
        answer.times = 2;
        return 0;
    case PacketFault::Kind::Lost:
        return 0;
    }
    return 0;
}

int Bus::checkImage(const vanid_t& id, std::uint32_t target, std::uint16_t& announced,
                    std::uint16_t& computed) {
    Microseconds duration = 0;
    int answer = 0;
    {
        const Lock lock(mutex_);
        answer = request(id, [&](Device& device) {
            duration = device.description().timing.check;
            return device.checkImage(target, announced, computed);
        });
    }
    queue_->sleep(duration);
    return answer;
}

int Bus::startUpdate(const vanid_t& id, std::uint32_t target) {
    const Lock lock(mutex_);
    return request(id, [&](Device& device) {
        const int result = device.startUpdate(target);
        if (result == 0) {
            after(device.description().timing.install,
                  [this, &device, turn = device.turn()] { finishInstallation(device, turn); });
        }
        return result;
    });
}

void Bus::finishInstallation(Device& device, std::uint32_t turn) {
    {
        const Lock lock(mutex_);
        if (device.turn() != turn) {
            return;  // interrupted
        }
        if (device.finishInstallation()) {
            storeInstalled(device);
        }
        if (device.isOnBus()) {
            return;
        }
        after(device.description().timing.restart,
              [this, &device, turn] { comeBack(device, turn); });
    }
    reportBusChange(device.description().id, kLeft);
}

void Bus::comeBack(Device& device, std::uint32_t turn) {
    {
        const Lock lock(mutex_);
        if (device.turn() != turn || !device.comeBack()) {
            return;
        }
    }
    for (int i = 0; i < device.description().faults.reportsBack; ++i) {
        reportBusChange(device.description().id, kJoined);
    }
}

void Bus::storeInstalled(const Device& device) {
    const auto member = static_cast<std::size_t>(&device - devices_.data());
    if (storeVersions_) {
        storeVersions_(member, device.versions());
    }
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

void Bus::interrupt(const vanid_t& id, Microseconds duration) {
    const Lock lock(mutex_);
    Device* const device = find(id);
    if (device == nullptr || !device->isOnBus()) {
        return;
    }
    device->losePower();
    after(0, [this, device] { reportBusChange(device->description().id, kLeft); });
    after(duration, [this, device, turn = device->turn()] { comeBack(*device, turn); });
}

void Bus::disturbNextPacket(const vanid_t& id, const PacketFault& fault) {
    const Lock lock(mutex_);
    if (const Device* const device = find(id)) {
        packetFaults_[device] = fault;
    }
}

void Bus::dropLink(Microseconds duration) {
    const Lock lock(mutex_);
    linkDownUntil_ = now() + duration;
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
    queue_->schedule({{queue_->now() + delay, std::move(event)}});
}

std::shared_ptr<Bus> openBusFile(const std::string& path) {
    const auto file = std::make_shared<BusFile>(path);
    return std::make_shared<Bus>(file->description(),
                                 [file](std::size_t member, const Versions& versions) {
                                     file->storeVersions(member, versions);
                                 });
}

}  // namespace sim
