// All that the threads share is atomic or guarded by the lock of the device list. So what a
// callback does to the tool depends only on the acquisition that it comes before.

#include "common/transfer_result.h"
#include "common/vanid_text.h"
#include "search/case.h"

namespace {

using sim::PacketFault;

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
        for (const sim::Function function :
             {sim::Function::SetTransferCallback, sim::Function::SetBusChangeCallback}) {
            base.setup.bus.callFaults.push_back({function, {}, {false, 2, {}}});
        }
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
