#include "sim/device.h"

#include <algorithm>

#include "firmware/checksum.h"
#include "firmware/descriptor.h"

namespace sim {

namespace {

constexpr std::int32_t kNotPartOfImage = 34;           // a packet beyond the announced size
constexpr std::uint32_t kReservedBytes = 1024 * 1024;  // an announced size need not be a true one

std::uint32_t packetsOf(std::uint32_t contentSize) {
    return static_cast<std::uint32_t>((std::uint64_t{contentSize} + kPacketBytes - 1) /
                                      kPacketBytes);
}

}  // namespace

bool Device::Transfer::isComplete() const {
    return received.size() == packetsOf(contentSize) &&
           std::all_of(received.begin(), received.end(), [](bool there) { return there; });
}

// Over the bytes that really arrived. The sum of too few of them may be right by chance; a device
// that knows it has not all of them does not answer with it.
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

Device::Device(const MemberDescription& description)
    : description_(description),
      versions_(description.versions),
      faultsStrikePackets_(description.faults.strikePackets()) {
    for (const GoBack& fault : description_.faults.goBack) {
        goBackTimes_.push_back(fault.times);
    }
}

int Device::readType(std::uint8_t& type) {
    if (const int fault = typeQueries_.next(description_.faults.typeQuery)) {
        return fault;
    }
    type = description_.type;
    return 0;
}

int Device::readVersions(Versions& versions) {
    if (const int fault = versionQueries_.next(description_.faults.versionQuery)) {
        return fault;
    }
    versions = versions_;
    if (isInstalling() && target() != kArmTarget) {
        versions.dsp = 0;  // not up until the new firmware is
    }
    return 0;
}

int Device::writeRequest(std::uint32_t target, std::uint32_t contentSize, std::uint16_t checksum) {
    if (const int fault = writeRequests_.next(description_.faults.writeRequest)) {
        return fault;
    }
    if (state_ != State::Ready || versionOf(target) == nullptr) {
        return result::kRefused;
    }
    transfer_ = Transfer();
    transfer_.open = true;
    transfer_.target = target;
    transfer_.contentSize = contentSize;
    transfer_.checksum = checksum;
    transfer_.content.reserve(std::min(contentSize, kReservedBytes));
    return 0;
}

std::optional<PacketAnswer> Device::receive(std::uint32_t number, const std::uint8_t* bytes) {
    if (!transfer_.open) {
        return std::nullopt;
    }
    ++packetsSeen_;
    if (faultsStrikePackets_ && description_.faults.losesPackets.contains(packetsSeen_)) {
        return std::nullopt;
    }
    if (number >= packetsOf(transfer_.contentSize)) {
        return PacketAnswer{kNotPartOfImage, number, 1};
    }
    keepPacket(number, bytes);
    if (!faultsStrikePackets_) {
        return PacketAnswer{kReceivedResult, number, 1};
    }
    if (const auto answer = faultyAnswer(number)) {
        return answer;
    }
    const bool twice = description_.faults.acknowledgesTwice.contains(packetsSeen_);
    return PacketAnswer{kReceivedResult, number, twice ? 2 : 1};
}

void Device::keepPacket(std::uint32_t number, const std::uint8_t* bytes) {
    const std::size_t start = std::size_t{number} * kPacketBytes;
    const std::size_t end = std::min<std::size_t>(start + kPacketBytes, transfer_.contentSize);
    if (transfer_.content.size() < end) {
        transfer_.content.resize(end);
    }
    if (transfer_.received.size() <= number) {
        transfer_.received.resize(std::size_t{number} + 1);
    }
    std::copy_n(bytes, end - start, &transfer_.content[start]);
    transfer_.received[number] = true;
    transfer_.checked = false;
}

std::optional<PacketAnswer> Device::faultyAnswer(std::uint32_t number) {
    for (const FaultResult& fault : description_.faults.faultResults) {
        if (fault.at == number) {
            return PacketAnswer{fault.result, number, 1};
        }
    }
    for (std::size_t i = 0; i < goBackTimes_.size(); ++i) {
        const GoBack& fault = description_.faults.goBack[i];
        std::optional<std::uint32_t>& timesLeft = goBackTimes_[i];
        if (fault.at != number || timesLeft == 0U) {
            continue;
        }
        if (timesLeft) {
            --*timesLeft;
        }
        discardFrom(fault.to);
        return PacketAnswer{kGoBackResult, fault.to, 1};
    }
    return std::nullopt;
}

void Device::discardFrom(std::uint32_t packet) {
    if (!transfer_.open) {
        return;
    }
    transfer_.checked = false;
    if (packet < transfer_.received.size()) {
        transfer_.received.resize(packet);
        transfer_.content.resize(std::size_t{packet} * kPacketBytes);
    }
}

int Device::checkImage(std::uint32_t target, std::uint16_t& announced, std::uint16_t& computed) {
    if (const int fault = checks_.next(description_.faults.check)) {
        return fault;
    }
    if (!transfer_.open || target != transfer_.target) {
        return result::kRefused;
    }
    announced = transfer_.checksum;
    computed = transfer_.computeChecksum();
    transfer_.checked = announced == computed;
    return 0;
}

int Device::startUpdate(std::uint32_t target) {
    if (const int fault = starts_.next(description_.faults.start)) {
        return fault;
    }
    if (!transfer_.open || !transfer_.checked || target != transfer_.target) {
        return result::kRefused;
    }
    transfer_.open = false;
    state_ = State::Installing;
    ++turn_;
    return 0;
}

bool Device::finishInstallation() {
    const bool restarts = target() == kArmTarget;
    if (description_.faults.neverReturns) {
        // Off the bus, or for ever without a DSP: what it holds nobody will know.
        state_ = restarts ? State::Restarting : State::Installing;
        return false;
    }
    state_ = restarts ? State::Restarting : State::Ready;
    return takesNewFirmware();
}

bool Device::takesNewFirmware() {
    ++installations_;
    const KeepsOldVersion keeps = description_.faults.keepsOldVersion;
    if (keeps == KeepsOldVersion::Always ||
        (keeps == KeepsOldVersion::Once && installations_ == 1)) {
        return false;
    }
    const auto found = firmware::Descriptor::decode(content().data(), content().size());
    if (!found || found->target != target()) {
        return false;  // no firmware for this processor: the old one goes on
    }
    *versionOf(target()) = found->version;
    return true;
}

bool Device::comeBack() {
    if (description_.faults.neverReturns || isOnBus()) {
        return false;
    }
    state_ = State::Ready;
    return true;
}

void Device::losePower() {
    state_ = State::Restarting;
    transfer_ = Transfer();
    ++turn_;
}

std::uint32_t* Device::versionOf(std::uint32_t target) {
    switch (target) {
    case kArmTarget:
        return &versions_.arm;
    case kDspTarget:
        return &versions_.dsp;
    case kBoosterArmTarget:
        return &versions_.boosterArm;
    default:
        return nullptr;
    }
}

}  // namespace sim
