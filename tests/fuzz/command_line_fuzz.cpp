// Any command line: the arguments are separated by zero bytes.

#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "app/command_line.h"
#include "core/run_config.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> arguments = {"tool"};
    std::istringstream text({reinterpret_cast<const char*>(data), size});
    for (std::string argument; std::getline(text, argument, '\0');) {
        if (argument[0] == '-' && argument.find_first_of("hv") != std::string::npos) {
            return 0;  // -h and -v end the process
        }
        arguments.push_back(argument);
    }
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    opterr = 0;
    RunConfig config;
    const bool accepted = parseCommandLine(config, static_cast<int>(arguments.size()), argv.data());
    const bool update = !config.listDevices && !config.queryVersion;
    const bool hasTarget = config.broadcast || !config.targetVanid.empty();
    if (accepted && ((update && (config.imageFiles.empty() || !hasTarget)) ||
                     (config.listDevices && (config.queryVersion || config.broadcast)))) {
        std::abort();
    }
    return 0;
}
