#include "transfer/upgrade_image.h"

#include <limits>
#include <utility>

#include "bus/vanid_text.h"
#include "core/bus_session.h"
#include "core/run_config.h"
#include "group/orvin_group.h"
#include "status/message_writer.h"
#include "support/system_hooks.h"
#include "support/tool_run.h"

namespace {

class Upgrade : public ToolTest {
protected:
    const std::string first = orvinId(1);
    const std::string second = orvinId(2);
};

TEST_F(Upgrade, ComparesTheVersionOfTheImagesOwnProcessorForEquality) {
    bus.orvin(1).orvin(2);
    bus.last()["versions"]["dsp"] = kNewVersion + 5;
    EXPECT_EQ(upgradeAll({image("newer", kDsp)}).exitStatus, 2);
    EXPECT_EQ(upgradeAll({image("same", kDsp, kOldVersion)}).exitStatus, 1);
    EXPECT_EQ(storedVersion(1, "dsp"), kOldVersion);
}

TEST_F(Upgrade, DebugOutputShowsTheHeaderAndWhoIsUpToDate) {
    bus.orvin(1);
    const ToolRun run = upgradeAll({"-D", image("dsp", kDsp, kOldVersion, 100)});
    EXPECT_TRUE(run.printed("HS: 36, Man: 1234, Dev: 513, CT: 7, CS: 64, CC: ")) << run.console;
    EXPECT_TRUE(run.printed(", V: 00010000\n"));
    EXPECT_TRUE(run.printed("orvin '" + first + "' already up to date\n"));
}

TEST_F(Upgrade, KeepsADeviceThatDoesNotTellItsVersionAtFirst) {
    bus.orvin(1, {{"version_query", {{"calls", {1}}}}}).orvin(2);
    const ToolRun run = upgradeAll({image("arm", kArm)});
    EXPECT_EQ(run.exitStatus, 2);
    EXPECT_EQ(occurrences(run.console, "orvin '" + first + "' getVersion() failed\n"), 1);
    EXPECT_FALSE(run.printed("because getVersion failed"));
}

TEST_F(Upgrade, OfSomethingThatIsNoIdentifierEndsWell) {
    bus.orvin(1);
    const ToolRun run = this->run({"-d", "pump room", image("arm", kArm)});
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_TRUE(run.printed("Removing Orvin pump room because getVersion failed\n"));
    EXPECT_EQ(storedVersion(0, "arm"), kOldVersion);
}

// A report of a fault may still be on its way when the callback was cleared.
TEST_F(Upgrade, StartsNoAttemptOnceALateFaultTookTheLastDevice) {
    bus.orvin(1, {{"keeps_old_version", "always"}});
    writeText(directory / "bus.json", bus.text());
    BusSession session{true, TalmApiInitialize(), nullptr};
    ASSERT_EQ(TalmApiOpen(session.handle, ("sim:" + directory / "bus.json").c_str(), 0), 0);
    MessageWriter::init(directory / "status");
    vanid_t id{};
    ASSERT_TRUE(parseVanid(id, first));
    RunConfig config;
    const std::string arm = image("arm", kArm);
    for (const int attempts : {0, 1}) {
        OrvinGroup group(&session, false);
        group.addOrvin(first);
        bool late = false;
        const auto reportFault = [&] {
            if (!std::exchange(late, true)) {
                group.onTransferResult(9, id, 0);
            }
        };
        auto& hooks = SystemHooks::instance();
        std::list<std::string> updated;
        const std::string console = captureOutput([&] {
            if (attempts == 0) {
                hooks.afterFlush = reportFault;  // after "Upgrading 1 Orvin"
            } else {
                hooks.beforeRename = [&](const std::string& from, const std::string&) {
                    if (readText(from) == "Retrying Pellix ARM update...") {
                        reportFault();
                    }
                };
            }
            std::list<std::string> upToDate;
            EXPECT_EQ(upgradeImage(config, group, arm, upToDate, updated), 0);
            hooks = SystemHooks();
        });
        EXPECT_TRUE(late);
        EXPECT_EQ(occurrences(readText(directory / "trace.txt"), "write_request"), attempts);
        EXPECT_EQ(occurrences(console, "\nRemoving image files from Orvins\n"), 1 - attempts);
    }
    TalmApiClose(session.handle);
    delete MessageWriter::instance();
}

TEST(Summary, TellsMinutesAndSeconds) {
    const struct {
        std::time_t elapsed;
        const char* text;
    } cases[] = {{0, "0 min 00 seconds"},      {1, "0 min 01 second"},
                 {61, "1 min 01 second"},      {125, "2 min 05 seconds"},
                 {6000, "100 min 00 seconds"}, {-61, "4294967295 min 4294967295 seconds"}};
    constexpr std::time_t kLast32BitSecond = std::numeric_limits<std::int32_t>::max();
    OrvinGroup group(nullptr, false);
    std::list<std::string> updated;
    for (const auto& example : cases) {
        const std::time_t end = kLast32BitSecond - 61;
        EXPECT_EQ(captureOutput([&] { printSummary(group, end - example.elapsed, end, updated); }),
                  "Update took " + std::string(example.text) + "\n");
    }
    EXPECT_TRUE(updated.empty());
}

}  // namespace
