#include "app/command_line.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "core/console.h"
#include "core/exit_status.h"
#include "core/run_config.h"

namespace {

// False when the option is unknown or lacks its value.
bool applyOption(RunConfig& config, int option) {
    switch (option) {
    case 'B':
        config.broadcast = true;
        return true;
    case 'c':
        config.connection = optarg;
        return true;
    case 'D':
        config.debug = true;
        return true;
    case 'd':
        config.targetVanid = optarg;
        return true;
    case 'm':
        config.messageFile = optarg;
        return true;
    case 'l':
        config.listDevices = true;
        return true;
    case 'h':
        printUsage(config);
        exit(exit_status::kSuccess);
    case 'p':
        config.pretend = true;
        return true;
    case 'V':
        config.queryVersion = true;
        return true;
    case 'v':
        exit(exit_status::kSuccess);
    case 'f':
        config.force = true;
        return true;
    default:
        return false;
    }
}

bool isRunnable(const RunConfig& config) {
    if (config.listDevices) {
        return !config.queryVersion && !config.broadcast;
    }
    if (config.queryVersion) {
        return !config.broadcast && !config.targetVanid.empty();
    }
    return !config.imageFiles.empty() && (config.broadcast || !config.targetVanid.empty());
}

}  // namespace

bool parseCommandLine(RunConfig& config, int argc, char** argv) {
    optind = 0;  // also discards what an earlier parse in this process may have left half read
    int option = 0;
    while ((option = getopt(argc, argv, "Bc:Dd:m:lhpVvf")) != -1) {
        if (!applyOption(config, option)) {
            return false;
        }
    }
    for (; optind < argc; ++optind) {
        config.imageFiles.emplace_back(argv[optind]);
    }
    return isRunnable(config);
}

void printUsage(const RunConfig& config) {
    const char* program = basename(config.programPath);  // the GNU form: leaves its argument alone
    printLine("Usage:");
    printLine("> List:               %s -l -c <connection>", program);
    printLine("> Update:             %s    -c <connection> -d <orvin vanid> <image file(s)>",
              program);
    printLine("> Broadcast Update:   %s    -c <connection> -B <image file(s)>", program);
    printLine(
        "\n"
        "  Options:\n"
        "    -D  print debug output\n"
        "    -p  pretend; only list Orvins that would be updated\n"
        "    -m  <msgfile> write update status messages to given file\n"
        "    -f  upgrade even when update and device versions match");
}
