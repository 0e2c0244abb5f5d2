#include "sim/bus_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <utility>

#include "sim/identifier.h"

namespace sim {

namespace {

constexpr std::int64_t kMax32 = std::numeric_limits<std::uint32_t>::max();
constexpr std::int64_t kMaxMicroseconds = kMax32;
constexpr std::int64_t kMaxMilliseconds = 100'000'000;  // a little more than a day
constexpr Microseconds kMillisecond = 1'000;

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
    for (std::size_t i = 0; i < json.size(); ++i) {
        const std::string item = place + '/' + std::to_string(i);
        selection.numbers.insert(static_cast<std::uint32_t>(readNumber(json[i], item, 1, kMax32)));
    }
    return selection;
}

Selection readSelection(FieldReader& fields, const char* name) {
    const Json* const json = fields.find(name);
    return json == nullptr ? Selection() : readSelection(*json, fields.placeOf(name));
}

CallFault readCallFault(FieldReader& parent, const char* name) {
    const Json* const json = parent.find(name);
    if (json == nullptr) {
        return {};
    }
    FieldReader fields(*json, parent.placeOf(name));
    CallFault fault;
    fault.calls = readSelection(fields.require("calls"), fields.placeOf("calls"));
    fault.result = static_cast<int>(fields.number("result", fault.result,
                                                  std::numeric_limits<std::int32_t>::min(),
                                                  std::numeric_limits<std::int32_t>::max()));
    if (fault.result == 0) {
        throw BusFileError(fields.placeOf("result") + ": 0 is no fault");
    }
    fields.finish();
    return fault;
}

GoBack readGoBack(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    GoBack goBack;
    fields.require("at");
    fields.require("to");
    goBack.at = read32(fields, "at", 0);
    goBack.to = read32(fields, "to", 0);
    const Json* const times = fields.find("times");
    if (times != nullptr && *times == "always") {
        goBack.times = std::nullopt;
    } else {
        goBack.times = read32(fields, "times", 1);
    }
    fields.finish();
    return goBack;
}

FaultResult readFaultResult(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    FaultResult fault;
    fields.require("at");
    fault.at = read32(fields, "at", 0);
    fault.result = static_cast<std::int32_t>(
        fields.number("result", fault.result, std::numeric_limits<std::int32_t>::min(),
                      std::numeric_limits<std::int32_t>::max()));
    if (fault.result == kReceivedResult || fault.result == kGoBackResult) {
        throw BusFileError(fields.placeOf("result") + ": not a fault's result");
    }
    fields.finish();
    return fault;
}

template <typename Item>
std::vector<Item> readList(FieldReader& parent, const char* name,
                           Item (*readItem)(const Json&, const std::string&)) {
    std::vector<Item> items;
    const Json* const json = parent.find(name);
    if (json == nullptr) {
        return items;
    }
    const std::string place = parent.placeOf(name);
    for (const Json& item : requireArray(*json, place)) {
        items.push_back(readItem(item, place + '/' + std::to_string(items.size())));
    }
    return items;
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

DeviceFaults readDeviceFaults(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    DeviceFaults faults;
    faults.present = true;
    faults.losesPackets = readSelection(fields, "loses_packets");
    faults.acknowledgesTwice = readSelection(fields, "acknowledges_twice");
    faults.goBack = readList(fields, "go_back", readGoBack);
    faults.faultResults = readList(fields, "fault_result", readFaultResult);
    faults.typeQuery = readCallFault(fields, "type_query");
    faults.versionQuery = readCallFault(fields, "version_query");
    faults.writeRequest = readCallFault(fields, "write_request");
    faults.check = readCallFault(fields, "check");
    faults.start = readCallFault(fields, "start");
    faults.neverReturns = fields.flag("never_returns");
    faults.keepsOldVersion = readKeepsOldVersion(fields, "keeps_old_version");
    faults.reportsBack = static_cast<int>(fields.number("reports_back", 1, 0, 100));
    fields.finish();
    return faults;
}

Versions readVersions(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    Versions versions;
    versions.hw = read32(fields, "hw", versions.hw);
    versions.arm = read32(fields, "arm", versions.arm);
    versions.dsp = read32(fields, "dsp", versions.dsp);
    versions.boosterArm = read32(fields, "booster_arm", versions.boosterArm);
    versions.api = static_cast<std::uint16_t>(
        fields.number("api", versions.api, 0, std::numeric_limits<std::uint16_t>::max()));
    fields.finish();
    return versions;
}

DeviceTiming readTiming(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    DeviceTiming timing;
    timing.acknowledge = fields.number("acknowledge_us", timing.acknowledge, 0, kMaxMicroseconds);
    timing.acknowledgeJitter = fields.number("acknowledge_jitter_us", 0, 0, kMaxMicroseconds);
    timing.check = readMilliseconds(fields, "check_ms", timing.check);
    timing.install = readMilliseconds(fields, "install_ms", timing.install);
    timing.restart = readMilliseconds(fields, "restart_ms", timing.restart);
    fields.finish();
    return timing;
}

void readOrvin(FieldReader& fields, MemberDescription& member) {
    member.name = fields.text("name");
    if (member.name.size() > kNameBytes) {
        throw BusFileError(fields.placeOf("name") + ": longer than " + std::to_string(kNameBytes) +
                           " bytes");
    }
    member.versions = readVersions(fields.require("versions"), fields.placeOf("versions"));
    if (const Json* const timing = fields.find("timing")) {
        member.timing = readTiming(*timing, fields.placeOf("timing"));
    }
}

MemberDescription readMember(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    MemberDescription member;
    fields.require("id");
    const std::optional<vanid_t> id = parseIdentifier(fields.text("id"));
    if (!id || isBroadcast(*id)) {
        throw BusFileError(fields.placeOf("id") + ": not a device's identifier");
    }
    member.id = *id;
    fields.require("type");
    member.type = static_cast<std::uint8_t>(
        fields.number("type", 0, 0, std::numeric_limits<std::uint8_t>::max()));
    if (member.type == kOrvinType) {
        readOrvin(fields, member);
    }
    if (const Json* const faults = fields.find("faults")) {
        member.faults = readDeviceFaults(*faults, fields.placeOf("faults"));
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
    bus.open = readCallFault(fields, "open");
    bus.getMembers = readCallFault(fields, "get_members");
    bus.data = readCallFault(fields, "data");
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
    bus.members = readList(fields, "members", readMember);
    rejectDuplicates(bus.members);
    readLink(fields, bus);
    readBusFaults(fields, bus);
    bus.seed = read32(fields, "seed", bus.seed);
    bus.trace = fields.text("trace");
    bus.store = fields.text("store");
    fields.finish();
    return bus;
}

BusFile::BusFile(std::string path)
    : path_(std::move(path)),
      file_(path_),
      json_(parseBusFile(file_.read())),
      description_(describeBus(json_)) {
    resolve(description_.trace, path_);
    resolve(description_.store, path_);
}

void BusFile::storeVersions(std::size_t member, const Versions& versions) {
    Json& stored = json_["members"][member]["versions"];
    stored["hw"] = hexadecimal(versions.hw, 8);
    stored["arm"] = hexadecimal(versions.arm, 8);
    stored["dsp"] = hexadecimal(versions.dsp, 8);
    stored["booster_arm"] = hexadecimal(versions.boosterArm, 8);
    stored["api"] = hexadecimal(versions.api, 4);
    if (!file_.replace(json_.dump(2) + '\n')) {
        std::fprintf(stderr, "bus file '%s': cannot be written: %s\n", path_.c_str(),
                     std::strerror(errno));
    }
}

}  // namespace sim
