// The base cases, and every fault that can occur in them.

#include "search/every_fault.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <map>
#include <tuple>

#include "common/vanid_text.h"

namespace {

using sim::Function;
using sim::Microseconds;
using sim::PacketFault;

constexpr Microseconds kForEver = 1'000'000 * kSecond;

std::vector<Case> baseCases() {
    const Image arm = imageOf("arm", kArm, kNewVersion, 3 * sim::kPacketBytes + 20);
    const Image dsp = imageOf("dsp", kDsp, kNewVersion, 2 * sim::kPacketBytes);
    const Image booster = imageOf("booster", kBooster, kNewVersion, 2 * sim::kPacketBytes + 1);
    const Image same = imageOf("same", kArm, kOldVersion, 100);
    Case retry = baseCase("retry", 2, {"-B"}, {arm});
    retry.setup.bus.members[0].faults.keepsOldVersion = sim::KeepsOldVersion::Once;
    retry.spoiled.insert(orvinText(1));
    Case behind = baseCase("behind", 3, {"-B"}, {dsp});
    behind.setup.bus.members[1].timing.acknowledge = behind.setup.bus.members[1].timing.busy =
        1'300;
    behind.setup.bus.members[2].faults.ignoresRepeats = true;
    Case mixed = baseCase("mixed", 3, {"-B", "-D"}, {imageOf("other", 0x203, 1, 12), dsp, arm});
    mixed.addImage({"mem:broken", kDsp, kNewVersion, "tevu", ""});
    mixed.setup.bus.members[0].versions.arm = kNewVersion;
    mixed.setup.bus.members[1].type = 16;  // a bus master
    mixed.spoiled.insert(orvinText(2));
    mixed.setup.bus.members[2].timing.acknowledgeJitter = 3'000;
    return {baseCase("one", 1, {"-B"}, {arm}),
            mixed,
            baseCase("three", 3, {"-B"}, {dsp, arm, booster}),
            retry,
            behind,
            baseCase("targeted", 2, {"-d", orvinText(1)}, {dsp}),
            baseCase("pretend", 2, {"-B", "-p"}, {arm}),
            baseCase("forced", 2, {"-B", "-f"}, {same}),
            baseCase("up to date", 2, {"-B"}, {same}),
            baseCase("listing", 3, {"-l"}, {}),
            baseCase("version", 2, {"-V", "-d", orvinText(1)}, {})};
}

using Results = std::vector<sim::InjectedResult>;

// The results that can be injected into a call.
Results failuresOf(Function function) {
    const Results refusals = {{-1}, {-2}, {5}, {-1, true}};
    const std::map<Function, Results> failures = {{Function::Open, {{-1}, {1}}},
                                                  {Function::IsTalm, {{-1}, {1}}},
                                                  {Function::GetType, {{-1}, {1}}},
                                                  {Function::GetBusMembers, {{-1}, {0}, {1000}}},
                                                  {Function::OrvinInfo, {{-1}, {-2}, {5}}},
                                                  {Function::CheckImage, refusals},
                                                  {Function::WriteRequest, refusals},
                                                  {Function::StartUpdate, refusals},
                                                  {Function::Data, {{0}, {-1}, {-2}, {5}}}};
    const auto found = failures.find(function);
    return found == failures.end() ? Results{{-1}} : found->second;
}

Harm harmOf(const sim::Call& call, int result) {
    if (call.device && !isBroadcastVanid(*call.device)) {
        return Harm::Device;
    }
    const bool goesUnnoticed = call.function == Function::SetTransferCallback ||
                               (call.function == Function::Data && result == -2);
    return goesUnnoticed ? Harm::AllDevices : Harm::Upgrade;
}

// The result, for this call and each later one of the function to the device.
Fault resultFault(const sim::Call& call, const sim::InjectedResult& failure) {
    const std::string device = deviceOf(call);
    return {Place::Result, device, harmOf(call, failure.result),
            sim::nameOf(call.function) + (" gives " + std::to_string(failure.result)),
            [=, function = call.function](sim::Bus* /*bus*/, const sim::Call& failing) {
                const bool fails = failing.function == function && deviceOf(failing) == device;
                return fails ? std::optional(failure) : std::nullopt;
            }};
}

// All faults of the packet with this number.
std::vector<PacketFault> packetFaults(std::int64_t packet) {
    using Kind = PacketFault::Kind;
    std::vector<PacketFault> faults = {PacketFault::next(Kind::Lost, 0, 2)};
    for (const Kind kind : {Kind::Lost, Kind::Damaged, Kind::Twice}) {
        faults.push_back(PacketFault::next(kind));
    }
    for (const int result : {1, -1, 18}) {
        faults.push_back(PacketFault::next(Kind::Result, result));
    }
    for (const Microseconds delay : {kSecond / 500, 6 * kSecond, 11 * kSecond}) {
        faults.push_back(PacketFault::next(Kind::Late, delay));
    }
    for (std::int64_t to = 0; to <= packet; ++to) {
        faults.push_back(PacketFault::next(Kind::GoBack, to));
    }
    return faults;
}

// Whether the device answers before the tool's next poll. Only then does the tool always serve a
// request to go back. A later request may come after the last packet, or during a repetition that
// the late answer of another device ends.
bool answersAtOnce(const sim::MemberDescription& device) {
    constexpr Microseconds kPoll = 1'000;
    return device.timing.acknowledge < kPoll && device.timing.acknowledgeJitter == 0;
}

void addDeviceFaults(std::vector<Fault>& faults, const Case& searched, const std::string& device,
                     const sim::Call& call) {
    const vanid_t id = *parseStrictVanid(device);
    for (const Microseconds duration : {4 * kSecond, kForEver}) {
        faults.push_back(busFault(Place::Power, device, Harm::Device,
                                  "away for us: " + std::to_string(duration),
                                  [=](sim::Bus& bus) { bus.interrupt(id, duration); }));
    }
    if (call.function != Function::Data) {
        return;
    }
    const auto& members = searched.setup.bus.members;
    const bool atOnce = std::all_of(members.begin(), members.end(), answersAtOnce);
    for (const PacketFault& packet : packetFaults(call.given[0])) {
        const bool madeGood = atOnce && (packet.kind == PacketFault::Kind::Twice ||
                                         packet.kind == PacketFault::Kind::GoBack);
        const std::string what = "packet fault " + std::to_string(static_cast<int>(packet.kind)) +
                                 ' ' + std::to_string(packet.value);
        faults.push_back(busFault(Place::Packet, device, madeGood ? Harm::None : Harm::Device, what,
                                  [=](sim::Bus& bus) { bus.addFault(id, packet); }));
    }
}

// Every fault that can strike at the call, which is the one at that index in a run of the case;
// none if it is a callback.
std::vector<Fault> faultsAt(const Case& searched, std::size_t index, const sim::Call& call) {
    std::vector<Fault> faults;
    if (sim::isCallback(call.function)) {
        return faults;
    }
    for (const sim::InjectedResult& failure : failuresOf(call.function)) {
        faults.push_back(resultFault(call, failure));
    }
    if (call.function == Function::Initialize) {  // call 0, there is no bus yet
        return faults;
    }
    for (const Microseconds duration : {8 * kSecond, kForEver}) {
        faults.push_back(busFault(Place::Link, "", Harm::AllDevices,
                                  "link down for us: " + std::to_string(duration),
                                  [=](sim::Bus& bus) { bus.dropLink(duration); }));
    }
    for (const sim::MemberDescription& member : searched.setup.bus.members) {
        addDeviceFaults(faults, searched, formatVanid(member.id), call);
    }
    for (Fault& fault : faults) {
        fault.call = index;
    }
    return faults;
}

void forEachFault(const Case& searched, std::size_t firstCall,
                  const std::function<void(const Fault&)>& use) {
    const ToolRun run = runCase(searched);
    for (std::size_t index = firstCall; index < run.records.size(); ++index) {
        const std::vector<Fault> faults = faultsAt(searched, index, run.records[index].call);
        std::for_each(faults.begin(), faults.end(), use);
    }
}

}  // namespace

