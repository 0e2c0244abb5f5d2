#ifndef TESTS_SUPPORT_RECORDING_TOOL_H
#define TESTS_SUPPORT_RECORDING_TOOL_H

#include <string>

#include "support/tool_run.h"

struct RecordingAnswer {
    std::string output;
    std::string complaint;  // standard error
};

// What `orvin-recording SUBCOMMAND` says of a recording of the run.
RecordingAnswer askRecordingTool(const ToolRun& run, const std::string& subcommand);

#endif
