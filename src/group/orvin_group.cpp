#include "group/orvin_group.h"

#include <algorithm>
#include <boost/make_shared.hpp>

#include "bus/device_versions.h"
#include "bus/vanid_text.h"
#include "core/bus_session.h"
#include "core/console.h"
#include "core/sleep.h"

namespace {

constexpr std::chrono::milliseconds kPauseAfterAnswer{500};

}  // namespace

OrvinGroup::OrvinGroup(BusSession* busSession, bool messageFileInUse)
    : session(busSession), useMessageFile(messageFileInUse) {}

OrvinGroup::~OrvinGroup() {
    endCallbacks();
    listMutex.destroy();
    fullListMutex.destroy();
}

void OrvinGroup::lockList() {
    listMutex.lock();
}

void OrvinGroup::unlockList() {
    listMutex.unlock();
}

void OrvinGroup::lockFullList() {
    fullListMutex.lock();
}

void OrvinGroup::unlockFullList() {
    fullListMutex.unlock();
}

void OrvinGroup::addOrvin(const std::string& vanidText) {
    const auto orvin = boost::make_shared<Orvin>();
    orvin->vanidText = vanidText;
    parseVanid(orvin->vanid, vanidText);
    {
        ListLock lock(listMutex);
        orvins.add(orvin);
    }
    ListLock lock(fullListMutex);
    allOrvins.add(orvin);
}

int OrvinGroup::count() {
    ListLock lock(listMutex);
    return static_cast<int>(orvins.size());
}

void OrvinGroup::getVanidTexts(std::list<std::string>& out) {
    ListLock lock(listMutex);
    for (const auto& orvin : orvins) {
        out.push_back(orvin->vanidText);
    }
}

void OrvinGroup::restoreFromFullList() {
    ListLock lock(listMutex);
    ListLock fullLock(fullListMutex);
    orvins.assign(allOrvins);
}

void OrvinGroup::setRestartPending(const std::string& vanidText, bool value) {
    ListLock lock(fullListMutex);
    const auto found = std::find_if(allOrvins.begin(), allOrvins.end(), [&](const auto& orvin) {
        return orvin->vanidText == vanidText;
    });
    if (found != allOrvins.end()) {
        (*found)->restartPending = value;
    }
}

void OrvinGroup::resetRejoinState() {
    ListLock lock(listMutex);
    for (const auto& orvin : orvins) {
        orvin->rejoined = false;
        orvin->restartPending = false;
    }
}

void OrvinGroup::clearAcknowledged() {
    ListLock lock(listMutex);
    orvins.clearAcknowledged();
}

bool OrvinGroup::allAcknowledged() {
    ListLock lock(listMutex);
    return std::all_of(orvins.begin(), orvins.end(),
                       [](const auto& orvin) { return orvin->acknowledged; });
}

bool OrvinGroup::allRejoined() {
    ListLock lock(listMutex);
    return std::all_of(orvins.begin(), orvins.end(),
                       [](const auto& orvin) { return orvin->rejoined || !orvin->restartPending; });
}

void OrvinGroup::markRejoined(const vanid_t& id) {
    ListLock lock(listMutex);
    const auto found = std::find_if(orvins.begin(), orvins.end(), [&](const auto& orvin) {
        return vanid_equal(&orvin->vanid, &id) != 0;
    });
    if (found != orvins.end()) {
        (*found)->rejoined = true;
        ++rejoinedCount;
    }
}

bool OrvinGroup::allOnline() {
    ListLock lock(listMutex);
    for (const auto& orvin : orvins) {
        DeviceVersions versions;
        // A DSP that is not up yet has version 0.
        if (!getVersion(*session, orvin->vanid, versions) || versions.dsp == 0) {
            return false;
        }
        sleepFor(kPauseAfterAnswer);
    }
    return true;
}
