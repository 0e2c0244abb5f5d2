// Whole runs, to the letter: the console, the exit status, the status messages and every bus call
// with its time. What is expected stands in expected/, one file for each history. After a change
// that is meant, ORVIN_UPDATE_EXPECTED=1 writes these files anew; read the difference before you
// commit it.

#include <cstdlib>
#include <functional>

#include "support/tool_run.h"

namespace {

struct HistoryCase {
    const char* name;
    std::vector<std::string> options;
    std::vector<std::uint32_t> targets;  // an image for each
    std::function<void(BusBuilder&)> fill;
};

void PrintTo(const HistoryCase& history, std::ostream* out) {
    *out << history.name;
}

void twoHealthy(BusBuilder& bus) {
    bus.orvin(2).member(9, 16).orvin(1);
}

std::function<void(BusBuilder&)> oneHealthyAndOneWith(const Json& faults) {
    return [faults](BusBuilder& bus) { bus.orvin(1, faults).orvin(2); };
}

const std::vector<HistoryCase> kHistories = {
    {"clean-broadcast", {"-B"}, {kArm}, twoHealthy},
    {"two-images", {"-B"}, {kDsp, kArm}, twoHealthy},
    {"up-to-date",
     {"-B"},
     {kArm},
     [](BusBuilder& bus) { bus.orvin(1).last()["versions"]["arm"] = kNewVersion; }},
    {"forced",
     {"-B", "-f"},
     {kDsp},
     [](BusBuilder& bus) { bus.orvin(1).last()["versions"]["dsp"] = kNewVersion; }},
    {"pretend", {"-B", "-p"}, {kArm}, twoHealthy},
    {"silent-device", {"-B"}, {kArm}, oneHealthyAndOneWith({{"loses_packets", "all"}})},
    {"go-back", {"-B"}, {kArm}, oneHealthyAndOneWith({{"go_back", {{{"at", 2}, {"to", 0}}}}})},
    {"faulty-device",
     {"-B"},
     {kArm},
     oneHealthyAndOneWith({{"fault_result", {{{"at", 1}, {"result", 5}}}}})},
    {"failed-verify", {"-B"}, {kArm}, oneHealthyAndOneWith({{"check", {{"calls", {1}}}}})},
    {"old-version-once", {"-B"}, {kArm}, oneHealthyAndOneWith({{"keeps_old_version", "once"}})},
    {"old-version-always", {"-B"}, {kDsp}, oneHealthyAndOneWith({{"keeps_old_version", "always"}})},
    {"no-link",
     {"-B"},
     {kArm},
     [](BusBuilder& bus) {
         bus.orvin(1).with("link", {{"active_after_ms", 200'000}});
     }},
    {"link-drops",
     {"-B"},
     {kArm},
     [](BusBuilder& bus) {
         bus.orvin(1).with("link", {{"drops", {{{"at_ms", 3'000}, {"for_ms", 60'000}}}}});
     }},
    {"discovery-failing",
     {"-B"},
     {kArm},
     [](BusBuilder& bus) {
         bus.orvin(1).with("faults", {{"get_members", {{"calls", "all"}}}});
     }},
};

class History : public ToolTest, public testing::WithParamInterface<HistoryCase> {
protected:
    std::string text(const ToolRun& run) const {
        std::string text = "exit status " + std::to_string(run.exitStatus) + "\n\n-- console\n" +
                           run.console + "\n-- status messages\n";
        for (const std::string& message : run.messages) {
            text += message + "\n";
        }
        text += "\n-- bus calls\n";
        for (const std::string& line : run.trace) {
            text += line + "\n";
        }
        const std::string here = directory / "";
        for (std::size_t at = 0; (at = text.find(here)) != std::string::npos;) {
            text.erase(at, here.size());
        }
        return text;
    }
};

TEST_P(History, IsAsExpectedToTheLetter) {
    GetParam().fill(bus);
    std::vector<std::string> arguments = GetParam().options;
    arguments.insert(arguments.end(), {"-m", directory / "status"});
    for (const std::uint32_t target : GetParam().targets) {
        arguments.push_back(image(target == kArm ? "arm.img" : "dsp.img", target, kNewVersion,
                                  target == kArm ? 150 : 50));
    }
    const std::string history = text(run(arguments));
    const std::string file = EXPECTED_HISTORIES + ("/" + std::string(GetParam().name) + ".txt");
    if (std::getenv("ORVIN_UPDATE_EXPECTED") != nullptr) {
        writeText(file, history);
    }
    EXPECT_EQ(history, readText(file));
}

INSTANTIATE_TEST_SUITE_P(, History, testing::ValuesIn(kHistories), [](const auto& test) {
    std::string name = test.param.name;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

}  // namespace
