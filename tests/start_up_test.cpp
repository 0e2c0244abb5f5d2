#include "support/system_hooks.h"
#include "support/tool_run.h"

namespace {

class StartUp : public ToolTest {};

TEST_F(StartUp, PrintsTheUsageForACommandLineThatItRejects) {
    const ToolRun run = runBare({"-l", "-B"});
    EXPECT_EQ(run.exitStatus, 129);
    EXPECT_EQ(
        run.console,
        ">> Orvin Firmware upgrade v0.20.5\n"
        "Usage:\n"
        "> List:               orvin-firmware-upgrade -l -c <connection>\n"
        "> Update:             orvin-firmware-upgrade    -c <connection> -d <orvin vanid> <image "
        "file(s)>\n"
        "> Broadcast Update:   orvin-firmware-upgrade    -c <connection> -B <image file(s)>\n"
        "\n"
        "  Options:\n"
        "    -D  print debug output\n"
        "    -p  pretend; only list Orvins that would be updated\n"
        "    -m  <msgfile> write update status messages to given file\n"
        "    -f  upgrade even when update and device versions match\n");
}

TEST_F(StartUp, EndsWhenTheBusCannotBeOpened) {
    const ToolRun run = runBare({"-l", "-D", "-c", ""});
    EXPECT_EQ(run.exitStatus, 132);
    EXPECT_EQ(run.console,
              ">> Orvin Firmware upgrade v0.20.5\n"
              "No connnection specified, defaulting to tcp://localhost:8442\n"
              "Failed to initialize lumnet lib on tcp://localhost:8442\n"
              "Error: Couldn't open talmapi connection\n");
    EXPECT_FALSE(runBare({"-l"}).printed("No connnection"));
}

TEST_F(StartUp, TakesAPositiveResultOfOpeningForSuccess) {
    bus.with("faults", {{"open", {{"calls", "all"}, {"result", 3}}}});
    EXPECT_EQ(run({"-l"}).exitStatus, 0);
    bus.with("faults", {{"open", {{"calls", "all"}, {"result", -7}}}});
    EXPECT_EQ(run({"-l"}).exitStatus, 132);
}

TEST_F(StartUp, EndsWithoutAMessageWriterAndClosesTheSession) {
    SystemHooks::instance().failingMutexInit = 1;
    const ToolRun run = this->run({"-l"});
    EXPECT_EQ(run.exitStatus, 128);
    EXPECT_TRUE(run.printed("\nCoult not initialize message writer!\n"));
    EXPECT_EQ(run.calls("TalmApiCleanup"), 1);
    EXPECT_EQ(run.calls("TalmApiClose"), 1);
}

TEST_F(StartUp, GoesOnWithoutAMutexOfTheGroup) {
    bus.orvin(1, {{"fault_result", {{{"at", 3}}}}}).orvin(2);
    const struct {
        int failing;
        const char* line;
    } cases[] = {{2, "\nCould not initialize Orvin list mutex!\n"},
                 {3, "\nCould not initialize Orvin full list mutex!\n"}};
    for (const auto& example : cases) {
        SystemHooks::instance().failingMutexInit = example.failing;
        const ToolRun run = upgradeAll({"-f", image("arm", kArm)});
        EXPECT_EQ(run.exitStatus, 139);
        EXPECT_TRUE(run.printed(example.line)) << run.console;
        EXPECT_TRUE(installed(2, "arm", directory / "arm"));
    }
}

TEST_F(StartUp, WaitsForTheLinkTwentyPollsAndNoLonger) {
    const struct {
        int activeAfterMilliseconds;
        int exitStatus;
        int polls;
        int seconds;
    } cases[] = {
        {0, 0, 1, 1}, {1, 0, 2, 6}, {5'000, 0, 2, 6}, {95'000, 0, 20, 96}, {95'001, 133, 20, 100}};
    for (const auto& example : cases) {
        bus.with("link", {{"active_after_ms", example.activeAfterMilliseconds}});
        const ToolRun run = this->run({"-l", "-m", directory / "status"});
        EXPECT_EQ(run.exitStatus, example.exitStatus) << example.activeAfterMilliseconds;
        EXPECT_EQ(run.calls("TalmApiGetLinkState"), example.polls);
        EXPECT_EQ(run.duration, example.seconds * 1'000'000LL);
        EXPECT_EQ(run.calls("TalmApiClose"), 1);
        EXPECT_EQ(run.messages.front(), "Waiting for Lumnet bus to become active...");
        if (example.exitStatus == 133) {
            EXPECT_TRUE(run.printed("...\nBus not ACTIVE, exiting.\n"));
            EXPECT_EQ(run.messages.back(), "Lumnet bus not active, please try again later!");
        } else {
            EXPECT_TRUE(run.printed("...\nBus ACTIVE, proceeding.\n"));
        }
    }
}

TEST_F(StartUp, ListingWinsOverADeviceAndBroadcastOverBoth) {
    bus.orvin(1).orvin(2);
    EXPECT_TRUE(run({"-l", "-d", orvinId(1), "image"}).printed("Available devices:"));
    EXPECT_EQ(run({"-B", "-d", orvinId(1), image("arm", kArm)}).exitStatus, 2);
    EXPECT_EQ(run({"-d", orvinId(1), image("arm", kArm)}).exitStatus, 1);
}

}  // namespace
