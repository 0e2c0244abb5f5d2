#include <map>
#include <tuple>

#include "search/case.h"
#include "sim/bus_file/bus_file.h"

namespace {

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

Findings differencesWhenRepeated(const Case& searched, const ToolRun& run) {
    // Complains of a session without an end, too.
    const RecordingAnswer answer = askRecordingTool(run, "bus");
    const bool isRefused = answer.complaint.find("cannot be repeated") != std::string::npos;
    const bool hasHandle = run.records.size() > 1;  // without one, there is no bus
    if (isRefused || !hasHandle) {
        return Findings(isRefused == hasHandle ? 1 : 0, "wrongly refused, or not");
    }
    Case repeated = searched;
    repeated.setup.bus = sim::describeBus(sim::parseBusFile(answer.output));
    repeated.faults.clear();
    const ToolRun second = runCase(repeated);
    const auto outcome = [](const ToolRun& one) {
        return std::tie(one.system.console, one.system.messages, one.ended, one.exitStatus);
    };
    return Findings(outcome(second) == outcome(run) ? 0 : 1,
                    "repeated, it ends in another way:\n" + second.system.console);
}

Findings wrongAccusations(const Case& searched, const ToolRun& run) {
    std::set<std::string> expected;
    for (const Fault& fault : searched.faults) {
        expected.merge(brokenBy(fault));
    }
    Findings wrong;
    for (const sim::Json& result : sim::Json::parse(askRecordingTool(run, "check --json").output)) {
        if (result.at("state") == "broken" && expected.count(result.at("name")) == 0) {
            wrong.push_back("accused: " + result.dump());
        }
    }
    return wrong;
}
