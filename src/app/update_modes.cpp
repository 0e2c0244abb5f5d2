#include "app/update_modes.h"

#include <list>
#include <string>

#include "bus/bus_members.h"
#include "core/run_config.h"
#include "group/orvin_group.h"
#include "image/image_set.h"

namespace {

int updateOrvins(RunConfig& config, const std::list<std::string>& vanidTexts) {
    OrvinGroup group(config.session, !config.messageFile.empty());
    for (const std::string& text : vanidTexts) {
        group.addOrvin(text);
    }
    return runImageSet(config, group);
}

}  // namespace

int targetedUpdate(RunConfig& config) {
    return updateOrvins(config, {config.targetVanid});
}

int broadcastUpdate(RunConfig& config) {
    std::list<std::string> vanidTexts;
    describeBusMembers(*config.session, vanidTexts, kOrvinsOnly);  // after a failure: none
    return updateOrvins(config, vanidTexts);
}
