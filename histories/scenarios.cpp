#include "histories/scenarios.h"

#include <algorithm>
#include <array>
#include <random>

#include "histories/memory_system.h"
#include "orvin-image/image_file.h"
#include "sim/device.h"
#include "sim/identifier.h"

namespace histories {

namespace {

constexpr std::uint32_t kArm = 0x200;
constexpr std::uint32_t kDsp = 0x201;
constexpr std::uint32_t kBoosterArm = 0x202;
constexpr std::uint32_t kOldVersion = 0x00010000;
constexpr std::uint32_t kNewVersion = 0x00010001;

constexpr Microseconds kMillisecond = 1'000;
constexpr Microseconds kSecond = 1'000'000;
constexpr Microseconds kForEver = 1'000'000 * kSecond;

ImageFile makeImage(const std::string& name, std::uint32_t target, std::uint32_t version,
                    std::size_t contentSize) {
    const orvin_image::Bytes content = orvin_image::generateContent(target, version, contentSize);
    FirmwareImageHeader header;
    header.device = target;
    header.version = version;
    const orvin_image::Bytes bytes = orvin_image::encodeImage(header, content);
    return {"mem:" + name,
            target,
            version,
            {bytes.begin(), bytes.end()},
            {content.begin(), content.end()}};
}

sim::MemberDescription makeMember(int number, std::uint8_t type) {
    sim::MemberDescription member;
    member.id.bytes[16] = static_cast<std::uint8_t>(number);
    member.type = type;
    member.versions = {1, kOldVersion, kOldVersion, kOldVersion, 1};
    member.timing.restart = kSecond;
    return member;
}

Scenario makeScenario(const std::string& name, int orvins,
                      const std::vector<std::string>& arguments,
                      const std::vector<ImageFile>& images) {
    Scenario scenario;
    scenario.name = name;
    scenario.arguments = arguments;
    scenario.arguments.insert(scenario.arguments.end(), {"-m", MemorySystem::kStatusFile});
    scenario.images = images;
    for (int number = 1; number <= orvins; ++number) {
        scenario.bus.members.push_back(makeMember(number, sim::kOrvinType));
    }
    return scenario;
}

// The values with which a call can fail.
std::vector<int> failures(Call call) {
    switch (call) {
    case Call::Initialize:
    case Call::LinkState:
    case Call::Cleanup:
    case Call::Close:
    case Call::SetTransferCallback:
    case Call::SetBusChangeCallback:
        return {-1};
    case Call::Open:
    case Call::IsMaster:
    case Call::Type:
        return {-1, 1};
    case Call::Members:
        return {-1, 0, 1000};
    case Call::Info:
    case Call::Check:
    case Call::WriteRequest:
    case Call::Start:
        return {-1, -2, 5};
    case Call::Data:
        return {0, -1, 5};
    }
    return {};
}

void addPacketFaults(std::vector<Fault>& faults, std::size_t index, std::uint32_t packet,
                     int member) {
    for (const std::int64_t packets : {1, 2}) {  // two: the resent one as well
        faults.push_back({index, FaultKind::Lost, member, packets});
    }
    faults.push_back({index, FaultKind::Twice, member, 0});
    for (const std::int64_t result : {1, -1, 18}) {
        faults.push_back({index, FaultKind::Answer, member, result});
    }
    for (const Microseconds delay : {2 * kMillisecond, 6 * kSecond, 11 * kSecond}) {
        faults.push_back({index, FaultKind::Late, member, delay});
    }
    for (std::int64_t to = 0; to <= packet; ++to) {
        faults.push_back({index, FaultKind::GoBack, member, to});
    }
}

// A source of choices.
class Dice {
public:
    explicit Dice(std::uint32_t seed) : random_(seed) {}

    // One of 0 to n - 1.
    std::uint32_t below(std::uint32_t n) { return static_cast<std::uint32_t>(random_() % n); }
    bool oneIn(std::uint32_t n) { return below(n) == 0; }

