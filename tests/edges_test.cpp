// Runs at the limits of times, sizes and counts; each test looks at only a number or two.

#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <utility>

#include "support/described_run.h"

namespace {

using sim::Function;

constexpr std::size_t kHeaderSize = 36;

// A device gets an image with content of that size.
ToolSetup upgrade(std::size_t contentSize) {
    ToolSetup run =
        describedRun(R"({"run": "-B -m mem:status mem:image", "members": [{"id": 1}]})");
    run.files["mem:image"] = makeImage(kDsp, kNewVersion, contentSize);
    return run;
}

bool isAccepted(const std::string& commandLine) {
    return runTool(describedRun(R"({"run": ")" + commandLine + "\"}")).exitStatus != 129;
}

TEST(Edges, TheCommandLineHasToDescribeAMode) {
    for (const char* commandLine :
         {"-d id x", "-B x", "-B -d id x", "-V -d id", "-l", "-l -d id x", "-B -- -x", "x -B"}) {
        EXPECT_TRUE(isAccepted(commandLine)) << commandLine;
    }
    for (const char* commandLine : {"", "-d id", "-d '' x", "-B", "x", "-V", "-V -B -d id", "-l -B",
                                    "-l -V -d id", "-l -x", "-l -c", "-B -x"}) {
        EXPECT_FALSE(isAccepted(commandLine)) << commandLine;
    }
}

TEST(Edges, TheBudgetOfAGroupGrowsMoreSteeplyFrom41DevicesOn) {
    ToolSetup run = describedRun(R"({"run": "-B -p mem:arm"})");
    for (int number = 1; number <= 40; ++number) {
        run.bus.members.push_back(orvin(number));
    }
    EXPECT_TRUE(runTool(run).printed("Will wait 1250 seconds"));
    run.bus.members.push_back(orvin(41));
    EXPECT_TRUE(runTool(run).printed("Will wait 5202 seconds"));
}

std::string progress(const ToolSetup& run) {
    std::string percents;
    for (const std::string& message : runTool(run).messages) {
        const std::size_t at = message.find(" firmware, ");
        percents += at == std::string::npos
                        ? ""
                        : message.substr(at + 11, message.find('%') - at - 11) + ' ';
    }
    return percents;
}

// Progress computes 100 times the rest of the content, which fits 32 bits up to 42,949,672 bytes.
TEST(Edges, ProgressOfALargeImageIsCountedIn32Bits) {
    ToolSetup run = upgrade(0);
    run.bus.callFaults = {{Function::Data, std::nullopt, {true, 0, {}}}};
    std::string& image = run.files["mem:image"];
    for (const auto& [size, percents] :
         {std::pair{42'949'672U, "0 0 "}, {42'949'673U, "100 100 "}}) {
        image.replace(20, 4, reinterpret_cast<const char*>(&size), 4).resize(kHeaderSize + size);
        EXPECT_EQ(progress(run), percents);
    }
}

// A request may come after the loop has checked for one and before it takes the next number: while
// it writes its progress, which it does for each packet here, or while it reads the packet.
TEST(Edges, ADeviceGoesBackAtAnyMoment) {
    constexpr int kPackets = 20;
    constexpr int kBeforeTheFirst = 31;  // reads of headers, writes of messages
    for (int moment = 0; moment < 2 * kPackets; ++moment) {
        ToolSetup described = upgrade(std::size_t{64} * kPackets);
        sim::Bus* bus = nullptr;
        described.onOpen = [&](sim::Bus& opened) { bus = &opened; };
        int count = 0;
        const ToolRun run = runTool(described, nullptr, [&](const std::string& call) {
            const bool counts = call == "read" || call == "rename";
            if (counts && count++ == kBeforeTheFirst + moment) {
                bus->requestGoBack(orvinId(1), 1);
            }
        });
        EXPECT_EQ(run.calls(Function::Data), kPackets + std::max(moment / 2 - 1, 0)) << moment;
    }
}

TEST(Edges, TheTransferSleepsWithoutTimerSlack) {
    const int before = prctl(PR_GET_TIMERSLACK);
    int during = 0;
    runTool(upgrade(64), nullptr, [&](const std::string& call) {
        during = call == "read" ? prctl(PR_GET_TIMERSLACK) : during;
    });
    EXPECT_EQ(during, before > 0 ? 1 : before);
    EXPECT_EQ(prctl(PR_GET_TIMERSLACK), before);
}

}  // namespace
