#include "sim/library/bus_opener.h"

#include "sim/bus_file/bus_file.h"

namespace sim {

namespace {

std::shared_ptr<Bus> openBusFile(const std::string& path) {
    const auto file = std::make_shared<BusFile>(path);
    return std::make_shared<Bus>(file->description(),
                                 [file](std::size_t member, const Versions& versions, bool onBus) {
                                     file->storeMember(member, versions, onBus);
                                 });
}

}  // namespace

BusOpener& busOpener() {
    static auto& opener = *new BusOpener(openBusFile);
    return opener;
}

}  // namespace sim
