#include "bus/listing.h"

#include <list>
#include <string>

#include "bus/bus_members.h"
#include "bus/device_versions.h"
#include "bus/vanid_text.h"
#include "core/bus_session.h"
#include "core/console.h"
#include "core/exit_status.h"
#include "core/run_config.h"

int listMode(const RunConfig& config) {
    std::list<std::string> lines;
    describeBusMembers(*config.session, lines, kAllMembers);
    printLine("Available devices:");
    int number = 0;
    for (const std::string& line : lines) {
        printLine("%2d)  %s", ++number, line.c_str());
    }
    return exit_status::kSuccess;
}

int versionMode(const RunConfig& config) {
    vanid_t id{};
    if (!parseVanid(id, config.targetVanid)) {
        printLine("Error: invalid vanid: %s", config.targetVanid.c_str());
        return exit_status::kVersionQueryFailed;
    }
    DeviceVersions versions;
    if (!getVersion(*config.session, id, versions)) {
        printLine("Error while reading orvin version");
        return exit_status::kVersionQueryFailed;
    }
    printLine("%x %x %x %x %s", versions.hw, versions.arm, versions.dsp, unsigned{versions.api},
              versions.name.c_str());
    return exit_status::kSuccess;
}
