#ifndef SIM_BUS_FILE_FIELD_READER_H
#define SIM_BUS_FILE_FIELD_READER_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

namespace sim {

using Json = nlohmann::ordered_json;

// Reads the fields of one JSON object. Every error names the place. A field that was not read is an
// error, because a fault with a misspelt name would otherwise be ignored.
class FieldReader {
public:
    // `object` must outlive the reader. Throws BusFileError if it is not an object.
    FieldReader(const Json& object, std::string where);

    // Null if the field is absent.
    const Json* find(const char* name);
    const Json& require(const char* name);

    // The value, or `fallback` if the field is absent. A number may be a hexadecimal string with
    // the prefix 0x.
    std::int64_t number(const char* name, std::int64_t fallback, std::int64_t min,
                        std::int64_t max);
    bool flag(const char* name, bool fallback = false);
    std::string text(const char* name);

    // The place of a field, as a JSON pointer.
    std::string placeOf(const std::string& name) const;

    // Throws if the object has a field that was not read.
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
