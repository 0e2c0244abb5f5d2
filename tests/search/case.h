// One run of the tool with faults, and the devices that the faults may affect.
#ifndef TESTS_SEARCH_CASE_H
#define TESTS_SEARCH_CASE_H

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/tool_run.h"

constexpr sim::Microseconds kSecond = 1'000'000;

// An image file for the tool.
struct Image {
    std::string name;
    std::uint32_t target = 0;
    std::uint32_t version = 0;
    std::string file;     // all bytes
    std::string content;  // the bytes that are sent; empty: the file is invalid
};

// What a test can no longer expect because of a fault.
enum class Harm {
    None,
    Device,      // that its device is upgraded, or not dropped
    Upgrade,     // that any device is upgraded; still none may be dropped
    AllDevices,  // anything of any device
};

// What a fault affects; of two at one call and place, only one counts. Lock: a callback when the
// tool takes the lock of the device list, with no fault of the bus.
enum class Place { Result, Link, Power, Packet, Lock };

// A fault at one of the tool's calls.
struct Fault {
    Place place = Place::Result;
    std::string device = {};  // empty: none
    Harm harm = Harm::None;
    std::string what = {};
    std::function<void(sim::Bus&)> strike = {};  // at each of its calls; empty: it is a result
    sim::Function function = {};                 // whose calls to the device have that result
    sim::InjectedResult result = {};
    std::size_t call = 0;  // counted from 0, callbacks as well; at a lock, the acquisition
    std::size_t last = 0;  // the call until which it stays; before its own: it does not
};

struct Case {
    std::string name;
    ToolSetup setup;
    std::vector<Image> images;
    std::vector<Fault> faults;
    bool failsToClear = false;      // the library clears no callback
    std::set<std::string> spoiled;  // devices that may be dropped, or left without the upgrade
    Harm harm = Harm::None;         // the worst harm to all devices

    // With that many Orvins with old firmware, and a status file.
    Case(const std::string& itsName, int orvins, const std::vector<std::string>& arguments,
         const std::vector<Image>& itsImages);

    bool has(const std::string& argument) const;
    void addImage(const Image& image);
    Case with(const Fault& fault) const;
};

Image imageOf(const std::string& name, std::uint32_t target, std::uint32_t version,
              std::size_t contentSize);

// The tool's own thread takes the lock of the device list, for which callbacks may have waited.
struct Acquisition {
    std::size_t pending = 0;             // events of the bus
    std::optional<std::int64_t> packet;  // in flight, while the transfer goes on
    bool isRegistered = false;           // a callback may come, as one was set before
};

// Appends all acquisitions of the run, unless the list is null.
ToolRun runCase(const Case& searched, std::vector<Acquisition>* acquisitions = nullptr);

// The identifier of the device that a call goes to; empty for none.
std::string deviceOf(const sim::Call& call);

// Each starts at the call, or acquisition, with the number `from`, and goes in their order.
using FaultsOf = std::vector<Fault> (*)(const Case& searched, std::size_t from);

// Every fault that can strike at a call of the case's run.
std::vector<Case> baseCases();
std::vector<Fault> faultsOf(const Case& searched, std::size_t from);

// Every callback that may come when the tool takes the lock of the device list. In these small
// cases, the library clears no callback.
std::vector<Case> interleavingCases();
std::vector<Fault> callbacksOf(const Case& searched, std::size_t from);

// What is wrong with the run of a case, one line each.
using Findings = std::vector<std::string>;

// The promises of docs/reliability.md that it breaks.
Findings brokenPromises(const Case& searched, const ToolRun& run);

// The differences of a second run, on the bus that `orvin-recording bus` makes of a recording.
Findings differencesWhenRepeated(const Case& searched, const ToolRun& run);

// What `orvin-recording check` says against the bus libraries without a fault that causes it.
Findings wrongAccusations(const Case& searched, const ToolRun& run);

#endif
