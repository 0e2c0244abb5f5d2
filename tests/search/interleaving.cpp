// All that the threads share is atomic or guarded by the lock of the device list. So what a
// callback does to the tool depends only on the acquisition that it comes before.

#include "search/interleaving.h"

#include "common/transfer_result.h"
#include "common/vanid_text.h"

namespace {

using sim::PacketFault;

std::vector<Case> baseCases() {
    const Image dsp = imageOf("dsp", kDsp, kNewVersion, 2 * sim::kPacketBytes + 1);
    const Image arm = imageOf("arm", kArm, kNewVersion, sim::kPacketBytes + 1);
    const Case equal = baseCase("equal", 2, {"-B"}, {dsp});
    Case slow = equal;
    slow.name = "slow";
    slow.setup.bus.members[1].timing.acknowledge = 2'300;
    Case goesBack = equal;
    goesBack.name = "goes back";
    goesBack.setup.bus.members[0].faults.packets = {PacketFault::next(PacketFault::Kind::GoBack)};
    goesBack.setup.bus.members[0].faults.packets[0].number = 1;
    const Image booster = imageOf("booster", kBooster, kNewVersion, 12);
    std::vector<Case> all = {
        equal, slow, goesBack, baseCase("returns", 2, {"-B"}, {arm}),
        baseCase("again", 1, {"-B"}, {booster, imageOf("short", kDsp, kNewVersion, 12)})};
    for (Case& base : all) {
        base.failsToClear = true;
    }
    return all;
}

// Events of the bus come early, and devices report at any moment, as nothing clears the callback. A
// device that asks to go back while the transfer goes on is served.
std::vector<Fault> callbacksAt(const Case& base, std::size_t index,
                               const Acquisition& acquisition) {
    std::vector<Fault> all;
    const auto add = [&all](const std::string& device, Harm harm, const std::string& what,
                            const std::function<void(sim::Bus&)>& action) {
        all.push_back(busFault(Place::Lock, device, harm, what, action));
    };
    for (std::size_t event = 0; event < acquisition.pending; ++event) {
        add("", Harm::None, "brings forward event " + std::to_string(event),
            [=](sim::Bus& /*bus*/) { sim::VirtualTime::instance().runEarly(event); });
    }
    for (const sim::MemberDescription& member : base.setup.bus.members) {
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
    for (Fault& fault : all) {
        fault.call = index;
    }
    return all;
}

void forEachCallback(const Case& base, std::size_t first,
                     const std::function<void(const Fault&)>& use) {
    std::vector<Acquisition> acquisitions;
    runCase(base, &acquisitions);
    for (std::size_t index = first; index < acquisitions.size(); ++index) {
        for (const Fault& callback : callbacksAt(base, index, acquisitions[index])) {
            use(callback);
        }
    }
}

}  // namespace

void forEachInterleaving(const Visit& visit) {
    for (const Case& base : baseCases()) {
        visit([&] { return base; });
        forEachCallback(base, 0, [&](const Fault& first) {
            const Case one = base.with(first);
            visit([&] { return base.with(first); });
            forEachCallback(one, first.call,
                            [&](const Fault& second) { visit([&] { return one.with(second); }); });
        });
    }
}
