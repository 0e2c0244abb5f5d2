#include "support/bus_builder.h"

#include <cstdio>

std::string orvinId(int number) {
    char text[64];
    std::snprintf(text, sizeof text, "00:11:22:33:44:55:66:77:88:99:aa:bb:cc:dd:ee:ff:%02x",
                  static_cast<unsigned>(number));
    return text;
}

BusBuilder& BusBuilder::member(int number, int type, const Json& faults) {
    Json member = {{"id", orvinId(number)}, {"type", type}};
    if (!faults.is_null()) {
        member["faults"] = faults;
    }
    json_["members"].push_back(member);
    return *this;
}

BusBuilder& BusBuilder::orvin(int number, const Json& faults, const Json& timing) {
    member(number, 64, faults);
    last()["name"] = "Orvin " + std::to_string(number);
    last()["versions"] = {{"hw", 1},
                          {"arm", kOldVersion},
                          {"dsp", kOldVersion},
                          {"booster_arm", kOldVersion},
                          {"api", "0x30a"}};
    if (!timing.is_null()) {
        last()["timing"] = timing;
    }
    return *this;
}

BusBuilder& BusBuilder::orvins(int first, int last) {
    for (int number = first; number <= last; ++number) {
        orvin(number);
    }
    return *this;
}

BusBuilder& BusBuilder::with(const char* field, const Json& value) {
    json_[field] = value;
    return *this;
}
