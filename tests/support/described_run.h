// Runs that a few lines of JSON describe.
#ifndef TESTS_SUPPORT_DESCRIBED_RUN_H
#define TESTS_SUPPORT_DESCRIBED_RUN_H

#include "support/tool_run.h"

// The fields: "run", the command line; "errors", as in ToolSetup; those of a bus
// file, where a member's "id" may be a number (see orvinText) and what is left out makes it an
// Orvin with old firmware. All of the images of standardImages can be used.
ToolSetup describedRun(const std::string& json);

// Image files, good ones and broken ones, by name.
std::map<std::string, std::string> standardImages();

// Runs the tool and expects that it leaves no file open.
ToolRun checkedRun(const ToolSetup& setup, const std::vector<sim::Interceptor*>& interceptors = {},
                   const std::function<int(SystemCall, const std::string&)>& system = {});

#endif
