#ifndef SIM_BUS_FILE_FIELD_READER_H
#define SIM_BUS_FILE_FIELD_READER_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

namespace sim {

using Json = nlohmann::ordered_json;

// Reads the fields of one JSON object. Every error names the place; a field that was not asked
// for is an error, too, since a fault with a misspelt name would be a healthy device.
class FieldReader {
public:
    // `object` must outlive the reader. Throws BusFileError unless it is an object.
    FieldReader(const Json& object, std::string where);

    // Null when the field is absent.
    const Json* find(const char* name);
    const Json& require(const char* name);

    // The value, or `fallback` when the field is absent. A number may be written as a text in
    // hexadecimal, with 0x in front.
    std::int64_t number(const char* name, std::int64_t fallback, std::int64_t min,
                        std::int64_t max);
    bool flag(const char* name, bool fallback = false);
    std::string text(const char* name);

    // The place of a field, as a JSON pointer.
    std::string placeOf(const std::string& name) const;

    // Throws when the object has a field that was not asked for.
    void finish() const;

private:
    const Json& json;
    const std::string place;
    std::set<std::string> known;
};

std::int64_t readNumber(const Json& json, const std::string& place, std::int64_t min,
                        std::int64_t max);
bool readFlag(const Json& json, const std::string& place);

}  // namespace sim

#endif
