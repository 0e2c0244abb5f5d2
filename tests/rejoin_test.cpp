#include "support/tool_run.h"

namespace {

class Rejoin : public ToolTest {
protected:
    // What the console shows of the wait for the devices, from the first one on.
    static std::string backOnline(const ToolRun& run) {
        const std::string start = "Waiting for Orvins to get back online...";
        const std::size_t at = run.console.find(start) + start.size();
        return run.console.substr(at, run.console.find('\n', at) - at);
    }

    static std::vector<std::string> installing(const ToolRun& run) {
        std::vector<std::string> counts;
        for (const std::string& message : run.messages) {
            if (message.compare(0, 27, "Installing Orvin firmware: ") == 0) {
                counts.push_back(message.substr(27));
            }
        }
        return counts;
    }
};

TEST_F(Rejoin, GrowsItsBudgetWithTheNumberOfDevices) {
    const struct {
        int devices;
        const char* seconds;
    } cases[] = {{1, "60"}, {2, "72"}, {10, "200"}, {40, "1250"}, {41, "5202"}, {63, "10658"}};
    for (const auto& example : cases) {
        bus = BusBuilder();
        bus.orvins(1, example.devices);
        const ToolRun run = upgradeAll({"-p", image("arm", kArm)});
        EXPECT_TRUE(run.printed("Will wait " + std::string(example.seconds) +
                                " seconds for Orvins to rejoin.\n"));
    }
}

TEST_F(Rejoin, CountsReportsAndNotDevices) {
    bus.orvin(1, {{"reports_back", 2}}).orvin(2, {{"reports_back", 0}});
    const ToolRun run = upgradeAll({image("arm", kArm)});
    EXPECT_EQ(backOnline(run), "<<<<<<<<<<<<<<< done.") << "15 waits of 5 s make 72 s";
    EXPECT_EQ(installing(run).back(), "2 / 2 completed");
    EXPECT_EQ(run.exitStatus, 2);
}

TEST_F(Rejoin, WaitsForADspThatIsNotUpYet) {
    bus.orvin(1, nullptr, {{"install_ms", 20'000}});
    const ToolRun run = upgradeAll({image("dsp", kDsp)});
    EXPECT_EQ(backOnline(run), "++ done.");
    EXPECT_EQ(run.exitStatus, 1);
}

TEST_F(Rejoin, GivesUpADeviceThatNeverReturns) {
    bus.orvin(1).orvin(2, {{"never_returns", true}});
    const ToolRun run = upgradeAll({image("arm", kArm)});
    EXPECT_EQ(backOnline(run), "<<<<<<<<<<<<<<<#+ timeout!");
    EXPECT_EQ(installing(run).back(), "1 / 2 completed");
    EXPECT_TRUE(
        run.printed(" timeout!\nWarning: not all of the updated Orvins are back online!\n"
                    "orvin '" +
                    orvinId(2) + "' getVersion() failed\nRemoving Orvin " + orvinId(2) +
                    " because getVersion failed\n"));
    EXPECT_FALSE(run.printed("Retrying"));
    EXPECT_EQ(run.calls("TalmApiSetBusChangeCallback(cleared, 0)"), 1);
}

TEST_F(Rejoin, LeavesATimeoutInTheStatusFileForFiveSeconds) {
    bus.orvin(1, {{"never_returns", true}});
    const std::string dsp = image("dsp", kDsp);
    const ToolRun watched = upgradeAll({dsp});
    const ToolRun unwatched = run({"-B", dsp});
    EXPECT_EQ(occurrences(watched.console, " timeout!\n"), 2);
    // Twice after the timeout, and once after the transfer: the second one has nobody to go to.
    EXPECT_EQ(watched.duration - unwatched.duration, 15'000'000);
    EXPECT_EQ(watched.exitStatus, 139);
}

}  // namespace
