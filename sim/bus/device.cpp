#include "sim/bus/device.h"

#include <algorithm>

#include "common/firmware_checksum.h"
#include "common/firmware_descriptor.h"
#include "common/firmware_target.h"
#include "common/transfer_result.h"

namespace sim {

namespace {

constexpr std::int32_t kNotPartOfImage = 34;           // a packet beyond the announced size
constexpr std::uint32_t kReservedBytes = 1024 * 1024;  // an announced size may be wrong

std::uint32_t packetsOf(std::uint32_t contentSize) {
    return static_cast<std::uint32_t>((std::uint64_t{contentSize} + kPacketBytes - 1) /
                                      kPacketBytes);
}

}  // namespace

bool Device::Transfer::isComplete() const {
    return received.size() == packetsOf(contentSize) &&
           std::all_of(received.begin(), received.end(), [](bool there) { return there; });
}

// The checksum of the received bytes. If a packet is missing, it always differs from the announced
// checksum, even if the bytes happen to match.
std::uint16_t Device::Transfer::computeChecksum() const {
    firmware::Checksum sum;
    for (std::size_t packet = 0; packet < received.size(); ++packet) {
        const std::size_t start = packet * kPacketBytes;
        if (received[packet]) {
            sum.add(&content[start], std::min(kPacketBytes, content.size() - start));
        }
    }
    if (sum.value() == checksum && !isComplete()) {
        return static_cast<std::uint16_t>(~checksum);
    }
    return sum.value();
}

Device::Device(const MemberDescription& memberDescription)
    : description(memberDescription),
      versions(description.versions),
      state(description.onBus ? State::Ready : State::Restarting),
      packetFaults(description.faults.packets) {}

Versions Device::readVersions() const {
    Versions current = versions;
    if (isInstalling() && isAuxiliaryTarget(target())) {
        current.dsp = 0;  // down until the new firmware runs
    }
    return current;
}

int Device::writeRequest(std::uint32_t target, std::uint32_t contentSize, std::uint16_t checksum) {
    if (state != State::Ready || versionOf(target) == nullptr) {
        return result::kRefused;
    }
    transfer = Transfer();
    transfer.open = true;
    transfer.target = target;
    transfer.contentSize = contentSize;
    transfer.checksum = checksum;
    transfer.content.reserve(std::min(contentSize, kReservedBytes));
    return 0;
}

PacketAnswers Device::receive(std::uint32_t number, const std::uint8_t* bytes, Microseconds now,
                              Microseconds usualDelay) {
    if (!transfer.open) {
        return {};
    }
    ++packetsSeen;
    if (now < busyUntil) {
        return {};
    }
    const PacketFault* const fault = takeFault(number);
    if (fault != nullptr && fault->kind == PacketFault::Kind::Lost) {
        return {};
    }
    busyUntil = now + description.timing.busy;
    if (description.faults.ignoresRepeats && has(number)) {
        return {};
    }
    if (!expects(number)) {
        return {{usualDelay, kNotPartOfImage, number}};
    }
    keepPacket(number, bytes);
    const PacketAnswer usual{usualDelay, kPacketReceived, number};
    return fault == nullptr ? PacketAnswers{usual} : answerWith(*fault, usual);
}

PacketAnswers Device::repeatAnswers(std::uint32_t number, const std::uint8_t* bytes) {
    PacketAnswers answers = description.replay->packets[packetsRepeated++];
    for (PacketAnswer& answer : answers) {
        answer.packet = answer.packet.value_or(number);
        if (answer.result == kPacketReceived && answer.packet == number && expects(number)) {
            keepPacket(number, bytes);
        }
        if (answer.result == kGoBack) {
            discardFrom(*answer.packet);
        }
    }
    return answers;
}

const std::vector<BusChange>* Device::takeChanges() {
    const auto& all = description.replay->changes;
    return changesTaken == all.size() ? nullptr : &all[changesTaken++];
}

bool Device::expects(std::uint32_t number) const {
    return transfer.open && number < packetsOf(transfer.contentSize);
}

bool Device::has(std::uint32_t number) const {
    return number < transfer.received.size() && transfer.received[number];
}

// The fault of the packet that has just arrived, or null. Counts it.
const PacketFault* Device::takeFault(std::uint32_t number) {
    const auto applies = [&](const PacketFault& fault) {
        return fault.times != 0U && fault.number.value_or(number) == number &&
               fault.packets.contains(packetsSeen);
    };
    const auto found = std::find_if(packetFaults.begin(), packetFaults.end(), applies);
    if (found == packetFaults.end()) {
        return nullptr;
    }
    if (found->times) {
        --*found->times;
    }
    return &*found;
}

void Device::keepPacket(std::uint32_t number, const std::uint8_t* bytes) {
    const std::size_t start = std::size_t{number} * kPacketBytes;
    const std::size_t end = std::min<std::size_t>(start + kPacketBytes, transfer.contentSize);
    if (transfer.content.size() < end) {
        transfer.content.resize(end);
    }
    if (transfer.received.size() <= number) {
        transfer.received.resize(std::size_t{number} + 1);
    }
    std::copy_n(bytes, end - start, &transfer.content[start]);
    transfer.received[number] = true;
    transfer.checked = false;
}

PacketAnswers Device::answerWith(const PacketFault& fault, const PacketAnswer& usual) {
    PacketAnswer answer = usual;
    switch (fault.kind) {
    case PacketFault::Kind::Lost:
        break;  // the packet did not arrive
    case PacketFault::Kind::Damaged:
        transfer.content[std::size_t{*usual.packet} * kPacketBytes] ^= 1;
        break;
    case PacketFault::Kind::Twice:
        return {usual, {2 * usual.delay, usual.result, usual.packet}};
    case PacketFault::Kind::Result:
        answer.result = static_cast<std::int32_t>(fault.value);
        break;
    case PacketFault::Kind::GoBack:
        answer = {usual.delay, kGoBack, static_cast<std::uint32_t>(fault.value)};
        discardFrom(*answer.packet);
        break;
    case PacketFault::Kind::Late:
        answer.delay += fault.value;
        break;
    }
    return {answer};
}

void Device::discardFrom(std::uint32_t packet) {
    if (!transfer.open) {
        return;
    }
    transfer.checked = false;
    if (packet < transfer.received.size()) {
        transfer.received.resize(packet);
        transfer.content.resize(std::size_t{packet} * kPacketBytes);
    }
}

int Device::checkImage(std::uint32_t target, std::uint16_t& announced, std::uint16_t& computed) {
    if (!transfer.open || target != transfer.target) {
        return result::kRefused;
    }
    announced = transfer.checksum;
    computed = transfer.computeChecksum();
    transfer.checked = announced == computed;
    return 0;
}

int Device::startUpdate(std::uint32_t target) {
    if (!transfer.open || !transfer.checked || target != transfer.target) {
        return result::kRefused;
    }
    transfer.open = false;
    state = State::Installing;
    ++installationNumber;
    return 0;
}

bool Device::finishInstallation() {
    const bool restarts = !isAuxiliaryTarget(target());
    if (description.faults.neverReturns) {
        // The device stays off the bus, or its DSP stays down.
        state = restarts ? State::Restarting : State::Installing;
        return false;
    }
    state = restarts ? State::Restarting : State::Ready;
    return takesNewFirmware();
}

void Device::installAtOnce() {
    if (isInstalling()) {
        takesNewFirmware();
        state = State::Ready;
    }
}

bool Device::takesNewFirmware() {
    ++installations;
    const KeepsOldVersion keeps = description.faults.keepsOldVersion;
    if (keeps == KeepsOldVersion::Always ||
        (keeps == KeepsOldVersion::Once && installations == 1)) {
        return false;
    }
    const auto found = firmware::Descriptor::decode(content().data(), content().size());
    if (!found || found->target != target()) {
        return false;  // not firmware for this processor: the old one keeps running
    }
    *versionOf(target()) = found->version;
    return true;
}

bool Device::comeBack() {
    if (description.faults.neverReturns || isOnBus()) {
        return false;
    }
    state = State::Ready;
    return true;
}

void Device::losePower() {
    state = State::Restarting;
    transfer = Transfer();
    ++installationNumber;
}

std::uint32_t* Device::versionOf(std::uint32_t target) {
    switch (static_cast<FirmwareTarget>(target)) {
    case FirmwareTarget::Arm:
        return &versions.arm;
    case FirmwareTarget::Dsp:
        return &versions.dsp;
    case FirmwareTarget::BoosterArm:
        return &versions.boosterArm;
    }
    return nullptr;
}

}  // namespace sim
