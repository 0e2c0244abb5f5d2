// Whole runs, each in a file of runs/: how it is set up, as in support/tool_run.h, and exactly
// what came of it: the exit status, and what happened in which order, as in support/timeline.h,
// with VERSION for the tool's version, ..: for what the identifiers have in common, and ~ NAME for
// the lines of phases/NAME.txt, which many runs have. After a change that is meant,
// ORVIN_UPDATE_EXPECTED=1 writes the outcomes anew; read the difference before you commit it.
//
// A file of the same name in summaries/ has what orvin-recording tells of the run.

#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <algorithm>
#include <boost/algorithm/string/replace.hpp>
#include <cstdlib>
#include <filesystem>
#include <regex>

#include "support/files.h"
#include "support/timeline.h"
#include "support/tool_run.h"

namespace {

std::string storyOf(const ToolRun& run) {
    std::string text = timelineOf(run) + "exit status " + std::to_string(run.exitStatus) +
                       (run.writerLeft ? ", message writer left" : "") +
                       (!run.system.openFiles.empty() ? ", files left open" : "") + '\n';
    for (const auto& file : run.system.files) {
        text +=
            file.first.rfind("mem:", 0) == 0 ? "" : "temporary file left: " + file.second + "\n";
    }
    boost::replace_all(text, orvinText(0).substr(0, 48), "..:");
    text = std::regex_replace(text, std::regex(" v[0-9.]+\n"), " vVERSION\n");
    for (const auto& phase : std::filesystem::directory_iterator(PHASES)) {
        boost::replace_all(text, readText(phase.path()),
                           "           ~ " + phase.path().stem().string() + '\n');
    }
    return text;
}

void expectText(const std::string& path, const std::string& text) {
    if (std::getenv("ORVIN_UPDATE_EXPECTED") != nullptr) {
        writeText(path, text);
    }
    EXPECT_EQ(text, readText(path));
}

class WholeRun : public testing::TestWithParam<std::filesystem::directory_entry> {};

TEST_P(WholeRun, IsExactlyAsExpected) {
    const std::filesystem::path path = GetParam().path();
    const std::string expected = readText(path);
    const std::string setup = expected.substr(0, expected.find("\n\n"));
    const ToolRun run = runTool(describedRun(setup));
    expectText(path, setup + "\n\n" + storyOf(run));
    const std::filesystem::path summary = SUMMARIES / path.filename();
    if (exists(summary)) {
        expectText(summary, askRecordingTool(run, "summary").output);
    }
}

INSTANTIATE_TEST_SUITE_P(, WholeRun,
                         testing::ValuesIn(std::filesystem::directory_iterator(RUNS), {}),
                         [](const auto& run) { return run.param.path().stem().string(); });

// ---- runs at the limits of times, sizes and counts, of which only a number or two matters ----

TEST(Edges, TheCommandLineHasToDescribeAMode) {
    const auto isAccepted = [](const std::string& commandLine) {
        return runTool(describedRun(R"({"run": ")" + commandLine + "\"}")).exitStatus != 129;
    };
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
    for (int number = 1; number <= 41; ++number) {
        run.bus.members.push_back(orvin(number));
    }
    EXPECT_TRUE(runTool(run).printed("Will wait 5202 seconds"));
    run.bus.members.pop_back();
    EXPECT_TRUE(runTool(run).printed("Will wait 1250 seconds"));
}

// Progress computes 100 times the rest of the content, which fits 32 bits up to 42,949,672 bytes.
TEST(Edges, ProgressOfALargeImageIsCountedIn32Bits) {
    ToolSetup run = describedRun(
        R"({"run": "-B -m mem:status mem:dsp", "members": [{"id": 1}],
            "faults": {"data": {"calls": "all", "result": 0}}})");
    std::string& image = run.files["mem:dsp"];
    for (const auto& [size, percent] : {std::pair{42'949'672U, " 0%"}, {42'949'673U, " 100%"}}) {
        image.replace(20, 4, reinterpret_cast<const char*>(&size), 4).resize(36 + size);
        const std::string message = runTool(run).system.messages.at(1);
        EXPECT_NE(message.find(percent), std::string::npos) << message;
    }
}

// A request may come after the loop has checked for one and before it takes the next number: while
// it writes its progress, which it does for each packet here, or while it reads the packet.
TEST(Edges, ADeviceGoesBackAtAnyMoment) {
    constexpr int kPackets = 20;
    constexpr int kBeforeTheFirst = 31;  // reads of headers, writes of messages
    ToolSetup setup =
        describedRun(R"({"run": "-B -m mem:status mem:dsp", "members": [{"id": 1}]})");
    setup.files["mem:dsp"] = makeImage(kDsp, kNewVersion, std::size_t{64} * kPackets);
    sim::Bus* bus = nullptr;
    setup.onOpen = [&](sim::Bus& opened) { bus = &opened; };
    for (int moment = 0; moment < 2 * kPackets; ++moment) {
        int count = 0;
        const ToolRun run = runTool(setup, nullptr, [&](const std::string& call) {
            const bool counts = call == "read" || call == "rename";
            if (counts && count++ == kBeforeTheFirst + moment) {
                bus->requestGoBack(orvinId(1), 1);
            }
        });
        const auto sent = std::count_if(
            run.records.begin(), run.records.end(),
            [](const Record& record) { return record.call.function == sim::Function::Data; });
        EXPECT_EQ(sent, kPackets + std::max(moment / 2 - 1, 0)) << moment;
    }
}

TEST(Edges, TheTransferSleepsWithoutTimerSlack) {
    const int before = prctl(PR_GET_TIMERSLACK);
    int during = 0;
    const ToolSetup run = describedRun(R"({"run": "-B mem:dsp", "members": [{"id": 1}]})");
    runTool(run, nullptr, [&](const std::string& call) {
        during = call == "read" ? prctl(PR_GET_TIMERSLACK) : during;
    });
    EXPECT_EQ(during, before > 0 ? 1 : before);
    EXPECT_EQ(prctl(PR_GET_TIMERSLACK), before);
}

}  // namespace
