#include "support/recording_tool.h"

#include <cstdlib>

#include "support/files.h"

RecordingAnswer askRecordingTool(const ToolRun& run, const std::string& subcommand) {
    static const TemporaryDirectory directory;
    const std::string recording = directory / "recording";
    writeText(recording, "{\"orvin-recording\":1}\n" + run.trace());
    const std::string command = "'" ORVIN_RECORDING "' " + subcommand + ' ' + recording + " >" +
                                directory / "output" + " 2>" + directory / "complaint";
    static_cast<void>(std::system(command.c_str()));  // a complaint tells of a failure
    return {readText(directory / "output"), readText(directory / "complaint")};
}
