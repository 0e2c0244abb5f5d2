#include "group/orvin_group.h"

#include <unistd.h>

#include <algorithm>
#include <boost/make_shared.hpp>

#include "bus/device_versions.h"
#include "bus/vanid_text.h"
#include "core/bus_session.h"
#include "core/console.h"
#include "group/list_lock.h"

namespace {

constexpr useconds_t kPauseAfterAnswerMicroseconds = 500'000;

}  // namespace

OrvinGroup::OrvinGroup(BusSession* busSession, bool messageFileInUse)
    : session(busSession), useMessageFile(messageFileInUse) {
    if (listMutex.init(Mutex::Kind::Recursive) != 0) {
        printLine("Could not initialize Orvin list mutex!");
    }
    if (fullListMutex.init(Mutex::Kind::Default) != 0) {
        printLine("Could not initialize Orvin full list mutex!");
    }
}

OrvinGroup::~OrvinGroup() {
    endCallbacks();
    listMutex.destroy();
    fullListMutex.destroy();
}

void OrvinGroup::lockList() NO_THREAD_SAFETY_ANALYSIS {
    if (listMutex.lock() != 0) {
        printLine("Could not lock Orvin list mutex!");
    }
}

void OrvinGroup::unlockList() {
    if (listMutex.unlock() != 0) {
        printLine("Could not unlock Orvin list mutex!");
    }
}

void OrvinGroup::lockFullList() NO_THREAD_SAFETY_ANALYSIS {
    if (fullListMutex.lock() != 0) {
        printLine("Could not lock Orvin full list mutex!");
    }
}

void OrvinGroup::unlockFullList() {
    if (fullListMutex.unlock() != 0) {
        printLine("Could not unlock Orvin full list mutex!");
    }
}

void OrvinGroup::addOrvin(const std::string& vanidText) {
    const auto orvin = boost::make_shared<Orvin>();
    orvin->vanidText = vanidText;
    parseVanid(orvin->vanid, vanidText);
    {
        ListLock lock(*this, listMutex);
        orvins.add(orvin);
    }
    ListLock lock(*this, fullListMutex);
    allOrvins.add(orvin);
}

int OrvinGroup::count() {
    ListLock lock(*this, listMutex);
    return static_cast<int>(orvins.size());
}

void OrvinGroup::getVanidTexts(std::list<std::string>& out) {
    ListLock lock(*this, listMutex);
    for (const auto& orvin : orvins) {
        out.push_back(orvin->vanidText);
    }
}

void OrvinGroup::restoreFromFullList() {
    ListLock lock(*this, listMutex);
    ListLock fullLock(*this, fullListMutex);
    orvins.assign(allOrvins);
}

void OrvinGroup::setRestartPending(const std::string& vanidText, bool value) {
    ListLock lock(*this, fullListMutex);
    const auto found = std::find_if(allOrvins.begin(), allOrvins.end(), [&](const auto& orvin) {
        return orvin->vanidText == vanidText;
    });
    if (found != allOrvins.end()) {
        (*found)->restartPending = value;
    }
}

void OrvinGroup::resetRejoinState() {
    ListLock lock(*this, listMutex);
    for (const auto& orvin : orvins) {
        orvin->rejoined = false;
        orvin->restartPending = false;
    }
}

void OrvinGroup::clearAcknowledged() {
    ListLock lock(*this, listMutex);
    orvins.clearAcknowledged();
}

bool OrvinGroup::allAcknowledged() {
    ListLock lock(*this, listMutex);
    return std::all_of(orvins.begin(), orvins.end(),
                       [](const auto& orvin) { return orvin->acknowledged; });
}

bool OrvinGroup::allRejoined() {
    ListLock lock(*this, listMutex);
    return std::all_of(orvins.begin(), orvins.end(),
                       [](const auto& orvin) { return orvin->rejoined || !orvin->restartPending; });
}

void OrvinGroup::markRejoined(const vanid_t& id) {
    ListLock lock(*this, listMutex);
    const auto found = std::find_if(orvins.begin(), orvins.end(), [&](const auto& orvin) {
        return vanid_equal(&orvin->vanid, &id) != 0;
    });
    if (found != orvins.end()) {
        (*found)->rejoined = true;
        ++rejoinedCount;
    }
}

bool OrvinGroup::allOnline() {
    ListLock lock(*this, listMutex);
    for (const auto& orvin : orvins) {
        DeviceVersions versions;
        // A DSP that is not up yet has version 0.
        if (!getVersion(*session, orvin->vanid, versions) || versions.dsp == 0) {
            return false;
        }
        usleep(kPauseAfterAnswerMicroseconds);
    }
    return true;
}
