#include "bus/listing.h"

#include <iomanip>
#include <iostream>
#include <list>
#include <string>

#include "bus/bus_members.h"
#include "bus/device_versions.h"
#include "bus/vanid_text.h"
#include "core/bus_session.h"
#include "core/exit_status.h"
#include "core/run_config.h"

int listMode(const RunConfig& config) {
    std::list<std::string> lines;
    describeBusMembers(*config.session, lines, false);
    std::cout << "Available devices:" << std::endl;
    int number = 0;
    for (const std::string& line : lines) {
        std::cout << std::setw(2) << ++number << ")  " << line << std::endl;
    }
    return exit_status::kSuccess;
}

int versionMode(const RunConfig& config) {
    vanid_t id{};
    if (!parseVanid(id, config.targetVanid)) {
        std::cout << "Error: invalid vanid: " << config.targetVanid << std::endl;
        return exit_status::kVersionQueryFailed;
    }
    DeviceVersions versions;
    if (!getVersion(*config.session, id, versions)) {
        std::cout << "Error while reading orvin version" << std::endl;
        return exit_status::kVersionQueryFailed;
    }
    std::cout << std::hex << versions.hw << ' ' << versions.arm << ' ' << versions.dsp << ' '
              << versions.api << ' ' << versions.name << std::dec << std::endl;
    return exit_status::kSuccess;
}
