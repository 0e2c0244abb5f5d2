#include "sim/bus_file/members.h"

#include <memory>
#include <set>

#include "common/vanid_text.h"
#include "sim/bus_file/bus_file_error.h"
#include "sim/bus_file/faults.h"
#include "sim/bus_file/replay_script.h"
#include "sim/bus_file/values.h"

namespace sim {

namespace {

Versions readVersions(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    const Versions versions = readVersions(fields);
    fields.finish();
    return versions;
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
        member.faults = readDeviceFaults(*faults, fields.placeOf("faults"), member.id, callFaults);
    }
    if (const Json* const replay = fields.find("replay")) {
        member.replay =
            std::make_shared<ReplayScript>(readReplayScript(*replay, fields.placeOf("replay")));
    }
    fields.finish();
    return member;
}

void rejectDuplicates(const std::vector<MemberDescription>& members) {
    std::set<std::string> seen;
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (!seen.insert(formatVanid(members[i].id)).second) {
            throw BusFileError("/members/" + std::to_string(i) + "/id: duplicate id");
        }
    }
}

}  // namespace

std::vector<MemberDescription> readMembers(FieldReader& fields,
                                           std::vector<CallFault>& callFaults) {
    fields.require("members");
    auto members = readList(fields, "members", [&](const Json& member, const std::string& place) {
        return readMember(member, place, callFaults);
    });
    rejectDuplicates(members);
    return members;
}

}  // namespace sim