    template <typename Value, std::size_t n>
    Value anyOf(const std::array<Value, n>& values) {
        return values[below(n)];
    }

private:
    std::mt19937 random_;
};

sim::Selection randomSelection(Dice& dice) {
    sim::Selection selection;
    if (dice.oneIn(6)) {
        selection.all = true;
    } else if (dice.oneIn(3)) {
        selection.every = 2 + dice.below(9);
    } else {
        selection.numbers = {1 + dice.below(4), 1 + dice.below(20)};
    }
    return selection;
}

sim::CallFault randomCallFault(Dice& dice) {
    return {randomSelection(dice), dice.anyOf<int, 4>({-1, -2, 5, 1'000'000})};
}

void addRandomFault(Dice& dice, sim::DeviceFaults& faults) {
    faults.present = true;
    switch (dice.below(11)) {
    case 0:
        faults.losesPackets = randomSelection(dice);
        break;
    case 1:
        faults.acknowledgesTwice = randomSelection(dice);
        break;
    case 2:
        faults.goBack.push_back({dice.below(12), dice.below(12), 1 + dice.below(3)});
        if (dice.oneIn(20)) {
            faults.goBack.back().times = std::nullopt;
        }
        break;
    case 3:
        faults.faultResults.push_back(
            {dice.below(12), static_cast<std::int32_t>(1 + dice.below(9))});
        break;
    case 4:
        faults.typeQuery = randomCallFault(dice);
        break;
    case 5:
        faults.versionQuery = randomCallFault(dice);
        break;
    case 6:
        faults.writeRequest = randomCallFault(dice);
        break;
    case 7:
        faults.check = randomCallFault(dice);
        break;
    case 8:
        faults.start = randomCallFault(dice);
        break;
    case 9:
        faults.neverReturns = dice.oneIn(2);
        faults.reportsBack = static_cast<int>(dice.below(3));
        break;
    default:
        faults.keepsOldVersion =
            dice.oneIn(2) ? sim::KeepsOldVersion::Once : sim::KeepsOldVersion::Always;
        break;
    }
}

sim::MemberDescription randomMember(Dice& dice, int number) {
    sim::MemberDescription member = makeMember(
        number, dice.oneIn(5) ? static_cast<std::uint8_t>(dice.below(200)) : sim::kOrvinType);
    member.versions.dsp = dice.oneIn(6) ? kNewVersion : kOldVersion;
    member.versions.arm = dice.oneIn(6) ? kNewVersion : kOldVersion;
    member.timing.acknowledge = dice.anyOf<Microseconds, 4>({0, 300, 999, 2'500});
    member.timing.acknowledgeJitter = dice.oneIn(3) ? 3 * kMillisecond : 0;
    member.timing.install = dice.below(8) * kSecond;
    member.timing.restart = dice.below(8) * kSecond;
    while (dice.oneIn(3)) {
        addRandomFault(dice, member.faults);
    }
    if (dice.oneIn(12)) {
        member.timing.acknowledge = dice.below(12) * kSecond;
        member.faults.present = true;
    }
    return member;
}

ImageFile randomImage(Dice& dice, const std::string& name) {
    const std::uint32_t target = dice.oneIn(12) ? 0x203 : kArm + dice.below(3);
    ImageFile image =
        makeImage(name, target, dice.oneIn(8) ? kOldVersion : kNewVersion, 12 + dice.below(900));
    if (dice.oneIn(12)) {
        image.content.clear();
        image.bytes.resize(dice.below(2) * std::size_t{40});  // a broken file, or none
    }
    return image;
}

std::vector<std::string> randomArguments(Dice& dice, const Scenario& scenario) {
    std::vector<std::string> arguments;
    const std::string someone = scenario.bus.members.empty()
                                    ? "nobody"
                                    : sim::identifierText(scenario.bus.members.front().id);
    switch (dice.below(8)) {
    case 0:
        arguments = {"-l"};
        break;
    case 1:
        arguments = {"-V", "-d", someone};
        break;
    case 2:
        arguments = {"-d", dice.oneIn(8) ? "pump room" : someone};
        break;
    default:
        arguments = {"-B"};
    }
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

}  // namespace

std::vector<Scenario> baseScenarios() {
    const ImageFile arm = makeImage("arm", kArm, kNewVersion, 3 * sim::kPacketBytes + 20);
    const ImageFile dsp = makeImage("dsp", kDsp, kNewVersion, 2 * sim::kPacketBytes);
    const ImageFile booster =
        makeImage("booster", kBoosterArm, kNewVersion, 2 * sim::kPacketBytes + 1);
    const ImageFile same = makeImage("same", kArm, kOldVersion, 100);

    std::vector<Scenario> scenarios = {
        makeScenario("one", 1, {"-B"}, {arm}),
        makeScenario("three", 3, {"-B"}, {dsp, arm, booster}),
        makeScenario("retry", 2, {"-B"}, {arm}),
        makeScenario("targeted", 2, {"-d", "00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:01"},
                     {dsp}),
        makeScenario("pretend", 2, {"-B", "-p"}, {arm}),
        makeScenario("forced", 2, {"-B", "-f"}, {same}),
        makeScenario("up to date", 2, {"-B"}, {same}),
        makeScenario("listing", 3, {"-l"}, {}),
    };
    scenarios[2].bus.members[0].faults.keepsOldVersion = sim::KeepsOldVersion::Once;
    scenarios[2].bus.members[0].faults.present = true;
    return scenarios;
}

std::vector<Fault> faultsAt(const Scenario& scenario, std::size_t index, const CallRecord& record) {
    std::vector<Fault> faults;
    for (const int result : failures(record.call)) {
        faults.push_back({index, FaultKind::Result, record.member, result});
    }
    if (record.call == Call::WriteRequest || record.call == Call::Check ||
        record.call == Call::Start) {
        faults.push_back({index, FaultKind::ResultLost, record.member, -1});
    }
    if (record.call == Call::Check) {
        faults.push_back({index, FaultKind::WrongChecksum, record.member, 0});
    }
    for (const Microseconds duration : {8 * kSecond, kForEver}) {
        faults.push_back({index, FaultKind::LinkDrops, -1, duration});
    }
    for (int member = 0; member < static_cast<int>(scenario.bus.members.size()); ++member) {
        for (const Microseconds duration : {4 * kSecond, kForEver}) {
            faults.push_back({index, FaultKind::DeviceLeaves, member, duration});
        }
        if (record.call == Call::Data) {
            addPacketFaults(faults, index, record.number, member);
        }
    }
    return faults;
}

RandomCase randomCase(std::uint32_t seed) {
    Dice dice(seed);
    RandomCase random;
    Scenario& scenario = random.scenario;
    scenario.name = "seed " + std::to_string(seed);
    const int members = static_cast<int>(dice.oneIn(20) ? dice.below(70) : dice.below(6));
    for (int number = 1; number <= members; ++number) {
        scenario.bus.members.push_back(randomMember(dice, number));
    }
    scenario.bus.seed = seed;
    scenario.bus.linkActiveAfter = dice.oneIn(6) ? dice.below(120) * kSecond : 0;
    if (dice.oneIn(10)) {
        scenario.bus.getMembers = randomCallFault(dice);
    }
    if (dice.oneIn(10)) {
        scenario.bus.data = randomCallFault(dice);
    }
    const std::uint32_t images = 1 + dice.below(3);
    for (std::uint32_t i = 0; i < images; ++i) {
        scenario.images.push_back(randomImage(dice, "image" + std::to_string(i)));
    }
    scenario.arguments = randomArguments(dice, scenario);
    if (dice.oneIn(5)) {
        using Kind = StatusFault::Kind;
        scenario.statusFault = {
            dice.anyOf<Kind, 4>({Kind::Create, Kind::Write, Kind::ShortWrite, Kind::Rename}),
            static_cast<int>(1 + dice.below(10))};
    }

    // Whatever can strike some call of the run without it.
    if (dice.oneIn(2)) {
        const History history = run(scenario, {});
        const std::uint32_t count = 1 + dice.below(3);
        for (std::uint32_t i = 0; i < count; ++i) {
            const std::size_t index = dice.below(static_cast<std::uint32_t>(history.calls.size()));
            const std::vector<Fault> all = faultsAt(scenario, index, history.calls[index]);
            random.faults.push_back(all[dice.below(static_cast<std::uint32_t>(all.size()))]);
        }
    }
    return random;
}

}  // namespace histories
