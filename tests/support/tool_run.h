// Runs the tool in this process, on a simulated bus, in virtual time and with its files in memory.
#ifndef TESTS_SUPPORT_TOOL_RUN_H
#define TESTS_SUPPORT_TOOL_RUN_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "common/firmware_target.h"
#include "sim/bus/bus.h"
#include "support/memory_system.h"
#include "support/virtual_time.h"

constexpr std::uint32_t kArm = codeOf(FirmwareTarget::Arm);
constexpr std::uint32_t kDsp = codeOf(FirmwareTarget::Dsp);
constexpr std::uint32_t kBooster = codeOf(FirmwareTarget::BoosterArm);
constexpr std::uint32_t kOldVersion = 0x00010000;  // the initial version of every device
constexpr std::uint32_t kNewVersion = 0x00010001;

// The arguments, files and bus of a run.
struct ToolSetup {
    std::vector<std::string> arguments;        // runTool adds the connection in front
    std::map<std::string, std::string> files;  // content by name, "mem:..."
    sim::BusDescription bus;
    std::map<std::string, int> errors;      // of MemorySystem; "initialize #1": TalmApiInitialize
    std::function<void(sim::Bus&)> onOpen;  // sees the bus that the tool opens
    int failingAllocation = 0;              // of the tool, counted from 1; 0: none
    sim::Microseconds timeLimit = sim::VirtualTime::kNoLimit;
};

// The fields: "run", the command line; "errors", as in ToolSetup; and those of a bus file. A
// member's "id" may be a number (see orvinText); by default a member is an Orvin with old firmware.
// The files have all standardImages.
ToolSetup describedRun(const std::string& json);

// Valid and invalid image files by name.
std::map<std::string, std::string> standardImages();

// A bus call or a callback of a run.
struct Record {
    sim::Microseconds time = 0;
    sim::Microseconds took = 0;
    std::size_t consoleLength = 0;  // length of the console output before it
    sim::Call call;
};

// The visible result of a run.
struct ToolRun {
    bool ended = false;                   // within the time limit
    bool lacksMemory = false;             // which ended it, as nothing caught std::bad_alloc
    int allocationsLeft = 0;              // until the failing one
    int exitStatus = 0;                   // as the system gives it to the caller
    MemorySystem system;                  // as the run leaves it
    bool writerLeft = false;              // the tool's message writer still existed
    std::vector<Record> records;          // among the events of the system
    std::vector<sim::Versions> versions;  // that the members of the bus run at the end

    bool printed(const std::string& text) const {
        return system.console.find(text) != std::string::npos;
    }
    std::string trace() const;  // the records as lines of a recording
};

// Runs are deterministic. The interceptor, if there is one, sees each bus call; `before` runs
// before each system call.
ToolRun runTool(const ToolSetup& setup, sim::Interceptor* interceptor = nullptr,
                const std::function<void(const std::string& call)>& before = {});

struct RecordingAnswer {
    std::string output;
    std::string complaint;  // standard error
};

// What `orvin-recording SUBCOMMAND` says of a recording of the run.
RecordingAnswer askRecordingTool(const ToolRun& run, const std::string& subcommand);

// ---- parts of buses ----

vanid_t orvinId(int number);
std::string orvinText(int number);         // the identifier as text
sim::MemberDescription orvin(int number);  // with old firmware

// An image file with generated content.
std::string makeImage(std::uint32_t target, std::uint32_t version, std::size_t contentSize);

#endif
