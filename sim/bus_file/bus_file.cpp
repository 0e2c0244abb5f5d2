#include "sim/bus_file/bus_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>

#include "sim/bus_file/bus_file_error.h"
#include "sim/bus_file/faults.h"
#include "sim/bus_file/members.h"
#include "sim/bus_file/values.h"

namespace sim {

namespace {

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
    bus.members = readMembers(fields, bus.callFaults);
    readLink(fields, bus);
    if (const Json* const faults = fields.find("faults")) {
        readBusFaults(*faults, fields.placeOf("faults"), bus.callFaults);
    }
    bus.seed = read32(fields, "seed", bus.seed);
    bus.store = fields.text("store");
    fields.finish();
    return bus;
}

BusFile::BusFile(std::string name)
    : path(std::move(name)),
      file(path),
      json(parseBusFile(file.read())),
      contents(describeBus(json)) {
    if (!contents.store.empty()) {
        contents.store = (std::filesystem::path(path).parent_path() / contents.store).string();
    }
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
