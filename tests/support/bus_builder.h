#ifndef TESTS_SUPPORT_BUS_BUILDER_H
#define TESTS_SUPPORT_BUS_BUILDER_H

#include <nlohmann/json.hpp>
#include <string>

using Json = nlohmann::ordered_json;

constexpr std::uint32_t kArm = 0x200;
constexpr std::uint32_t kDsp = 0x201;
constexpr std::uint32_t kBooster = 0x202;
constexpr std::uint32_t kOldVersion = 0x00010000;  // what every device runs at first
constexpr std::uint32_t kNewVersion = 0x00010001;

// The identifier text of the device that the tests call by this number.
std::string orvinId(int number);

// Composes a bus file.
class BusBuilder {
public:
    BusBuilder& member(int number, int type, const Json& faults = nullptr);
    BusBuilder& orvin(int number, const Json& faults = nullptr, const Json& timing = nullptr);
    BusBuilder& orvins(int first, int last);

    // A field of the whole bus.
    BusBuilder& with(const char* field, const Json& value);

    // The last member added, for what the above do not cover.
    Json& last() { return json_["members"].back(); }

    std::string text() const { return json_.dump(2); }

private:
    Json json_ = {{"members", Json::array()}};
};

#endif
