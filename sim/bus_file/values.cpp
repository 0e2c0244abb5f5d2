#include "sim/bus_file/values.h"

#include "common/vanid_text.h"
#include "sim/bus_file/bus_file_error.h"

namespace sim {

std::uint32_t read32(FieldReader& fields, const char* name, std::uint32_t fallback) {
    return static_cast<std::uint32_t>(fields.number(name, fallback, 0, kMax32));
}

Microseconds readMilliseconds(FieldReader& fields, const char* name, Microseconds fallback) {
    return kMillisecond * fields.number(name, fallback / kMillisecond, 0, kMaxMilliseconds);
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

std::string readName(FieldReader& fields) {
    std::string name = fields.text("name");
    if (name.size() > kNameBytes) {
        throw BusFileError(fields.placeOf("name") + ": longer than " + std::to_string(kNameBytes) +
                           " bytes");
    }
    return name;
}

const Json& requireArray(const Json& json, const std::string& place) {
    if (!json.is_array()) {
        throw BusFileError(place + ": expected an array");
    }
    return json;
}

std::vector<std::int64_t> readNumbers(const Json& json, const std::string& place,
                                      const std::vector<Range>& ranges) {
    if (requireArray(json, place).size() != ranges.size()) {
        throw BusFileError(place + ": expected " + std::to_string(ranges.size()) + " numbers");
    }
    auto range = ranges.begin();
    return readItems(json, place, [&](const Json& number, const std::string& where) {
        const auto [min, max] = *range++;
        return readNumber(number, where, min, max);
    });
}

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
        throw BusFileError(place + ": expected \"all\", a list of numbers or {\"every\": n}");
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
    const auto id = parseStrictVanid(json.is_string() ? json.get<std::string>() : "");
    if (!id || isBroadcastVanid(*id)) {
        throw BusFileError(place + ": expected a device's identifier");
    }
    return *id;
}

}  // namespace sim
