#include "bus/bus_members.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "bus/device_versions.h"
#include "bus/vanid_text.h"
#include "core/bus_session.h"

namespace {

constexpr int kMaxMembers = 63;
constexpr std::uint8_t kUnknownType = 0;

bool isBefore(const BusMember& a, const BusMember& b) {
    if (a.type != b.type) {
        return a.type < b.type;
    }
    return std::memcmp(a.id.bytes, b.id.bytes, sizeof a.id.bytes) < 0;
}

// False when the member is not wanted: one whose type cannot be read is never counted as an Orvin.
bool classify(const BusSession& session, BusMember& member, bool orvinsOnly) {
    if (BusMember_get_type(session.handle, member.id, &member.type) == 0) {
        return !orvinsOnly || member.type == kOrvinType;
    }
    member.type = TalmApiIsTalm(member.id) != 0 ? kBusMasterType : kUnknownType;
    return !orvinsOnly;
}

std::string describeVersions(const BusSession& session, const vanid_t& id) {
    DeviceVersions versions;
    if (!getVersion(session, id, versions)) {
        return " getVersion() failed";
    }
    char numbers[128];
    std::snprintf(numbers, sizeof numbers,
                  " (hw:%08x, arm:%08x, dsp:%08x, booster arm:%08x, api:%08x, '", versions.hw,
                  versions.arm, versions.dsp, versions.boosterArm, unsigned{versions.api});
    return numbers + versions.name + "')";
}

std::string describe(const BusSession& session, const BusMember& member) {
    char type[16];
    std::snprintf(type, sizeof type, " %-8s", typeName(member.type));
    std::string line = formatVanid(member.id) + type;
    if (member.type == kOrvinType) {
        line += describeVersions(session, member.id);
    }
    return line;
}

}  // namespace

const char* typeName(std::uint8_t type) {
    switch (type) {
    case 1:
        return "Lumnetd";
    case 2:
        return "Lumnetp";
    case kBusMasterType:
        return "Meridel";
    case 17:
        return "Meridex";
    case 32:
        return "vTalm";
    case 33:
        return "Kestrin";
    case kOrvinType:
        return "Pellix";
    case 128:
        return "Quastel";
    case 129:
        return "Tarrow";
    case 130:
        return "Hespin";
    default:
        return "Unknown";
    }
}

int getBusMembers(const BusSession& session, std::list<BusMember>& members, bool orvinsOnly) {
    vanid_t ids[kMaxMembers] = {};
    const int reported = TalmApiGetBusMembers(session.handle, ids, kMaxMembers);
    if (reported < 0) {
        return reported;
    }
    const int filled = std::min(reported, kMaxMembers);
    for (int i = 0; i < filled; ++i) {
        BusMember member{ids[i], kUnknownType};
        if (classify(session, member, orvinsOnly)) {
            members.push_back(member);
        }
    }
    members.sort(isBefore);
    return static_cast<int>(members.size());
}

bool countOrvins(const BusSession& session, int* count) {
    if (count == nullptr) {
        return false;
    }
    *count = 0;
    std::list<BusMember> members;
    const int found = getBusMembers(session, members, kOrvinsOnly);
    if (found < 0) {
        return false;
    }
    *count = found;
    return true;
}

bool describeBusMembers(const BusSession& session, std::list<std::string>& lines, bool orvinsOnly) {
    std::list<BusMember> members;
    if (getBusMembers(session, members, orvinsOnly) < 0) {
        return false;
    }
    for (const BusMember& member : members) {
        lines.push_back(orvinsOnly ? formatVanid(member.id) : describe(session, member));
    }
    return true;
}
