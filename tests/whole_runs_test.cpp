// Whole runs, each in a file of runs/: how it is set up, as in support/described_run.h, and exactly
// what came of it: the exit status, and what happened in which order, as in support/timeline.h,
// with VERSION for the tool's version, ..: for what the identifiers have in common, and ~ NAME for
// the lines of phases/NAME.txt, which many runs have. After a change that is meant,
// ORVIN_UPDATE_EXPECTED=1 writes the outcomes anew; read the difference before you commit it.
//
// A file of the same name in summaries/ has what orvin-recording tells of the run.

#include <gtest/gtest.h>

#include <boost/algorithm/string/replace.hpp>
#include <cstdlib>
#include <filesystem>
#include <regex>

#include "support/described_run.h"
#include "support/files.h"
#include "support/timeline.h"

namespace {

std::string storyOf(const ToolSetup& setup) {
    const ToolRun run = runTool(setup);
    std::string text = timelineOf(run) + "exit status " + std::to_string(run.exitStatus) +
                       (run.writerLeft ? ", message writer left" : "") +
                       (run.filesOpen > 0 ? ", files left open" : "") + '\n';
    for (const auto& file : run.filesNow) {
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

using Texts = testing::TestWithParam<std::filesystem::directory_entry>;

void expectText(const std::string& path, const std::string& text) {
    if (std::getenv("ORVIN_UPDATE_EXPECTED") != nullptr) {
        writeText(path, text);
    }
    EXPECT_EQ(text, readText(path));
}

std::string setUpOf(const std::filesystem::path& run) {
    const std::string all = readText(run);
    return all.substr(0, all.find("\n\n"));
}

class WholeRun : public Texts {};

TEST_P(WholeRun, IsExactlyAsExpected) {
    const std::string setup = setUpOf(GetParam().path());
    expectText(GetParam().path(), setup + "\n\n" + storyOf(describedRun(setup)));
}

class RecordingSummary : public Texts {};

TEST_P(RecordingSummary, OfTheRunsRecordingIsExactlyAsExpected) {
    const std::filesystem::path run = RUNS / GetParam().path().filename();
    const ToolRun recorded = runTool(describedRun(setUpOf(run)));
    expectText(GetParam().path(), askRecordingTool(recorded, "summary").output);
}

INSTANTIATE_TEST_SUITE_P(, WholeRun,
                         testing::ValuesIn(std::filesystem::directory_iterator(RUNS), {}),
                         [](const auto& run) { return run.param.path().stem().string(); });

INSTANTIATE_TEST_SUITE_P(, RecordingSummary,
                         testing::ValuesIn(std::filesystem::directory_iterator(SUMMARIES), {}),
                         [](const auto& run) { return run.param.path().stem().string(); });

}  // namespace
