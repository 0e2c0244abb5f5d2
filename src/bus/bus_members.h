#ifndef BUS_BUS_MEMBERS_H
#define BUS_BUS_MEMBERS_H

#include <cstdint>
#include <list>
#include <string>

#include "common/member_type.h"
#include "talm/vanid.h"

struct BusSession;

// One bus member found by discovery.
struct BusMember {
    vanid_t id;
    std::uint8_t type;
};

// The name of a type code; "Unknown" for one that has none.
const char* typeName(std::uint8_t type);

// Values of `orvinsOnly` below.
constexpr bool kAllMembers = false;
constexpr bool kOrvinsOnly = true;

// Appends the bus members (or only the Orvins among them), 63 at most, and sorts the list by type,
// then identifier. Returns the list's size, or the library's negative result with the list
// untouched.
int getBusMembers(const BusSession& session, std::list<BusMember>& members, bool orvinsOnly);

// Sets `*count` to the number of Orvins on the bus. False when discovery failed; the count is 0
// then.
[[nodiscard]] bool countOrvins(const BusSession& session, int* count);

// Appends one line of text per member, in the order of getBusMembers: its identifier, and unless
// `orvinsOnly` its type and for an Orvin its versions. False, with no line, when discovery failed.
bool describeBusMembers(const BusSession& session, std::list<std::string>& lines, bool orvinsOnly);

#endif
