// The cases of the searches, and every fault that can occur in them.

#include <algorithm>
#include <map>

#include "common/transfer_result.h"
#include "common/vanid_text.h"
#include "search/case.h"

namespace {

using sim::Function;
using sim::Microseconds;
using sim::PacketFault;
using Results = std::vector<sim::InjectedResult>;

constexpr Microseconds kForEver = 1'000'000 * kSecond;

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

// All faults of the packet with this number.
std::vector<PacketFault> packetFaults(std::int64_t packet) {
    using Kind = PacketFault::Kind;
    const auto next = PacketFault::next;
    std::vector<PacketFault> faults = {
        next(Kind::Lost, 0, 2),           next(Kind::Lost, 0, 1),
        next(Kind::Damaged, 0, 1),        next(Kind::Twice, 0, 1),
        next(Kind::Result, 1, 1),         next(Kind::Result, -1, 1),
        next(Kind::Result, 18, 1),        next(Kind::Late, kSecond / 500, 1),
        next(Kind::Late, 6 * kSecond, 1), next(Kind::Late, 11 * kSecond, 1)};
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

void addDeviceFaults(std::vector<Fault>& faults, const Case& searched, const vanid_t& id,
                     const sim::Call& call) {
    const std::string device = formatVanid(id);
    for (const Microseconds duration : {4 * kSecond, kForEver}) {
        faults.push_back({Place::Power, device, Harm::Device,
                          "away for us: " + std::to_string(duration),
                          [=](sim::Bus& bus) { bus.interrupt(id, duration); }});
    }
    if (call.function != Function::Data) {
        return;
    }
    const auto& members = searched.setup.bus.members;
    const bool atOnce = std::all_of(members.begin(), members.end(), answersAtOnce);
    for (const PacketFault& packet : packetFaults(call.given[0])) {
        const bool madeGood = atOnce && (packet.kind == PacketFault::Kind::Twice ||
                                         packet.kind == PacketFault::Kind::GoBack);
        faults.push_back({Place::Packet, device, madeGood ? Harm::None : Harm::Device,
                          "packet fault " + std::to_string(static_cast<int>(packet.kind)) + ' ' +
                              std::to_string(packet.value),
                          [=](sim::Bus& bus) { bus.addFault(id, packet); }});
    }
}

// Every fault that can strike at the call; none if it is a callback.
std::vector<Fault> faultsAt(const Case& searched, const sim::Call& call) {
    std::vector<Fault> faults;
    if (sim::isCallback(call.function)) {
        return faults;
    }
    for (const sim::InjectedResult& failure : failuresOf(call.function)) {
        faults.push_back({Place::Result,
                          deviceOf(call),
                          harmOf(call, failure.result),
                          sim::nameOf(call.function) + (" gives " + std::to_string(failure.result)),
                          {},
                          call.function,
                          failure});
    }
    if (call.function == Function::Initialize) {  // there is no bus yet
        return faults;
    }
    for (const Microseconds duration : {8 * kSecond, kForEver}) {
        faults.push_back({Place::Link, "", Harm::AllDevices,
                          "link down for us: " + std::to_string(duration),
                          [=](sim::Bus& bus) { bus.dropLink(duration); }});
    }
    for (const sim::MemberDescription& member : searched.setup.bus.members) {
        addDeviceFaults(faults, searched, member.id, call);
    }
    return faults;
}

// ---- interleavings: all that the threads share is atomic or guarded by the lock of the device
// list, so what a callback does to the tool depends only on the acquisition that it comes before

// Events of the bus come early, and devices report at any moment, as nothing clears the callback. A
// device that asks to go back while the transfer goes on is served.
void addCallbacks(std::vector<Fault>& all, const Case& searched, const Acquisition& acquisition,
                  std::size_t index) {
    const auto add = [&](const std::string& device, Harm harm, const std::string& what,
                         const std::function<void(sim::Bus&)>& strike) {
        all.push_back({Place::Lock, device, harm, what, strike, {}, {}, index});
    };
    for (std::size_t event = 0; event < acquisition.pending; ++event) {
        add("", Harm::None, "brings forward event " + std::to_string(event),
            [=](sim::Bus& /*bus*/) { sim::VirtualTime::runEarly(event); });
    }
    for (const sim::MemberDescription& member : searched.setup.bus.members) {
        const vanid_t id = member.id;
        const std::string device = formatVanid(id);
        for (std::int64_t to = 0; to <= acquisition.packet.value_or(-1); ++to) {
            add(device, Harm::None, "goes back to packet " + std::to_string(to),
                [=](sim::Bus& bus) { bus.requestGoBack(id, static_cast<std::uint32_t>(to)); });
        }
        if (!acquisition.isRegistered) {
            continue;
        }
        add(device, Harm::Device, "reports a fault", [=](sim::Bus& bus) {
            bus.reportTransferResult(id, {0, 9, 0});
        });
        add(device, Harm::Device, "is reported",
            [=](sim::Bus& bus) { bus.reportBusChange(id, 0); });
        if (!acquisition.packet) {
            add(device, Harm::None, "goes back late", [=](sim::Bus& bus) {
                bus.reportTransferResult(id, {0, kGoBack, 0});
            });
        }
    }
}

}  // namespace

std::vector<Case> baseCases() {
    const Image arm = imageOf("arm", kArm, kNewVersion, 3 * sim::kPacketBytes + 20);
    const Image dsp = imageOf("dsp", kDsp, kNewVersion, 2 * sim::kPacketBytes);
    const Image booster = imageOf("booster", kBooster, kNewVersion, 2 * sim::kPacketBytes + 1);
    const Image same = imageOf("same", kArm, kOldVersion, 100);
    Case retry("retry", 2, {"-B"}, {arm});
    retry.setup.bus.members[0].faults.keepsOldVersion = sim::KeepsOldVersion::Once;
    retry.spoiled.insert(orvinText(1));
    Case behind("behind", 3, {"-B"}, {dsp});
    behind.setup.bus.members[1].timing.acknowledge = behind.setup.bus.members[1].timing.busy =
        1'300;
    behind.setup.bus.members[2].faults.ignoresRepeats = true;
    Case mixed("mixed", 3, {"-B", "-D"}, {imageOf("other", 0x203, 1, 12), dsp, arm});
    mixed.addImage({"mem:broken", kDsp, kNewVersion, "tevu", ""});
    mixed.setup.bus.members[0].versions.arm = kNewVersion;
    mixed.setup.bus.members[1].type = 16;  // a bus master
    mixed.spoiled.insert(orvinText(2));
    mixed.setup.bus.members[2].timing.acknowledgeJitter = 3'000;
    return {{"one", 1, {"-B"}, {arm}},
            mixed,
            {"three", 3, {"-B"}, {dsp, arm, booster}},
            retry,
            behind,
            {"targeted", 2, {"-d", orvinText(1)}, {dsp}},
            {"pretend", 2, {"-B", "-p"}, {arm}},
            {"forced", 2, {"-B", "-f"}, {same}},
            {"up to date", 2, {"-B"}, {same}},
            {"listing", 3, {"-l"}, {}},
            {"version", 2, {"-V", "-d", orvinText(1)}, {}}};
}

std::vector<Fault> faultsOf(const Case& searched, std::size_t from) {
    std::vector<Fault> all;
    const ToolRun run = runCase(searched);
    for (std::size_t index = from; index < run.records.size(); ++index) {
        for (Fault& fault : faultsAt(searched, run.records[index].call)) {
            fault.call = index;
            all.push_back(std::move(fault));
        }
    }
    return all;
}

std::vector<Case> interleavingCases() {
    const Image dsp = imageOf("dsp", kDsp, kNewVersion, 2 * sim::kPacketBytes + 1);
    const Image arm = imageOf("arm", kArm, kNewVersion, sim::kPacketBytes + 1);
    const Image booster = imageOf("booster", kBooster, kNewVersion, 12);
    Case slow("slow", 2, {"-B"}, {dsp});
    slow.setup.bus.members[1].timing.acknowledge = 2'300;
    Case goesBack("goes back", 2, {"-B"}, {dsp});
    goesBack.setup.bus.members[0].faults.packets = {PacketFault::next(PacketFault::Kind::GoBack)};
    goesBack.setup.bus.members[0].faults.packets[0].number = 1;
    std::vector<Case> all = {
        {"equal", 2, {"-B"}, {dsp}},
        slow,
        goesBack,
        {"returns", 2, {"-B"}, {arm}},
        {"again", 1, {"-B"}, {booster, imageOf("short", kDsp, kNewVersion, 12)}}};
    for (Case& base : all) {
        base.failsToClear = true;
    }
    return all;
}

std::vector<Fault> callbacksOf(const Case& searched, std::size_t from) {
    std::vector<Fault> all;
    std::vector<Acquisition> acquisitions;
    runCase(searched, &acquisitions);
    for (std::size_t index = from; index < acquisitions.size(); ++index) {
        addCallbacks(all, searched, acquisitions[index], index);
    }
    return all;
}
