#include "transfer/transfer_session.h"

#include <libintl.h>

#include "common/firmware_target.h"
#include "core/bus_session.h"
#include "core/console.h"
#include "core/transfer_result.h"
#include "group/orvin_group.h"
#include "image/firmware_image.h"
#include "status/message_writer.h"
#include "transfer/transfer_primitives.h"

bool transferFirmware(OrvinGroup& group, FirmwareImage& image) {
    const std::uint32_t device = image.getHeader().device;
    group.initializeTransfers(image);
    if (group.transferData(image) != transfer_result::kSuccess) {
        printLine("Failed to transfer data to the Orvins");
        // TRANSLATORS: the firmware could not be sent to the devices.
        MessageWriter::instance()->write(gettext("Failed to transfer firmware!"));
        return false;
    }
    group.verifyAll(device);
    group.startUpdates(device);
    return true;
}

void OrvinGroup::runStep(const char* removalLine, const std::function<bool(Orvin&)>& step) {
    ListLock lock(listMutex);
    orvins.keepIf([&](Orvin& orvin) {
        const bool done = step(orvin);
        if (!done) {
            printLine(removalLine, orvin.vanidText.c_str());
        }
        return done;
    });
}

int OrvinGroup::initializeTransfers(const FirmwareImage& image) {
    runStep("\nRemoving orvin '%s' after initializeTransfer() failed", [&](const Orvin& orvin) {
        return initializeTransfer(*session, orvin.vanid, image.getHeader());
    });
    registerTransferCallback();
    return count();
}

int OrvinGroup::verifyAll(std::uint32_t device) {
    // TRANSLATORS: each device checks whether it received the firmware whole.
    MessageWriter::instance()->write(gettext("Verifying uploaded firmware image..."));
    runStep("\nRemoving orvin '%s' after verifyData() failed",
            [&](const Orvin& orvin) { return verifyData(*session, orvin.vanid, device); });
    return count();
}

int OrvinGroup::startUpdates(std::uint32_t device) {
    registerBusChangeCallback();  // before the first device can leave and come back
    runStep("Removing orvin '%s' after startUpdate() failed", [&](Orvin& orvin) {
        const bool started = startUpdate(*session, orvin.vanid, device);
        if (started && !isAuxiliaryTarget(device)) {
            orvin.rejoined = false;
            orvin.restartPending = true;
        }
        return started;
    });
    rejoinedCount = 0;
    return count();
}
