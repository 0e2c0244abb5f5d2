#include "sim/bus_file/faults.h"

#include <optional>

#include "common/transfer_result.h"
#include "sim/bus_file/bus_file_error.h"
#include "sim/bus_file/values.h"

namespace sim {

namespace {

// ---- call faults ----

Answer readVersionAnswer(const Json& json, const std::string& place) {
    FieldReader fields(json, place);
    Answer answer{numbersOf(readVersions(fields)), {}, readName(fields)};
    fields.finish();
    return answer;
}

// Reads the outputs of a call of the function.
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
        throw BusFileError(place + ": this call has no outputs");
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
        throw BusFileError(fields.placeOf("result") + ": more than 0 members need an \"answer\"");
    }
    fields.finish();
    return fault;
}

// Adds the call faults of `function` from the field `name`, if present: an object or a list of
// objects.
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

// ---- packet faults ----

// Adds a fault for the packets that the field `name` selects, if present.
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

// Describes the field `name`, a list of faults of packets with certain numbers.
struct NumberedFaults {
    const char* name;
    PacketFault::Kind kind;
    const char* valueName;  // the field of PacketFault::value
    Range range;
    std::optional<std::int64_t> fallback;  // none: the value is required
    bool always;                           // false: the field "times" says how often
};

PacketFault readNumberedFault(const Json& json, const std::string& place,
                              const NumberedFaults& list) {
    FieldReader fields(json, place);
    fields.require("at");
    if (!list.fallback) {
        fields.require(list.valueName);
    }
    PacketFault fault =
        PacketFault::next(list.kind, fields.number(list.valueName, list.fallback.value_or(0),
                                                   list.range.first, list.range.second));
    fault.number = read32(fields, "at", 0);
    fault.times = list.always ? std::nullopt : readTimes(fields);
    if (fault.kind == PacketFault::Kind::Result &&
        (fault.value == kPacketReceived || fault.value == kGoBack)) {
        throw BusFileError(fields.placeOf(list.valueName) + ": 0 and 17 are no faults");
    }
    fields.finish();
    return fault;
}

std::vector<PacketFault> readPacketFaults(FieldReader& fields) {
    using Kind = PacketFault::Kind;
    static const NumberedFaults kLists[] = {
        {"fault_result", Kind::Result, "result", kSigned32, 1, true},
        {"go_back", Kind::GoBack, "to", {0, kMax32}, std::nullopt, false},
        {"late", Kind::Late, "us", {0, kMaxMicroseconds}, std::nullopt, false},
    };
    std::vector<PacketFault> faults;
    readSelectedPackets(fields, "loses_packets", Kind::Lost, faults);
    readSelectedPackets(fields, "damages_packets", Kind::Damaged, faults);
    for (const NumberedFaults& list : kLists) {
        const std::vector<PacketFault> items =
            readList(fields, list.name, [&list](const Json& item, const std::string& place) {
                return readNumberedFault(item, place, list);
            });
        faults.insert(faults.end(), items.begin(), items.end());
    }
    readSelectedPackets(fields, "acknowledges_twice", Kind::Twice, faults);
    return faults;
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
    throw BusFileError(fields.placeOf(name) + ": expected \"once\" or \"always\"");
}

}  // namespace

DeviceFaults readDeviceFaults(const Json& json, const std::string& place, const vanid_t& device,
                              std::vector<CallFault>& callFaults) {
    FieldReader fields(json, place);
    DeviceFaults faults;
    const std::pair<const char*, Function> calls[] = {
        {"type_query", Function::GetType},      {"is_talm", Function::IsTalm},
        {"version_query", Function::OrvinInfo}, {"write_request", Function::WriteRequest},
        {"check", Function::CheckImage},        {"start", Function::StartUpdate}};
    for (const auto& [name, function] : calls) {
        readCallFaults(fields, name, function, device, callFaults);
    }
    faults.packets = readPacketFaults(fields);
    faults.ignoresRepeats = fields.flag("ignores_repeats");
    faults.neverReturns = fields.flag("never_returns");
    faults.keepsOldVersion = readKeepsOldVersion(fields, "keeps_old_version");
    faults.reportsBack = static_cast<int>(fields.number("reports_back", 1, 0, 100));
    fields.finish();
    return faults;
}

void readBusFaults(const Json& json, const std::string& place, std::vector<CallFault>& callFaults) {
    FieldReader fields(json, place);
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
        readCallFaults(fields, name, function, std::nullopt, callFaults);
    }
    fields.finish();
}

}  // namespace sim
