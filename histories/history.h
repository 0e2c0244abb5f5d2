// What happens between the tool, its files and a simulated bus in one run, and what is recorded of
// it.
#ifndef HISTORIES_HISTORY_H
#define HISTORIES_HISTORY_H

#include <cstdint>
#include <string>
#include <vector>

#include "histories/memory_system.h"
#include "sim/bus_description.h"

namespace histories {

using sim::Microseconds;

// An image file that the tool finds.
struct ImageFile {
    std::string name;
    std::uint32_t target = 0;
    std::uint32_t version = 0;
    std::string bytes;    // the whole file
    std::string content;  // what of it goes to the devices; empty for a file that is no image

    std::size_t packets() const { return (content.size() + 63) / 64; }
};

// What the tool is started with, and on what bus.
struct Scenario {
    std::string name;
    std::vector<std::string> arguments;
    std::vector<ImageFile> images;
    sim::BusDescription bus;
    StatusFault statusFault;

    bool has(const char* argument) const;
};

// The bus calls, by what they do.
enum class Call {
    Initialize,
    Open,
    LinkState,
    Cleanup,
    Close,
    Members,
    Type,
    IsMaster,
    Info,
    WriteRequest,
    Data,
    Check,
    Start,
    SetTransferCallback,
    SetBusChangeCallback,
};

const char* nameOf(Call call);

enum class FaultKind {
    Result,         // the call is not carried out and gives `value`
    ResultLost,     // the call is carried out, and gives `value` all the same
    WrongChecksum,  // the device's check fails
    Lost,           // the next `value` packets do not reach the device
    Answer,         // the device answers the packet with `value`
    GoBack,         // the device asks for packet `value`
    Late,           // the device's answer comes `value` microseconds later
    Twice,          // the device answers twice
    DeviceLeaves,   // the device loses its power for `value` microseconds
    LinkDrops,      // for `value` microseconds
};

// Something that goes wrong at one bus call of a run, counted from 0. A fault of the call itself
// (the first kinds, those without a packet) strikes only a call that goes to its member.
struct Fault {
    std::size_t call = 0;
    FaultKind kind = FaultKind::Result;
    int member = -1;  // of the bus description, which the fault strikes; -1: the whole bus
    std::int64_t value = 0;
};

std::string describe(const Fault& fault);

// One bus call of a run.
struct CallRecord {
    Call call = Call::Initialize;
    int member = -1;  // whom it went to; -1: nobody in particular
    int result = 0;
    Microseconds time = 0;
    std::size_t consoleLength = 0;  // what the console held before
    std::uint32_t number = 0;       // Data: packet; WriteRequest, Check, Start: target
    std::uint32_t size = 0;         // WriteRequest: content size
    sim::Versions versions;         // Info
    bool good = false;  // Data: the content's bytes; Check: equal sums; Start: the device holds the
                        // whole content; Set...Callback: cleared
};

struct History {
    bool ended = false;  // within the time limit
    int exitStatus = 0;
    std::string console;
    std::vector<std::string> messages;
    std::size_t filesLeft = 0;  // temporary files
    Microseconds duration = 0;
    std::vector<CallRecord> calls;
    std::vector<sim::Versions> finalVersions;  // of each member, once the tool is gone
};

// One run of the tool, in virtual time. The same arguments give the same history.
History run(const Scenario& scenario, const std::vector<Fault>& faults);

// How long the run may take at the most.
Microseconds timeLimit(const Scenario& scenario, const std::vector<Fault>& faults);

// How many bus calls it may make at the most: a little more than that time has room for.
std::size_t callLimit(const Scenario& scenario, const std::vector<Fault>& faults);

// All that a history shows and must not, one line each.
std::vector<std::string> violations(const Scenario& scenario, const std::vector<Fault>& faults,
                                    const History& history);

// For a reader: the calls, the console and the messages.
std::string describe(const Scenario& scenario, const History& history);

}  // namespace histories

#endif
