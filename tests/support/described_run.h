// Runs described in JSON.
#ifndef TESTS_SUPPORT_DESCRIBED_RUN_H
#define TESTS_SUPPORT_DESCRIBED_RUN_H

#include "support/tool_run.h"

// The fields: "run", the command line; "errors", as in ToolSetup; and those of a bus file. A
// member's "id" may be a number (see orvinText); by default a member is an Orvin with old firmware.
// The files have all standardImages.
ToolSetup describedRun(const std::string& json);

// Valid and invalid image files by name.
std::map<std::string, std::string> standardImages();

#endif
