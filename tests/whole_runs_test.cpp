// Whole runs, each in a file of runs/: how it is set up, as in support/described_run.h, and exactly
// what came of it: the exit status, and what happened in which order, as in support/timeline.h,
// with VERSION for the tool's version. After a change that is meant, ORVIN_UPDATE_EXPECTED=1 writes
// the outcomes anew; read the difference before you commit it.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <regex>

#include "support/described_run.h"
#include "support/files.h"
#include "support/timeline.h"

namespace {

std::string storyOf(const ToolSetup& setup) {
    const ToolRun run = checkedRun(setup);
    std::string text =
        std::regex_replace(timelineOf(run), std::regex(" v[0-9.]+\n"), " vVERSION\n") +
        "exit status " + std::to_string(run.exitStatus) +
        (run.writerLeft ? ", message writer left" : "") + '\n';
    for (const auto& file : run.filesNow) {
        text +=
            file.first.rfind("mem:", 0) == 0 ? "" : "temporary file left: " + file.second + "\n";
    }
    return text;
}

class WholeRun : public testing::TestWithParam<std::filesystem::directory_entry> {};

TEST_P(WholeRun, IsExactlyAsExpected) {
    const std::string path = GetParam().path();
    const std::string all = readText(path);
    const std::string setup = all.substr(0, all.find("\n\n"));
    const std::string outcome = setup + "\n\n" + storyOf(describedRun(setup));
    if (std::getenv("ORVIN_UPDATE_EXPECTED") != nullptr) {
        writeText(path, outcome);
    }
    EXPECT_EQ(outcome, readText(path));
}

INSTANTIATE_TEST_SUITE_P(, WholeRun,
                         testing::ValuesIn(std::filesystem::directory_iterator(RUNS), {}),
                         [](const auto& run) { return run.param.path().stem().string(); });

}  // namespace
