#include "search/repeat.h"

#include <cstdlib>
#include <limits>
#include <optional>

#include "sim/bus_file/bus_file.h"
#include "support/files.h"

namespace {

// The bus that repeats the run; none if orvin-recording refuses.
std::optional<sim::BusDescription> busOf(const ToolRun& run) {
    static const TemporaryDirectory directory;
    const std::string recording = directory / "recording";
    const std::string bus = directory / "bus.json";
    const std::string complaints = directory / "complaints";
    writeText(recording, "{\"orvin-recording\":1}\n" + run.trace());
    const std::string command =
        "'" ORVIN_RECORDING "' bus " + recording + " >" + bus + " 2>" + complaints;
    const bool complains = std::system(command.c_str()) != 0;  // also of a session without an end
    const std::string complaint = readText(complaints);
    if (complains && complaint.find("cannot be repeated") != std::string::npos) {
        return std::nullopt;
    }
    return sim::describeBus(sim::parseBusFile(readText(bus)));
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