Case baseCase(const std::string& name, int orvins, const std::vector<std::string>& arguments,
              const std::vector<Image>& images) {
    Case base;
    base.name = name;
    base.setup.arguments = arguments;
    base.setup.arguments.insert(base.setup.arguments.end(), {"-m", MemorySystem::kStatusFile});
    for (int number = 1; number <= orvins; ++number) {
        base.setup.bus.members.push_back(orvin(number));
    }
    for (const Image& image : images) {
        base.addImage(image);
    }
    return base;
}

void forEachSingle(const Visit& visit) {
    for (const Case& base : baseCases()) {
        visit([&] { return base; });
        forEachFault(base, 0, [&](const Fault& fault) { visit([&] { return base.with(fault); }); });
    }
}

void forEachStatusFault(const Visit& visit) {
    using Call = SystemCall;
    const Case base = baseCases().front();
    for (const Call call : {Call::CreateTemporary, Call::Write, Call::Rename}) {
        for (const int error : {EACCES, MemorySystem::kHalfOfIt}) {
            for (int number = 1; number <= 10; ++number) {
                Case failing = base;
                failing.name += "; status file";
                failing.statusFault = {call, error, number};
                visit([&] { return failing; });
            }
        }
    }
}

void forEachLasting(const Visit& visit) {
    constexpr std::size_t kForEverMore = std::numeric_limits<std::size_t>::max();
    for (const Case& base : baseCases()) {
        forEachFault(base, 0, [&](Fault fault) {
            fault.harm = std::max(fault.harm, Harm::Device);
            for (const std::size_t last : {fault.call + 3, fault.call + 40, kForEverMore}) {
                fault.last = last;
                visit([&] { return base.with(fault); });
            }
        });
    }
}

void forEachPair(const Visit& visit) {
    for (const Case& base : baseCases()) {
        forEachFault(base, 0, [&](const Fault& first) {
            const Case one = base.with(first);
            forEachFault(one, first.call, [&](const Fault& second) {
                // Visits two faults at the same call in only one order.
                if (first.call < second.call ||
                    std::tie(first.place, first.device) < std::tie(second.place, second.device)) {
                    visit([&] { return one.with(second); });
                }
            });
        });
    }
}

void forEachAllocation(const Visit& visit) {
    for (Case base : baseCases()) {
        base.setup.failingAllocation = std::numeric_limits<int>::max();
        const int allocations = base.setup.failingAllocation - runCase(base).allocationsLeft;
        base.harm = Harm::AllDevices;
        for (int number = 1; number <= allocations; ++number) {
            Case failing = base;
            failing.setup.failingAllocation = number;
            failing.name += "; allocation " + std::to_string(number);
            visit([&] { return failing; });
        }
    }
}
