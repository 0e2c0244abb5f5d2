// Runs of the tool on a simulated bus, in this process and in virtual time.
#ifndef TESTS_SUPPORT_TOOL_RUN_H
#define TESTS_SUPPORT_TOOL_RUN_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "sim/event_queue.h"
#include "support/bus_builder.h"
#include "support/files.h"

// Everything that can be seen of a run from outside.
struct ToolRun {
    int exitStatus = 0;                 // as the system gives it to the caller
    std::string console;                // standard output
    std::vector<std::string> messages;  // all that the status message file held, in order
    std::vector<std::string> trace;     // the bus calls and callbacks
    sim::Microseconds duration = 0;

    bool printed(const std::string& text) const { return console.find(text) != std::string::npos; }

    // How many lines of the trace begin with `call`, after the time.
    int calls(const std::string& call) const;
};

// Standard output of what `action` does.
std::string captureOutput(const std::function<void()>& action);

// A bus file, image files and runs of the tool on them.
class ToolTest : public testing::Test {
protected:
    ToolTest();
    ~ToolTest() override;

    // Writes an image file and returns its path.
    std::string image(const std::string& name, std::uint32_t target,
                      std::uint32_t version = kNewVersion, std::size_t contentSize = 640);

    // Runs the tool with "-c" and the bus file, and these arguments.
    ToolRun run(const std::vector<std::string>& arguments);

    // As above, with "-B" and "-m".
    ToolRun upgradeAll(std::vector<std::string> arguments);

    // Runs the tool with just these arguments.
    ToolRun runBare(const std::vector<std::string>& arguments);

    // The version that the bus file now holds for the member, counted from 0.
    std::uint32_t storedVersion(std::size_t member, const char* processor) const;

    // Whether the device holds the content of the image, byte for byte.
    bool installed(int orvin, const char* processor, const std::string& imagePath) const;

    TemporaryDirectory directory;
    BusBuilder bus;
};

#endif
