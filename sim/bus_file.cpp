#include "sim/bus_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <utility>

#include "sim/bus_file_error.h"
#include "sim/identifier.h"
#include "sim/replace_file.h"

namespace sim {

namespace {

constexpr std::int64_t kMax8 = std::numeric_limits<std::uint8_t>::max();
constexpr std::int64_t kMax16 = std::numeric_limits<std::uint16_t>::max();
constexpr std::int64_t kMax32 = std::numeric_limits<std::uint32_t>::max();
constexpr std::int64_t kMaxMicroseconds = kMax32;
constexpr std::int64_t kMaxMilliseconds = 100'000'000;  // a little more than a day
constexpr Microseconds kMillisecond = 1'000;
constexpr Microseconds kMaxDelay = kMaxMilliseconds * kMillisecond;

using Range = std::pair<std::int64_t, std::int64_t>;
constexpr Range kSigned32{std::numeric_limits<std::int32_t>::min(),
                          std::numeric_limits<std::int32_t>::max()};

std::uint32_t read32(FieldReader& fields, const char* name, std::uint32_t fallback) {
    return static_cast<std::uint32_t>(fields.number(name, fallback, 0, kMax32));
}

Microseconds readMilliseconds(FieldReader& fields, const char* name, Microseconds fallback) {
    return kMillisecond * fields.number(name, fallback / kMillisecond, 0, kMaxMilliseconds);
}

const Json& requireArray(const Json& json, const std::string& place) {
    if (!json.is_array()) {
        throw BusFileError(place + ": not an array");
    }
    return json;
}

template <typename ReadItem>
auto readItems(const Json& json, const std::string& place, ReadItem readItem) {
    std::vector<decltype(readItem(Json(), std::string()))> items;
    for (const Json& item : requireArray(json, place)) {
        items.push_back(readItem(item, place + '/' + std::to_string(items.size())));
    }
    return items;
}

template <typename ReadItem>
auto readList(FieldReader& parent, const char* name, ReadItem readItem) {
    const Json* const json = parent.find(name);
    using Items = decltype(readItems(*json, std::string(), readItem));
    return json == nullptr ? Items() : readItems(*json, parent.placeOf(name), readItem);
}

// A list of as many numbers as there are ranges.
std::vector<std::int64_t> readNumbers(const Json& json, const std::string& place,
                                      const std::vector<Range>& ranges) {
    if (requireArray(json, place).size() != ranges.size()) {
        throw BusFileError(place + ": not " + std::to_string(ranges.size()) + " numbers");
    }
    auto range = ranges.begin();
    return readItems(json, place, [&](const Json& number, const std::string& where) {
        const auto [min, max] = *range++;
        return readNumber(number, where, min, max);
    });
}

// "all", or a list of numbers, or {"every": n}.
Selection readSelection(const Json& json, const std::string& place) {
    Selection selection;
    if (json.is_object()) {
        FieldReader fields(json, place);
        fields.require("every");
        selection.every = static_cast<std::uint32_t>(fields.number("every", 0, 1, kMax32));
        fields.finish();
        return selection;
    }
    if (json == "all") {
        selection.all = true;
        return selection;
    }
    if (!json.is_array()) {
        throw BusFileError(place + ": not \"all\", a list of numbers or {\"every\": n}");
    }
    for (const std::int64_t number :
         readItems(json, place, [](const Json&item, const std::string&where) {
             return readNumber(item, where, 1, kMax32);
         })) {
        selection.numbers.insert(static_cast<std::uint32_t>(number));
    }
    return selection;
}

vanid_t readIdentifier(const Json& json, const std::string& place) {
    const auto id = parseIdentifier(json.is_string() ? json.get<std::string>() : "");
    if (!id || isBroadcast(*id)) {
        throw BusFileError(place + ": not a device's identifier");
    }
    return *id;
}

std::string readName(FieldReader& fields) {
    std::string name = fields.text("name");
    if (name.size() > kNameBytes) {
        throw BusFileError(fields.placeOf("name") + ": longer than " + std::to_string(kNameBytes) +
                           " bytes");
    }
    return name;
}

Versions readVersions(FieldReader& fields) {
    Versions versions;
    versions.hw = read32(fields, "hw", versions.hw);
    versions.arm = read32(fields, "arm", versions.arm);
    versions.dsp = read32(fields, "dsp", versions.dsp);
    versions.boosterArm = read32(fields, "booster_arm", versions.boosterArm);
    versions.api = static_cast<std::uint16_t>(fields.number("api", versions.api, 0, kMax16));
    return versions;
}

Answer readVersionAnswer(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    Answer answer{numbersOf(readVersions(fields)), {}, readName(fields)};
    fields.finish();
    return answer;
}

// What a call of the function writes.
Answer readAnswer(const Json& json, const std::string& place, Function function) {
    switch (function) {
    case Function::GetLinkState:
        return {{readFlag(json, place) ? 1 : 0}, {}, {}};
    case Function::GetBusMembers:
        return {{}, readItems(json, place, readIdentifier), {}};
    case Function::GetType:
        return {{readNumber(json, place, 0, kMax8)}, {}, {}};
    case Function::OrvinInfo:
        return readVersionAnswer(json, place);
    case Function::CheckImage:
        return {readNumbers(json, place, {{0, kMax16}, {0, kMax16}}), {}, {}};
    default:
        throw BusFileError(place + ": this call writes nothing");
    }
}

CallFault readCallFault(const Json& json, const std::string& place, Function function,
                        const std::optional<vanid_t>& device) {
    FieldReader fields(json, place);
    CallFault fault{function, device, {}};
    fault.calls = readSelection(fields.require("calls"), fields.placeOf("calls"));
    fault.result =
        static_cast<int>(fields.number("result", fault.result, kSigned32.first, kSigned32.second));
    fault.carriedOut = fields.flag("carried_out");
    fault.takes = fields.number("takes_us", 0, 0, kMaxDelay);
    if (const Json* const answer = fields.find("answer")) {
        fault.answer = readAnswer(*answer, fields.placeOf("answer"), function);
    }
    if (function == Function::GetBusMembers && fault.result > 0 && !fault.answer &&
        !fault.carriedOut) {
        throw BusFileError(fields.placeOf("result") + ": would invent members");
    }
    fields.finish();
    return fault;
}

// Adds the calls of `function` that the field `name` lets end otherwise, if there is one: an object
// or a list of them.
void readCallFaults(FieldReader& parent, const char* name, Function function,
                    const std::optional<vanid_t>& device, std::vector<CallFault>& faults) {
    const Json* const json = parent.find(name);
    if (json == nullptr) {
        return;
    }
    const auto readOne = [&](const Json& item, const std::string& place) {
        return readCallFault(item, place, function, device);
    };
    const std::string place = parent.placeOf(name);
    const auto all = json->is_array() ? readItems(*json, place, readOne)
                                      : std::vector<CallFault>{readOne(*json, place)};
    faults.insert(faults.end(), all.begin(), all.end());
}

// Every packet that the field `name` selects, if there is one.
void readSelectedPackets(FieldReader& parent, const char* name, PacketFault::Kind kind,
                         std::vector<PacketFault>& faults) {
    if (const Json* const json = parent.find(name)) {
        faults.push_back({kind, readSelection(*json, parent.placeOf(name)), {}, {}});
    }
}

std::optional<std::uint32_t> readTimes(FieldReader& fields) {
    const Json* const times = fields.find("times");
    if (times != nullptr && *times == "always") {
        return std::nullopt;
    }
    return read32(fields, "times", 1);
}

PacketFault readGoBack(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    fields.require("at");
    fields.require("to");
    PacketFault fault = PacketFault::next(PacketFault::Kind::GoBack, read32(fields, "to", 0));
    fault.number = read32(fields, "at", 0);
    fault.times = readTimes(fields);
    fields.finish();
    return fault;
}

PacketFault readFaultResult(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    fields.require("at");
    PacketFault fault = PacketFault::next(
        PacketFault::Kind::Result, fields.number("result", 1, kSigned32.first, kSigned32.second));
    fault.number = read32(fields, "at", 0);
    fault.times = std::nullopt;
    if (fault.value == kReceivedResult || fault.value == kGoBackResult) {
        throw BusFileError(fields.placeOf("result") + ": not a fault's result");
    }
    fields.finish();
    return fault;
}

PacketFault readLate(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    fields.require("at");
    fields.require("us");
    PacketFault fault =
        PacketFault::next(PacketFault::Kind::Late, fields.number("us", 0, 0, kMaxMicroseconds));
    fault.number = read32(fields, "at", 0);
    fault.times = readTimes(fields);
    fields.finish();
    return fault;
}

KeepsOldVersion readKeepsOldVersion(FieldReader& fields, const char* name) {
    const Json* const json = fields.find(name);
    if (json == nullptr) {
        return KeepsOldVersion::Never;
    }
    if (*json == "once") {
        return KeepsOldVersion::Once;
    }
    if (*json == "always") {
        return KeepsOldVersion::Always;
    }
    throw BusFileError(fields.placeOf(name) + ": neither \"once\" nor \"always\"");
}

std::vector<PacketFault> readPacketFaults(FieldReader& fields) {
    using Kind = PacketFault::Kind;
    std::vector<PacketFault> faults;
    readSelectedPackets(fields, "loses_packets", Kind::Lost, faults);
    readSelectedPackets(fields, "damages_packets", Kind::Damaged, faults);
    using ReadItem = PacketFault (*)(const Json&, const std::string&);
    const std::pair<const char*, ReadItem> lists[] = {
        {"fault_result", readFaultResult}, {"go_back", readGoBack}, {"late", readLate}};
    for (const auto& [name, readItem] : lists) {
        const std::vector<PacketFault> items = readList(fields, name, readItem);
        faults.insert(faults.end(), items.begin(), items.end());
    }
    readSelectedPackets(fields, "acknowledges_twice", Kind::Twice, faults);
    return faults;
}

void readDeviceFaults(const Json& json, const std::string& place, MemberDescription& member,
                      std::vector<CallFault>& callFaults) {
    FieldReader fields(json, place);
    const std::pair<const char*, Function> calls[] = {
        {"type_query", Function::GetType},      {"is_talm", Function::IsTalm},
        {"version_query", Function::OrvinInfo}, {"write_request", Function::WriteRequest},
        {"check", Function::CheckImage},        {"start", Function::StartUpdate}};
    for (const auto& [name, function] : calls) {
        readCallFaults(fields, name, function, member.id, callFaults);
    }
    member.faults.packets = readPacketFaults(fields);
    member.faults.ignoresRepeats = fields.flag("ignores_repeats");
    member.faults.neverReturns = fields.flag("never_returns");
    member.faults.keepsOldVersion = readKeepsOldVersion(fields, "keeps_old_version");
    member.faults.reportsBack = static_cast<int>(fields.number("reports_back", 1, 0, 100));
    fields.finish();
}

Versions readVersions(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    const Versions versions = readVersions(fields);
    fields.finish();
    return versions;
}

// A number: acknowledged so much later. A list: the transfer callbacks, each with its delay, result
// and packet.
std::vector<PacketAnswer> readReplies(const Json& json, const std::string& place) {
    if (json.is_number()) {
        return {{readNumber(json, place, 0, kMaxDelay)}};
    }
    return readItems(json, place, [](const Json& reply, const std::string& where) {
        const auto numbers = readNumbers(reply, where, {{0, kMaxDelay}, kSigned32, {0, kMax32}});
        return PacketAnswer{numbers[0], static_cast<std::int32_t>(numbers[1]),
                            static_cast<std::uint32_t>(numbers[2])};
    });
}

std::vector<BusChange> readChanges(const Json& json, const std::string& place) {
    return readItems(json, place, [](const Json& change, const std::string& where) {
        const auto numbers = readNumbers(change, where, {{0, kMaxDelay}, {0, kMax32}});
        return BusChange{numbers[0], static_cast<std::uint32_t>(numbers[1])};
    });
}

History readHistory(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    History history;
    history.packets = readList(fields, "packets", readReplies);
    history.changes = readList(fields, "changes", readChanges);
    fields.finish();
    return history;
}

DeviceTiming readTiming(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    DeviceTiming timing;
    timing.acknowledge = fields.number("acknowledge_us", timing.acknowledge, 0, kMaxMicroseconds);
    timing.acknowledgeJitter = fields.number("acknowledge_jitter_us", 0, 0, kMaxMicroseconds);
    timing.busy = fields.number("busy_us", 0, 0, kMaxMicroseconds);
    timing.check = readMilliseconds(fields, "check_ms", timing.check);
    timing.install = readMilliseconds(fields, "install_ms", timing.install);
    timing.restart = readMilliseconds(fields, "restart_ms", timing.restart);
    fields.finish();
    return timing;
}

void readOrvin(FieldReader& fields, MemberDescription& member) {
    member.name = readName(fields);
    member.versions = readVersions(fields.require("versions"), fields.placeOf("versions"));
    if (const Json* const timing = fields.find("timing")) {
        member.timing = readTiming(*timing, fields.placeOf("timing"));
    }
}

MemberDescription readMember(const Json& json, const std::string& place,
                             std::vector<CallFault>& callFaults) {
    FieldReader fields(json, place);
    MemberDescription member;
    member.id = readIdentifier(fields.require("id"), fields.placeOf("id"));
    fields.require("type");
    member.type = static_cast<std::uint8_t>(fields.number("type", 0, 0, kMax8));
    member.onBus = fields.flag("on_bus", true);
    if (member.type == kOrvinType) {
        readOrvin(fields, member);
    }
    if (const Json* const faults = fields.find("faults")) {
        readDeviceFaults(*faults, fields.placeOf("faults"), member, callFaults);
    }
    if (const Json* const history = fields.find("history")) {
        member.history =
            std::make_shared<History>(readHistory(*history, fields.placeOf("history")));
    }
    fields.finish();
    return member;
}

void rejectDuplicates(const std::vector<MemberDescription>& members) {
    std::set<std::string> seen;
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (!seen.insert(identifierText(members[i].id)).second) {
            throw BusFileError("/members/" + std::to_string(i) + "/id: there already");
        }
    }
}

void readBusFaults(FieldReader& parent, BusDescription& bus) {
    const Json* const json = parent.find("faults");
    if (json == nullptr) {
        return;
    }
    FieldReader fields(*json, parent.placeOf("faults"));
    const std::pair<const char*, Function> calls[] = {
        {"open", Function::Open},
        {"link_state", Function::GetLinkState},
        {"get_members", Function::GetBusMembers},
        {"data", Function::Data},
        {"set_transfer_callback", Function::SetTransferCallback},
        {"set_bus_change_callback", Function::SetBusChangeCallback},
        {"cleanup", Function::Cleanup},
        {"close", Function::Close}};
    for (const auto& [name, function] : calls) {
        readCallFaults(fields, name, function, std::nullopt, bus.callFaults);
    }
    fields.finish();
}

LinkDrop readLinkDrop(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    LinkDrop drop;
    fields.require("at_ms");
    fields.require("for_ms");
    drop.at = readMilliseconds(fields, "at_ms", 0);
    drop.duration = readMilliseconds(fields, "for_ms", 0);
    fields.finish();
    return drop;
}

void readLink(FieldReader& parent, BusDescription& bus) {
    const Json* const json = parent.find("link");
    if (json == nullptr) {
        return;
    }
    FieldReader fields(*json, parent.placeOf("link"));
    bus.linkActiveAfter = readMilliseconds(fields, "active_after_ms", 0);
    bus.linkDrops = readList(fields, "drops", readLinkDrop);
    fields.finish();
}

// Relative paths in a bus file start where the file is.
void resolve(std::string& path, const std::string& busFile) {
    if (!path.empty()) {
        path = (std::filesystem::path(busFile).parent_path() / path).string();
    }
}

Json hexadecimal(std::uint32_t value, int digits) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*x", digits, value);
    return text;
}

}  // namespace

