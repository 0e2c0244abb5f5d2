#include "sim/bus_file/replay_script.h"

#include "sim/bus_file/values.h"

namespace sim {

namespace {

// A number is the delay of an acknowledgement. A list has the transfer callbacks, each with delay,
// result and packet number.
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

}  // namespace

ReplayScript readReplayScript(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    ReplayScript script;
    script.packets = readList(fields, "packets", readReplies);
    script.changes = readList(fields, "changes", readChanges);
    fields.finish();
    return script;
}

}  // namespace sim
