// Any command line: the arguments are separated by zero bytes.

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "app/command_line.h"
#include "core/run_config.h"

namespace {

// -h and -v end the process.
bool endsTheProcess(const std::string& argument) {
    return argument.size() > 1 && argument[0] == '-' &&
           argument.find_first_of("hv", 1) != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> arguments = {"tool", ""};
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            arguments.emplace_back();
        } else {
            arguments.back() += static_cast<char>(data[i]);
        }
    }
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        if (endsTheProcess(argument)) {
            return 0;
        }
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    opterr = 0;
    RunConfig config;
    if (!parseCommandLine(config, static_cast<int>(arguments.size()), argv.data())) {
        return 0;
    }
    const bool update = !config.listDevices && !config.queryVersion;
    const bool hasTarget = config.broadcast || !config.targetVanid.empty();
    if ((update && (config.imageFiles.empty() || !hasTarget)) ||
        (config.listDevices && (config.queryVersion || config.broadcast))) {
        std::abort();
    }
    return 0;
}
