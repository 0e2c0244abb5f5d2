#include "histories/observed_bus.h"

#include <algorithm>
#include <cstring>

#include "histories/memory_system.h"
#include "sim/identifier.h"
#include "sim/virtual_time.h"
#include "talm/talm_api.h"

namespace histories {

namespace {

ObservedBus* theBus = nullptr;

constexpr std::size_t kChecksumOffset = 24;

}  // namespace

ObservedBus::ObservedBus(const Scenario& scenario, const std::vector<Fault>& faults)
    : scenario_(scenario),
      faults_(faults),
      callLimit_(callLimit(scenario, faults)),
      bus_(scenario.bus) {
    theBus = this;
}

ObservedBus::~ObservedBus() {
    theBus = nullptr;
}

ObservedBus& ObservedBus::current() {
    return *theBus;
}

CallRecord& ObservedBus::begin(Call call, const vanid_t* id) {
    if (calls_.size() >= callLimit_) {
        throw sim::TimeLimitReached();
    }
    CallRecord record;
    record.call = call;
    record.member = id == nullptr ? -1 : memberOf(*id);
    record.time = sim::VirtualTime::instance().now();
    record.consoleLength = MemorySystem::instance().console.size();
    calls_.push_back(record);
    for (const Fault& fault : faults_) {
        if (fault.call + 1 == calls_.size()) {
            strike(fault);
        }
    }
    return calls_.back();
}

void ObservedBus::strike(const Fault& fault) {
    using Kind = sim::PacketFault::Kind;
    const vanid_t id = idOf(fault.member);
    switch (fault.kind) {
    case FaultKind::Lost:
        return bus_.disturbNextPacket(id, {Kind::Lost, fault.value});
    case FaultKind::Answer:
        return bus_.disturbNextPacket(id, {Kind::Answer, fault.value});
    case FaultKind::GoBack:
        return bus_.disturbNextPacket(id, {Kind::GoBack, fault.value});
    case FaultKind::Late:
        return bus_.disturbNextPacket(id, {Kind::Late, fault.value});
    case FaultKind::Twice:
        return bus_.disturbNextPacket(id, {Kind::Twice, 0});
    case FaultKind::DeviceLeaves:
        return bus_.interrupt(id, fault.value);
    case FaultKind::LinkDrops:
        return bus_.dropLink(fault.value);
    case FaultKind::Result:
    case FaultKind::ResultLost:
    case FaultKind::WrongChecksum:
        return;  // for the call itself
    }
}

const Fault* ObservedBus::faultOf(FaultKind kind) const {
    const auto found = std::find_if(faults_.begin(), faults_.end(), [&](const Fault& fault) {
        return fault.call + 1 == calls_.size() && fault.kind == kind &&
               fault.member == calls_.back().member;
    });
    return found == faults_.end() ? nullptr : &*found;
}

int ObservedBus::end(const std::function<int()>& carryOut) {
    const Fault* const fault = faultOf(FaultKind::Result);
    int result = fault != nullptr ? static_cast<int>(fault->value) : carryOut();
    if (const Fault* const lost = faultOf(FaultKind::ResultLost)) {
        result = static_cast<int>(lost->value);
    }
    calls_.back().result = result;
    return result;
}

void ObservedBus::announce(std::uint32_t target, std::uint32_t size, std::uint16_t checksum) {
    const auto found =
        std::find_if(scenario_.images.begin(), scenario_.images.end(), [&](const ImageFile& image) {
            const auto byte = [&](std::size_t offset) {
                return static_cast<std::uint8_t>(image.bytes[offset]);
            };
            return !image.content.empty() && image.target == target &&
                   image.content.size() == size &&
                   (byte(kChecksumOffset) | byte(kChecksumOffset + 1) << 8) == checksum;
        });
    image_ = found == scenario_.images.end() ? nullptr : &*found;
}

vanid_t ObservedBus::idOf(int member) const {
    return member < 0 ? vanid_t{} : scenario_.bus.members[static_cast<std::size_t>(member)].id;
}

int ObservedBus::memberOf(const vanid_t& id) const {
    const auto& members = scenario_.bus.members;
    const auto found = std::find_if(members.begin(), members.end(), [&](const auto& member) {
        return sim::sameIdentifier(member.id, id);
    });
    return found == members.end() ? -1 : static_cast<int>(found - members.begin());
}

}  // namespace histories

using histories::Call;
using histories::CallRecord;
using histories::FaultKind;
using histories::ObservedBus;

namespace {

// Nobody looks into it.
const TalmApiHandle kHandle = reinterpret_cast<TalmApiHandle>(0x1000);

ObservedBus& observed() {
    return ObservedBus::current();
}

// Records a request to one device and carries it out, unless a fault has another result for it.
int carryOut(Call call, const vanid_t& device, const std::function<int(sim::Bus&)>& request) {
    observed().begin(call, &device);
    return observed().end([&] { return request(observed().bus()); });
}

}  // namespace

TalmApiHandle TalmApiInitialize() {
    observed().begin(Call::Initialize);
    return observed().end([] { return 0; }) < 0 ? nullptr : kHandle;
}

int TalmApiOpen(TalmApiHandle, const char*, int) {
    observed().begin(Call::Open);
    return observed().end([] { return 0; });
}

