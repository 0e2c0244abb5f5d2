#include "search/random_case.h"

#include <algorithm>
#include <cerrno>
#include <random>

#include "search/every_fault.h"

namespace {

using Texts = std::vector<std::string>;

// Makes random choices.
struct Dice {
    std::mt19937 random;

    // One of 0 to n - 1.
    std::uint32_t below(std::size_t n) { return static_cast<std::uint32_t>(random() % n); }
    bool oneIn(std::uint32_t n) { return below(n) == 0; }

    template <typename Value>
    Value anyOf(std::initializer_list<Value> values) {
        return values.begin()[below(values.size())];
    }
};

void addMember(Dice& dice, Case& random, int number) {
    sim::MemberDescription device = orvin(number);
    device.versions.dsp = dice.oneIn(6) ? kNewVersion : kOldVersion;
    device.versions.arm = dice.oneIn(6) ? kNewVersion : kOldVersion;
    device.timing.acknowledge = dice.anyOf<sim::Microseconds>({0, 300, 999, 2'500});
    device.timing.acknowledgeJitter = dice.oneIn(3) ? 3'000 : 0;
    // The device is busy until it acknowledges the packet.
    device.timing.busy = dice.oneIn(3) ? device.timing.acknowledge : 0;
    device.faults.ignoresRepeats = dice.oneIn(6);
    device.timing.install = dice.below(8) * kSecond;
    device.timing.restart = dice.below(8) * kSecond;
    if (dice.oneIn(3)) {
        using sim::KeepsOldVersion;
        device.type = static_cast<std::uint8_t>(dice.oneIn(2) ? dice.below(200) : device.type);
        device.faults.reportsBack = static_cast<int>(dice.below(3));
        device.faults.keepsOldVersion =
            dice.anyOf({KeepsOldVersion::Never, KeepsOldVersion::Once, KeepsOldVersion::Always});
        random.spoiled.insert(orvinText(number));
    }
    random.setup.bus.members.push_back(device);
}

Image anyImage(Dice& dice, const std::string& name) {
    const std::uint32_t target = dice.oneIn(12) ? 0x203 : dice.anyOf({kArm, kDsp, kBooster});
    const std::uint32_t version = dice.oneIn(8) ? kOldVersion : kNewVersion;
    Image image = imageOf(name, target, version, 12 + dice.below(900));
    if (dice.oneIn(12)) {
        image.content.clear();
        image.file.resize(dice.below(2) * std::size_t{40});  // a broken file, or none
    }
    return image;
}

Texts anyArguments(Dice& dice) {
    const std::string device = orvinText(dice.oneIn(8) ? 100 : 1);  // 100: on no bus
    const Texts all = {"-B"};
    Texts arguments = dice.anyOf<Texts>(
        {{"-l"}, {"-V", "-d", device}, {"-V", "-d", "pump room"}, {"-d", device}, all, all, all});
    for (const char* option : {"-f", "-p", "-D"}) {
        if (dice.oneIn(5)) {
            arguments.emplace_back(option);
        }
    }
    if (!dice.oneIn(4)) {
        arguments.insert(arguments.end(), {"-m", MemorySystem::kStatusFile});
    }
    return arguments;
}

// Adds faults for random calls of the run without faults.
void addFaults(Dice& dice, Case& random) {
    const ToolRun run = runCase(random);
    for (std::uint32_t count = dice.below(6); count > 0; --count) {
        const std::size_t index = dice.below(run.records.size());
        const std::vector<Fault> all = faultsAt(random, index, run.records[index].call);
        if (all.empty()) {
            continue;
        }
        Fault fault = all[dice.below(all.size())];
        fault.stays = dice.oneIn(3);
        fault.harm = fault.stays ? std::max(fault.harm, Harm::Device) : fault.harm;
        random = random.with(fault);
    }
}

}  // namespace

Case randomCase(std::uint32_t seed) {
    Dice dice{std::mt19937(seed)};
    Case random;
    random.name = "seed";
    random.setup.bus.seed = seed;
    const int members = static_cast<int>(dice.oneIn(20) ? dice.below(64) : dice.below(6));
    for (int number = 1; number <= members; ++number) {
        addMember(dice, random, number);
    }
    random.setup.arguments = anyArguments(dice);
    for (std::uint32_t count = 1 + dice.below(3); count > 0; --count) {
        random.addImage(anyImage(dice, "image" + std::to_string(count)));
    }
    if (dice.oneIn(5)) {
        using Call = SystemCall;
        random.statusFault = {dice.anyOf({Call::CreateTemporary, Call::Write, Call::Rename}),
                              dice.anyOf<int>({EACCES, MemorySystem::kHalfOfIt}),
                              static_cast<int>(1 + dice.below(10))};
    }
    addFaults(dice, random);
    return random;
}
