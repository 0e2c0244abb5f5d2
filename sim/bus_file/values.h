// Shared readers of bus file values: numbers in ranges, lists, selections.
#ifndef SIM_BUS_FILE_VALUES_H
#define SIM_BUS_FILE_VALUES_H

#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "sim/bus/bus_description.h"
#include "sim/bus_file/field_reader.h"

namespace sim {

inline constexpr std::int64_t kMax8 = std::numeric_limits<std::uint8_t>::max();
inline constexpr std::int64_t kMax16 = std::numeric_limits<std::uint16_t>::max();
inline constexpr std::int64_t kMax32 = std::numeric_limits<std::uint32_t>::max();
inline constexpr std::int64_t kMaxMicroseconds = kMax32;
inline constexpr std::int64_t kMaxMilliseconds = 100'000'000;  // a little more than a day
inline constexpr Microseconds kMillisecond = 1'000;
inline constexpr Microseconds kMaxDelay = kMaxMilliseconds * kMillisecond;

using Range = std::pair<std::int64_t, std::int64_t>;
inline constexpr Range kSigned32{std::numeric_limits<std::int32_t>::min(),
                                 std::numeric_limits<std::int32_t>::max()};

// ---- fields; an absent field has the value `fallback` ----

std::uint32_t read32(FieldReader& fields, const char* name, std::uint32_t fallback);
Microseconds readMilliseconds(FieldReader& fields, const char* name, Microseconds fallback);

// Reads the fields of versions; each may be absent.
Versions readVersions(FieldReader& fields);

// Reads the name of a device; empty if it is absent.
std::string readName(FieldReader& fields);

// ---- values; each function throws BusFileError with the place ----

const Json& requireArray(const Json& json, const std::string& place);

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

// Reads a list with one number for each range.
std::vector<std::int64_t> readNumbers(const Json& json, const std::string& place,
                                      const std::vector<Range>& ranges);

// "all", or a list of numbers, or {"every": n}.
Selection readSelection(const Json& json, const std::string& place);

vanid_t readIdentifier(const Json& json, const std::string& place);

}  // namespace sim

#endif
