// The packet loop: one packet in flight, sent to all devices at once, until every one of them has
// it or was given up on.

#include <libintl.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "core/console.h"
#include "core/exit_status.h"
#include "group/list_lock.h"
#include "group/orvin_group.h"
#include "image/firmware_image.h"
#include "status/format_message.h"
#include "status/message_writer.h"
#include "transfer/timer_slack.h"
#include "transfer/transfer_primitives.h"

namespace {

constexpr useconds_t kPollMicroseconds = 1'000;
constexpr int kResendPolls = 5'000;
constexpr int kRemovalPolls = 2 * kResendPolls;  // the resend gets as long as the first sending

constexpr int kPercentStep = 5;
constexpr std::uint32_t kPacketsPerDot = 20;

// How long the last progress message stays for those who follow the status message file.
constexpr useconds_t kFollowersPauseMicroseconds = 5'000'000;

}  // namespace

// What one call of transferData knows. Main thread only.
struct PacketTransfer {
    explicit PacketTransfer(FirmwareImage& openImage)
        : image(openImage),
          contentSize(openImage.getHeader().contentSize),
          targetName(FirmwareImage::getTargetName(openImage.getHeader().device)) {}

    // Writes the progress to the status message file, in steps of 5 %, while there is content left.
    void reportProgress();

    // Fills the buffer with the content of the packet. False when the image does not yield it.
    bool readPacket();

    void printReport() const;

    FirmwareImage& image;
    const std::uint32_t contentSize;
    const std::string targetName;
    std::uint8_t content[ImageChunkSize] = {};
    std::uint32_t packet = 0;            // looked up last; at the end, the number of packets
    std::uint32_t packetAtReader = 0;    // the packet that the next read of the image yields
    std::uint32_t bytesTransferred = 0;  // content that every device has, up to the next packet
    std::int32_t retransmissions = 0;
    std::int32_t lastReportedPercent = -1;
};

void PacketTransfer::reportProgress() {
    if (bytesTransferred >= contentSize) {
        return;
    }
    // Rounds up, so an image of more than 100 packets shows 100 during its last per cent.
    const std::uint32_t left = contentSize - bytesTransferred;
    const auto percent = static_cast<std::int32_t>(100 - 100 * left / contentSize);
    if (percent % kPercentStep != 0 || percent == lastReportedPercent) {
        return;
    }
    MessageWriter::instance()->write(formatMessage(
        // TRANSLATORS: %s is the processor that the firmware is for, such as "Pellix ARM"; %d is
        // how much of it was sent, from 0 to 100. %% prints one per cent sign.
        gettext("Orvin firmware upgrade in progress. Uploading %s firmware, %d%% completed..."),
        targetName.c_str(), percent));
    lastReportedPercent = percent;
}

bool PacketTransfer::readPacket() {
    const std::uint32_t offset = packet * static_cast<std::uint32_t>(ImageChunkSize);
    if (packet != packetAtReader && !image.seek(static_cast<std::int32_t>(offset))) {
        return false;
    }
    packetAtReader = packet + 1;
    const ssize_t count = image.read(content, ImageChunkSize);
    // Less than the packet's share of the content: the file has shrunk since it was opened, and
    // what stands in the buffer is not this packet.
    return count >=
           static_cast<ssize_t>(std::min<std::size_t>(ImageChunkSize, contentSize - offset));
}

void PacketTransfer::printReport() const {
    printLine("\n>> Transferred %d bytes in %d packet%s", static_cast<int>(bytesTransferred),
              static_cast<int>(packet), packet > 1 ? "s" : "");
    printLine(">> Amount of retransmitted packets: %d", retransmissions);
}

int OrvinGroup::transferData(FirmwareImage& image) {
    startCounting();
    PacketTransfer transfer(image);
    image.seek(0);
    const int result = sendContent(transfer);
    if (result == exit_status::kSuccess) {
        transfer.printReport();
    }
    clearTransferCallback();
    if (result == exit_status::kSuccess && useMessageFile) {
        usleep(kFollowersPauseMicroseconds);
    }
    return result;
}

int OrvinGroup::sendContent(PacketTransfer& transfer) {
    const TimerSlack slack;
    while (lookUpPacket(transfer)) {
        transfer.reportProgress();
        if (!transfer.readPacket()) {
            printLine("\nError reading firmware file");
            return exit_status::kImageReadFailed;
        }
        if (!takePacket(transfer)) {
            continue;
        }
        const int sent = sendUntilAcknowledged(transfer);
        if (sent != kSentToAll) {
            printLine("\nError in sendChunk(): %d", sent);
            return exit_status::kSendFailed;
        }
        if (count() == 0) {
            printLine("\nNo Orvins left; aborting");
            return exit_status::kNoOrvinsLeft;
        }
        noteAcknowledged();
        showProgress(transfer);
    }
    return exit_status::kSuccess;
}

void OrvinGroup::startCounting() {
    ListLock lock(*this);
    packetNumber = 0;
    packetsAcknowledged = 0;
    for (const auto& orvin : orvins) {
        orvin->goBackRequests = 0;
    }
}

// Every device left has the packet in flight. Whoever asked to go back before the transfer got
// further than ever has not asked in vain.
void OrvinGroup::noteAcknowledged() {
    ListLock lock(*this);
    if (packetNumber <= packetsAcknowledged) {
        return;
    }
    packetsAcknowledged = packetNumber;
    for (const auto& orvin : orvins) {
        orvin->goBackRequests = 0;
    }
}

std::uint32_t OrvinGroup::nextPacket() {
    ListLock lock(*this);
    return packetNumber;
}

// Looks which packet is the next; false when all were sent. The bytes transferred follow its
// number, so that they go back with it and the transfer ends only when every byte was acknowledged.
bool OrvinGroup::lookUpPacket(PacketTransfer& transfer) {
    transfer.packet = nextPacket();
    const std::uint64_t before = std::uint64_t{transfer.packet} * ImageChunkSize;
    transfer.bytesTransferred =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(before, transfer.contentSize));
    return before < transfer.contentSize;
}

// Takes the packet's number, in one go with clearing the acknowledgements; false when a device has
// asked to go back since it was looked up, so that other content is wanted. A request that comes
// later is found once this packet was acknowledged, and is an acknowledgement itself.
bool OrvinGroup::takePacket(const PacketTransfer& transfer) {
    ListLock lock(*this);
    if (packetNumber != transfer.packet) {
        return false;
    }
    if (reporters.empty()) {
        fillReporters();
    }
    clearAcknowledgedLocked();
    ++packetNumber;
    return true;
}

void OrvinGroup::showProgress(const PacketTransfer& transfer) {
    const std::uint32_t next = nextPacket();
    const bool wentBack = next <= transfer.packet;
    if (!wentBack && next % kPacketsPerDot == 0) {
        printProgress(".");
    }
}

// Sends the packet in flight, a second time if need be, and drops the devices that acknowledge
// neither. Returns kSentToAll, or what the library answered instead.
int OrvinGroup::sendUntilAcknowledged(PacketTransfer& transfer) {
    int sent = sendPacket(transfer);
    for (int poll = 0; sent == kSentToAll && !allAcknowledged();) {
        usleep(kPollMicroseconds);
        ++poll;
        if (poll == kResendPolls) {
            printUnflushed("#");
            ++transfer.retransmissions;
            sent = sendPacket(transfer);
        }
        if (poll == kRemovalPolls) {
            removeUnacknowledged();
            break;
        }
    }
    return sent;
}

int OrvinGroup::sendPacket(const PacketTransfer& transfer) {
    return sendChunk(*session, broadcastVanid, transfer.content, transfer.packet);
}