int TalmApiGetLinkState(TalmApiHandle, bool* active) {
    observed().begin(Call::LinkState);
    return observed().end([&] {
        *active = observed().bus().isLinkActive();
        return 0;
    });
}

int TalmApiCleanup(TalmApiHandle) {
    observed().begin(Call::Cleanup);
    observed().bus().stop();
    return observed().end([] { return 0; });
}

int TalmApiClose(TalmApiHandle) {
    observed().begin(Call::Close);
    return observed().end([] { return 0; });
}

int TalmApiGetBusMembers(TalmApiHandle, vanid_t* members, int capacity) {
    observed().begin(Call::Members);
    return observed().end([&] { return observed().bus().getMembers(members, capacity); });
}

int BusMember_get_type(TalmApiHandle, vanid_t member, uint8_t* type) {
    return carryOut(Call::Type, member, [&](sim::Bus& bus) { return bus.readType(member, *type); });
}

int TalmApiIsTalm(vanid_t member) {
    return carryOut(Call::IsMaster, member,
                    [&](sim::Bus& bus) { return bus.isMaster(member) ? 1 : 0; });
}

int OrvinInfo(TalmApiHandle, vanid_t device, uint32_t* hw, uint32_t* arm, uint32_t* dsp,
              uint32_t* boosterArm, uint16_t* api, void*, char* name) {
    sim::Versions versions;
    // What a failed query leaves behind means nothing: let it be something.
    versions.hw = versions.arm = versions.dsp = versions.boosterArm = 0x00010001;
    std::string nameText = "what a failed query left behind!";
    const int result = carryOut(Call::Info, device, [&](sim::Bus& bus) {
        return bus.readVersions(device, versions, nameText);
    });
    observed().calls().back().versions = versions;
    *hw = versions.hw;
    *arm = versions.arm;
    *dsp = versions.dsp;
    *boosterArm = versions.boosterArm;
    *api = versions.api;
    std::strncpy(name, nameText.c_str(), sim::kNameBytes);
    return result;
}

int ImageTransfer_write_request(TalmApiHandle, vanid_t device, uint32_t, uint32_t target, uint32_t,
                                uint32_t contentSize, uint16_t contentChecksum) {
    observed().announce(target, contentSize, contentChecksum);
    const int result = carryOut(Call::WriteRequest, device, [&](sim::Bus& bus) {
        return bus.writeRequest(device, target, contentSize, contentChecksum);
    });
    observed().calls().back().number = target;
    observed().calls().back().size = contentSize;
    return result;
}

int ImageTransfer_data(TalmApiHandle, vanid_t device, uint32_t packetNumber, const uint8_t* data,
                       uint32_t*, uint32_t*) {
    CallRecord& record = observed().begin(Call::Data, &device);
    record.number = packetNumber;
    const auto* const image = observed().image();
    const std::size_t start = std::size_t{packetNumber} * sim::kPacketBytes;
    record.good = sim::isBroadcast(device) && image != nullptr && start < image->content.size() &&
                  std::memcmp(data, &image->content[start],
                              std::min(sim::kPacketBytes, image->content.size() - start)) == 0;
    return observed().end([&] { return observed().bus().sendData(device, packetNumber, data); });
}

int OrvinImageMaintenance_check_image(TalmApiHandle, vanid_t device, uint32_t target,
                                      uint16_t* firstOutput, uint16_t* secondOutput) {
    *firstOutput = *secondOutput = 0;  // as if all were well
    const int result = carryOut(Call::Check, device, [&](sim::Bus& bus) {
        return bus.checkImage(device, target, *firstOutput, *secondOutput);
    });
    if (observed().faultOf(FaultKind::WrongChecksum) != nullptr) {
        *secondOutput = static_cast<uint16_t>(~*firstOutput);
    }
    observed().calls().back().number = target;
    observed().calls().back().good = *firstOutput == *secondOutput;
    return result;
}

int OrvinImageMaintenance_start_update(TalmApiHandle, vanid_t device, uint32_t target) {
    CallRecord& record = observed().begin(Call::Start, &device);
    record.number = target;
    const sim::Device* const whom = observed().bus().findDevice(device);
    const auto* const image = observed().image();
    record.good = whom != nullptr && image != nullptr &&
                  std::equal(whom->content().begin(), whom->content().end(), image->content.begin(),
                             image->content.end(), [](std::uint8_t held, char sent) {
                                 return held == static_cast<std::uint8_t>(sent);
                             });
    return observed().end([&] { return observed().bus().startUpdate(device, target); });
}

int TalmApiSetCallback(TalmApiHandle, int, int, int, const CallbackSlot* slot, int) {
    observed().begin(Call::SetTransferCallback).good = slot->function == nullptr;
    return observed().end([&] {
        observed().bus().setTransferCallback(*slot);
        return 0;
    });
}

int TalmApiSetBusChangeCallback(TalmApiHandle, const CallbackSlot* slot, int) {
    observed().begin(Call::SetBusChangeCallback).good = slot->function == nullptr;
    return observed().end([&] {
        observed().bus().setBusChangeCallback(*slot);
        return 0;
    });
}
