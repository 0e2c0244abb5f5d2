#include "sim/bus_file/field_reader.h"

#include <utility>

#include "sim/bus_file/bus_file_error.h"

namespace sim {

namespace {

[[noreturn]] void reject(const std::string& place, const std::string& reason) {
    throw BusFileError((place.empty() ? "the whole file" : place) + ": " + reason);
}

// A number written as a string: "0x" and one to eight hexadecimal digits.
std::int64_t readHexadecimal(const std::string& text, const std::string& place) {
    constexpr char kDigits[] = "0123456789abcdefABCDEF";
    constexpr std::size_t kMaxLength = 10;
    if (text.compare(0, 2, "0x") != 0 || text.size() < 3 || text.size() > kMaxLength ||
        text.find_first_not_of(kDigits, 2) != std::string::npos) {
        reject(place, "expected a number or a string like \"0x1f\"");
    }
    return std::stoll(text, nullptr, 16);
}

}  // namespace

FieldReader::FieldReader(const Json& object, std::string where)
    : json(object), place(std::move(where)) {
    if (!json.is_object()) {
        reject(place, "expected an object");
    }
}

const Json* FieldReader::find(const char* name) {
    known.insert(name);
    const auto found = json.find(name);
    return found == json.end() ? nullptr : &*found;
}

const Json& FieldReader::require(const char* name) {
    const Json* const field = find(name);
    if (field == nullptr) {
        reject(place, std::string("missing \"") + name + '"');
    }
    return *field;
}

std::int64_t FieldReader::number(const char* name, std::int64_t fallback, std::int64_t min,
                                 std::int64_t max) {
    const Json* const field = find(name);
    return field == nullptr ? fallback : readNumber(*field, placeOf(name), min, max);
}

bool FieldReader::flag(const char* name, bool fallback) {
    const Json* const field = find(name);
    return field == nullptr ? fallback : readFlag(*field, placeOf(name));
}

std::string FieldReader::text(const char* name) {
    const Json* const field = find(name);
    if (field == nullptr) {
        return {};
    }
    if (!field->is_string()) {
        reject(placeOf(name), "expected a string");
    }
    return field->get<std::string>();
}

std::string FieldReader::placeOf(const std::string& name) const {
    return place + '/' + name;
}

void FieldReader::finish() const {
    for (const auto& field : json.items()) {
        if (known.count(field.key()) == 0) {
            reject(placeOf(field.key()), "unknown field");
        }
    }
}

std::int64_t readNumber(const Json& json, const std::string& place, std::int64_t min,
                        std::int64_t max) {
    if (!json.is_number_integer() && !json.is_string()) {
        reject(place, "expected an integer");
    }
    const std::int64_t value = json.is_string() ? readHexadecimal(json.get<std::string>(), place)
                                                : json.get<std::int64_t>();
    const bool tooLarge = json.is_number_unsigned() && value < 0;  // needs more than 63 bits
    if (tooLarge || value < min || value > max) {
        reject(place, "out of range " + std::to_string(min) + " to " + std::to_string(max));
    }
    return value;
}

bool readFlag(const Json& json, const std::string& place) {
    if (!json.is_boolean()) {
        reject(place, "expected true or false");
    }
    return json.get<bool>();
}

}  // namespace sim
