#include <sys/prctl.h>

#include <filesystem>

#include "sim/bus.h"
#include "sim/connections.h"
#include "sim/identifier.h"
#include "support/system_hooks.h"
#include "support/tool_run.h"

namespace {

using namespace std::string_literals;

class Transfer : public ToolTest {
protected:
    // Every packet that went out carries the content's bytes at its number.
    void expectHonestPackets(const ToolRun& run, const std::string& imagePath) {
        const std::string content = readText(imagePath).substr(36);
        for (const std::string& line : run.trace) {
            const std::size_t call = line.find("ImageTransfer_data(");
            if (call == std::string::npos) {
                continue;
            }
            const auto number = std::stoul(line.substr(line.find(", ", call) + 2));
            const std::string bytes = content.substr(number * 64, 64);
            const std::string hex =
                sim::hexText(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), "");
            EXPECT_EQ(line.compare(line.find("<- ") + 3, hex.size(), hex), 0) << line;
        }
    }

    // Makes the device ask for everything from `packet` on, now.
    static void requestGoBack(int orvin, std::uint32_t packet) {
        sim::forEachBus([&](sim::Bus& open) {
            open.requestGoBack(*sim::parseIdentifier(orvinId(orvin)), packet);
        });
    }
};

TEST_F(Transfer, SendsEveryByteInPacketsOf64) {
    const struct {
        std::size_t contentSize;
        int packets;
        const char* output;
    } cases[] = {
        {12, 1, "\n>> Transferred 12 bytes in 1 packet\n"},
        {64, 1, "\n>> Transferred 64 bytes in 1 packet\n"},
        {65, 2, "\n>> Transferred 65 bytes in 2 packets\n"},
        {6400, 100, "\n.....\n>> Transferred 6400 bytes in 100 packets\n"},
        {6401, 101, "\n.....\n>> Transferred 6401 bytes in 101 packets\n"},
    };
    bus.orvin(1).orvin(2, nullptr, {{"acknowledge_us", 2'500}});
    for (const auto& example : cases) {
        const std::string path = image("arm", kArm, kNewVersion, example.contentSize);
        const ToolRun run = upgradeAll({path});
        EXPECT_EQ(run.exitStatus, 2);
        EXPECT_EQ(run.calls("ImageTransfer_data"), example.packets);
        EXPECT_TRUE(
            run.printed(example.output + ">> Amount of retransmitted packets: 0\nSuccessfully"s))
            << run.console;
        EXPECT_TRUE(installed(1, "arm", path) && installed(2, "arm", path));
        expectHonestPackets(run, path);
    }
}

TEST_F(Transfer, SleepsWithoutTimerSlackWhileItSendsAndNoLonger) {
    bus.orvin(1);
    const int before = prctl(PR_GET_TIMERSLACK);
    int during = 0;
    SystemHooks::instance().beforePacketRead = [&] { during = prctl(PR_GET_TIMERSLACK); };
    upgradeAll({image("arm", kArm)});
    EXPECT_EQ(during, before > 0 ? 1 : before);
    EXPECT_EQ(prctl(PR_GET_TIMERSLACK), before);
}

TEST_F(Transfer, SendsNothingOfAnEmptyContent) {
    bus.orvin(1);
    const ToolRun run = upgradeAll({image("arm", kArm, kNewVersion, 0)});
    EXPECT_EQ(run.exitStatus, 139);
    EXPECT_TRUE(run.printed("\n>> Transferred 0 bytes in 0 packet\n"));
    EXPECT_EQ(run.calls("ImageTransfer_data"), 0);
    EXPECT_EQ(run.calls("TalmApiSetCallback(2, 255, 2, cleared, 0)"), 2);
}

TEST_F(Transfer, ReportsProgressInStepsOfFivePercent) {
    const auto progress = [&](std::size_t contentSize) {
        std::vector<std::string> percents;
        const ToolRun run = upgradeAll({image("dsp", kDsp, kNewVersion, contentSize)});
        for (const std::string& message : run.messages) {
            const std::string start =
                "Orvin firmware upgrade in progress. Uploading Pellix DSP firmware, ";
            if (message.compare(0, start.size(), start) == 0) {
                percents.push_back(message.substr(start.size()));
            }
        }
        return percents;
    };
    bus.orvin(1);
    EXPECT_EQ(progress(128), (std::vector<std::string>{"0% completed...", "50% completed..."}));
    EXPECT_EQ(progress(6400).size(), 20U);
    // The quotient is cut off, so the last packet of more than 100 starts at 100 %.
    EXPECT_EQ(progress(6464).size(), 21U);
    EXPECT_EQ(progress(6464).back(), "100% completed...");
}

TEST_F(Transfer, ResendsAfterFiveSecondsAndDropsASilentDeviceAfterTen) {
    const struct {
        int acknowledgeMicroseconds;
        int sends;
        bool dropped;
    } cases[] = {{4'999'000, 1, false},
                 {4'999'001, 2, false},
                 {10'000'000, 2, false},
                 {10'000'001, 2, true}};
    const std::string path = image("dsp", kDsp, kNewVersion, 64);
    for (const auto& example : cases) {
        bus = BusBuilder();
        bus.with("trace", "trace.txt").orvin(1);
        bus.orvin(2, nullptr, {{"acknowledge_us", example.acknowledgeMicroseconds}});
        const ToolRun run = this->run({"-B", path});
        const std::string attempt = run.console.substr(0, run.console.find("Successfully"));
        EXPECT_EQ(occurrences(attempt, "#"), example.sends - 1);
        EXPECT_EQ(occurrences(attempt, "\nRemoving Orvin " + orvinId(2) + " due to timeout\n"),
                  example.dropped ? 1 : 0)
            << example.acknowledgeMicroseconds;
        EXPECT_TRUE(run.printed(
            ">> Amount of retransmitted packets: " + std::to_string(example.sends - 1) + "\n"));
        EXPECT_EQ(run.printed("Retrying upgrade on following Orvin: \n  " + orvinId(2)),
                  example.dropped);
    }
}

TEST_F(Transfer, GoesBackAnyDistanceAndStillDeliversEveryByte) {
    constexpr int kPackets = 16;
    const std::string path = image("arm", kArm, kNewVersion, 1000);  // 15 packets and 40 bytes
    const struct {
        int at, to, times;
    } cases[] = {{0, 0, 1}, {12, 7, 1}, {15, 15, 1}, {15, 14, 1}, {15, 0, 2}, {5, 5, 30}};
    for (const auto& example : cases) {
        bus = BusBuilder();
        bus.with("trace", "trace.txt").with("store", "store");
        bus.orvin(
            1, {{"go_back", {{{"at", example.at}, {"to", example.to}, {"times", example.times}}}}});
        bus.orvin(2);
        const ToolRun run = upgradeAll({path});
        EXPECT_EQ(run.exitStatus, 2);
        EXPECT_EQ(run.calls("ImageTransfer_data"),
                  kPackets + example.times * (example.at - example.to + 1));
        EXPECT_EQ(occurrences(run.console, "Go back in fw: cur: " + std::to_string(example.at + 1) +
                                               " new: " + std::to_string(example.to) + "\n"),
                  example.times);
        EXPECT_TRUE(run.printed(">> Transferred 1000 bytes in 16 packets\n"));
        EXPECT_TRUE(installed(1, "arm", path) && installed(2, "arm", path));
        expectHonestPackets(run, path);
    }
}

TEST_F(Transfer, DropsADeviceThatAsksToGoBackForEverAndNoneThatRecovers) {
    const std::string path = image("arm", kArm);
    for (const bool recovers : {true, false}) {
        const Json times = recovers ? Json(999) : Json("always");
        bus = BusBuilder();
        bus.orvin(
            1,
            {{"go_back",
              {{{"at", 3}, {"to", 2}, {"times", 999}}, {{"at", 5}, {"to", 4}, {"times", times}}}}});
        bus.orvin(2);
        const ToolRun run = upgradeAll({path});
        EXPECT_EQ(run.printed("\nRemoving Orvin " + orvinId(1) +
                              " due to endless go back (1000 requests)\n"),
                  !recovers);
        EXPECT_EQ(run.exitStatus, recovers ? 2 : 139);
        EXPECT_EQ(storedVersion(0, "arm"), recovers ? kNewVersion : kOldVersion);
        EXPECT_EQ(storedVersion(1, "arm"), kNewVersion);
    }
}

TEST_F(Transfer, TakesARequestForALaterPacketForAnAcknowledgement) {
    bus.orvin(1, {{"go_back", {{{"at", 3}, {"to", 4}}, {{"at", 5}, {"to", 1'000'000}}}}});
    const ToolRun run = upgradeAll({image("arm", kArm)});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.calls("ImageTransfer_data"), 10);
    EXPECT_FALSE(run.printed("Go back"));
}

// A request may come when the loop has looked for one and not yet taken the next number: while it
// writes its progress, or while it reads the packet.
TEST_F(Transfer, GoesBackAtAnyMoment) {
    constexpr int kPackets = 20;  // each of them a step of 5 %
    constexpr int kTo = 1;
    const std::string path = image("arm", kArm, kNewVersion, std::size_t{64} * kPackets);
    bus.orvin(1).orvin(2);
    for (int moment = 0; moment < 2 * kPackets; ++moment) {
        int writes = 0;
        int reads = 0;
        SystemHooks::instance().beforeRename = [&](const std::string& from, const std::string&) {
            if (readText(from).find("in progress") != std::string::npos && writes++ * 2 == moment) {
                requestGoBack(1, kTo);
            }
        };
        SystemHooks::instance().beforePacketRead = [&] {
            if (reads++ * 2 + 1 == moment) {
                requestGoBack(1, kTo);
            }
        };
        const ToolRun run = upgradeAll({path});
        const int packetsBack = std::max(moment / 2 - kTo, 0);
        EXPECT_EQ(occurrences(run.console, "Go back"), packetsBack > 0 ? 1 : 0) << moment;
        EXPECT_EQ(run.calls("ImageTransfer_data"), kPackets + packetsBack) << moment;
        EXPECT_EQ(run.exitStatus, 2);
        EXPECT_TRUE(installed(1, "arm", path) && installed(2, "arm", path));
        EXPECT_FALSE(run.printed("Retrying"));
        expectHonestPackets(run, path);
    }
}

TEST_F(Transfer, TakesALateAcknowledgementForThePacketInFlightAndLetsTheCheckFindOut) {
    // The second acknowledgement of packet 0 comes when packet 1, which the device loses, is out.
    bus.orvin(1, {{"acknowledges_twice", {1}}, {"loses_packets", {2}}}, {{"acknowledge_us", 700}});
    bus.orvin(2);
    const std::string path = image("arm", kArm);
    const ToolRun run = upgradeAll({path});
    EXPECT_TRUE(run.printed("\nRemoving orvin '" + orvinId(1) + "' after verifyData() failed\n"));
    EXPECT_TRUE(run.printed("Retrying upgrade on following Orvin: \n  " + orvinId(1) + "\n"));
    EXPECT_EQ(run.exitStatus, 2);
    EXPECT_TRUE(installed(1, "arm", path) && installed(2, "arm", path));
}

TEST_F(Transfer, DropsADeviceThatFailsAStepAndGoesOnWithTheOthers) {
    const struct {
        const char* field;
        Json fault;
        std::string line;
    } cases[] = {
        {"write_request",
         {{"calls", {1}}, {"result", 5}},
         "Res: 5\n\nRemoving orvin '" + orvinId(1) + "' after initializeTransfer() failed\n"},
        {"check",
         {{"calls", {1}}},
         "\n\nRemoving orvin '" + orvinId(1) + "' after verifyData() failed\n"},
        {"start",
         {{"calls", {1}}, {"result", -2}},
         "\nRemoving orvin '" + orvinId(1) + "' after startUpdate() failed\n"},
        {"fault_result",
         {{{"at", 5}, {"result", 5}}},
         "\nRemoving Orvin " + orvinId(1) + " due to faulty callback (5 / 0x5)\n"},
    };
    const std::string path = image("arm", kArm);
    for (const auto& example : cases) {
        bus = BusBuilder();
        bus.with("trace", "trace.txt").orvin(1, {{example.field, example.fault}}).orvin(2);
        const ToolRun run = upgradeAll({path});
        EXPECT_TRUE(run.printed(example.line)) << run.console;
        EXPECT_TRUE(run.printed("Successfully updated 1 Orvin: \n  " + orvinId(2) + "\nUpdate"));
        EXPECT_TRUE(run.printed("Retrying upgrade on following Orvin: \n  " + orvinId(1) + "\n"));
        EXPECT_EQ(run.exitStatus, example.field == "fault_result"s ? 139 : 2);
    }
}

TEST_F(Transfer, EndsWhenTheLibraryRefusesAPacketOrItsResending) {
    bus.orvin(1, {{"loses_packets", {3}}});
    for (const int refused : {1, 4}) {
        bus.with("faults", {{"data", {{"calls", {refused}}, {"result", 9}}}});
        const ToolRun run = upgradeAll({image("arm", kArm)});
        EXPECT_TRUE(run.printed("\nError in sendChunk(): 9\nFailed to transfer data"));
        EXPECT_EQ(run.exitStatus, 1) << "the second attempt succeeds";
    }
}

TEST_F(Transfer, EndsWhenTheImageShrinksMeanwhile) {
    bus.orvin(1);
    for (const std::uintmax_t left : {36U + 64 * 5, 36U + 64 * 5 + 1}) {
        const std::string path = image("arm", kArm);
        int reads = 0;
        SystemHooks::instance().beforePacketRead = [&] {
            if (++reads == 4) {
                std::filesystem::resize_file(path, left);
            }
        };
        const ToolRun run = upgradeAll({path});
        EXPECT_EQ(run.exitStatus, 139);
        EXPECT_EQ(
            occurrences(run.console, "\nError reading firmware file\nFailed to transfer data"), 2);
        EXPECT_EQ(run.calls("ImageTransfer_data"), 10);
        expectHonestPackets(run, path);
    }
}

}  // namespace