Json parseBusFile(const std::string& text) {
    try {
        return Json::parse(text);
    } catch (const Json::exception& error) {
        // "[json.exception.parse_error.101] parse error at line 1, column 2: ..."
        const std::string message = error.what();
        const std::size_t place = message.find("line ");
        throw BusFileError(place == std::string::npos ? "the whole file: " + message
                                                      : message.substr(place));
    }
}

BusDescription describeBus(const Json& json) {
    FieldReader fields(json, "");
    BusDescription bus;
    fields.require("members");
    bus.members = readList(fields, "members", [&](const Json& member, const std::string& place) {
        return readMember(member, place, bus.callFaults);
    });
    rejectDuplicates(bus.members);
    readLink(fields, bus);
    readBusFaults(fields, bus);
    bus.seed = read32(fields, "seed", bus.seed);
    bus.trace = fields.text("trace");
    bus.store = fields.text("store");
    fields.finish();
    return bus;
}

BusFile::BusFile(std::string name)
    : path(std::move(name)),
      file(path),
      json(parseBusFile(file.read())),
      contents(describeBus(json)) {
    resolve(contents.trace, path);
    resolve(contents.store, path);
}

void BusFile::storeMember(std::size_t member, const Versions& versions, bool onBus) {
    if (!onBus) {
        json["members"][member]["on_bus"] = false;
    }
    Json& stored = json["members"][member]["versions"];
    stored["hw"] = hexadecimal(versions.hw, 8);
    stored["arm"] = hexadecimal(versions.arm, 8);
    stored["dsp"] = hexadecimal(versions.dsp, 8);
    stored["booster_arm"] = hexadecimal(versions.boosterArm, 8);
    stored["api"] = hexadecimal(versions.api, 4);
    if (!file.replace(json.dump(2) + '\n')) {
        std::fprintf(stderr, "bus file '%s': cannot be written: %s\n", path.c_str(),
                     std::strerror(errno));
    }
}

}  // namespace sim
