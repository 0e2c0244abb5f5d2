#include "search/repeat.h"

#include <limits>
#include <map>
#include <optional>
#include <set>

#include "sim/bus_file/bus_file.h"
#include "support/recording_tool.h"

namespace {

// The bus that repeats the run; none if orvin-recording refuses.
std::optional<sim::BusDescription> busOf(const ToolRun& run) {
    const RecordingAnswer answer =
        askRecordingTool(run, "bus");  // complains of a session without an end, too
    const bool isRefused = answer.complaint.find("cannot be repeated") != std::string::npos;
    return isRefused ? std::nullopt
                     : std::optional(sim::describeBus(sim::parseBusFile(answer.output)));
}

// The assumptions that a fault may break.
std::set<std::string> brokenBy(const Fault& fault) {
    const std::map<Place, std::set<std::string>> broken = {
        {Place::Result, {"results", "most", "to_all", "reset", "in_flight"}},
        {Place::Link, {}},
        {Place::Power, {"reset", "repeats"}},
        {Place::Packet, {"once", "in_flight", "repeats", "go_back"}}};
    return broken.at(fault.place);
}

}  // namespace

std::vector<std::string> differencesWhenRepeated(const Case& searched, const ToolRun& run) {
    const std::optional<sim::BusDescription> bus = busOf(run);
    const bool hasHandle = run.records.size() > 1;  // without one, there is no bus
    if (!bus || !hasHandle) {
        return std::vector<std::string>(bus || hasHandle ? 1 : 0, "wrongly refused, or not");
    }
    Case repeated = searched;
    repeated.setup.bus = *bus;
    for (Fault& fault : repeated.faults) {
        fault.call = std::numeric_limits<std::size_t>::max();  // never occurs
    }
    const ToolRun second = runCase(repeated);
    std::vector<std::string> differences;
    if (second.console != run.console) {
        differences.push_back("repeated, the console is:\n" + second.console);
    }
    if (second.messages != run.messages) {
        differences.emplace_back("repeated, the status messages are different");
    }
    if (second.ended != run.ended || second.exitStatus != run.exitStatus) {
        differences.emplace_back("repeated, the run ends in another way");
    }
    return differences;
}

std::vector<std::string> wrongAccusations(const Case& searched, const ToolRun& run) {
    std::set<std::string> expected;
    for (const Fault& fault : searched.faults) {
        expected.merge(brokenBy(fault));
    }
    std::vector<std::string> wrong;
    for (const sim::Json& result : sim::Json::parse(askRecordingTool(run, "check --json").output)) {
        if (result.at("state") == "broken" && expected.count(result.at("name")) == 0) {
            wrong.push_back("accused: " + result.dump());
        }
    }
    return wrong;
}
