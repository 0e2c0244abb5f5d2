// Whole runs, each in a file of runs/: the set-up, as in support/described_run.h, and the exact
// result: the exit status, the console, with VERSION for the tool's version, the status messages
// and every bus call with its time. After an intended change, ORVIN_UPDATE_EXPECTED=1 rewrites the
// results; read the difference before you commit it.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <regex>

#include "support/described_run.h"
#include "support/files.h"

namespace {

std::string describe(const ToolRun& run) {
    std::string text = "exit status " + std::to_string(run.exitStatus) +
                       (run.writerLeft ? ", message writer left" : "");
    const std::string console =
        std::regex_replace(run.console, std::regex(" v[0-9.]+\n"), " vVERSION\n");
    text += "\n\n-- console\n" + console + "\n-- status messages\n";
    for (const std::string& message : run.messages) {
        text += message + "\n";
    }
    for (const auto& file : run.filesNow) {
        text +=
            file.first.rfind("mem:", 0) == 0 ? "" : "temporary file left: " + file.second + "\n";
    }
    return text + "\n-- bus calls\n" + run.trace();
}

class WholeRun : public testing::TestWithParam<std::filesystem::directory_entry> {};

TEST_P(WholeRun, IsExactlyAsExpected) {
    const std::string path = GetParam().path();
    const std::string all = readText(path);
    const std::string setup = all.substr(0, all.find("\n\n"));
    const std::string outcome = setup + "\n\n" + describe(checkedRun(describedRun(setup)));
    if (std::getenv("ORVIN_UPDATE_EXPECTED") != nullptr) {
        writeText(path, outcome);
    }
    EXPECT_EQ(outcome, readText(path));
}

INSTANTIATE_TEST_SUITE_P(, WholeRun,
                         testing::ValuesIn(std::filesystem::directory_iterator(RUNS), {}),
                         [](const auto& run) { return run.param.path().stem().string(); });

}  // namespace
