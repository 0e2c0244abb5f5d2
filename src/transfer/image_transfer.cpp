// The packet loop: one packet in flight, sent to all devices at once, until every one of them has
// it or was given up on.

#include <libintl.h>

#include <algorithm>
#include <string>

#include "core/console.h"
#include "core/sleep.h"
#include "core/transfer_result.h"
#include "group/orvin_group.h"
#include "image/firmware_image.h"
#include "status/format_message.h"
#include "status/message_writer.h"
#include "transfer/timer_slack.h"
#include "transfer/transfer_primitives.h"

namespace {

constexpr std::chrono::milliseconds kBetweenPolls{1};
constexpr int kResendPolls = 5'000;
constexpr int kRemovalPolls = 2 * kResendPolls;  // the resend gets as long as the first sending

constexpr int kPercentStep = 5;
constexpr std::uint32_t kPacketsPerDot = 20;

// How long the last progress message stays for services that follow the status message file.
constexpr std::chrono::seconds kPauseForFollowers{5};

// One run through the content of an image. Main thread only.
class PacketLoop {
public:
    PacketLoop(OrvinGroup& receivers, const BusSession& busSession, FirmwareImage& openImage)
        : group(receivers),
          session(busSession),
          image(openImage),
          contentSize(openImage.getHeader().contentSize),
          targetName(FirmwareImage::getTargetName(openImage.getHeader().device)) {}

    // Returns what transferData does.
    int run();

    void printReport() const;

private:
    bool lookUpPacket();
    void reportProgress();
    bool readPacket();
    int sendPacket();
    int sendUntilAcknowledged();
    void showProgress();

    OrvinGroup& group;
    const BusSession& session;
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

int PacketLoop::run() {
    const TimerSlack slack;
    image.seek(0);
    group.startPackets();
    while (lookUpPacket()) {
        reportProgress();
        if (!readPacket()) {
            printLine("\nError reading firmware file");
            return transfer_result::kImageReadFailed;
        }
        if (!group.takePacket(packet)) {
            continue;  // a device has asked to go back since the packet was looked up
        }
        const int sent = sendUntilAcknowledged();
        if (sent != kSentToAll) {
            printLine("\nError in sendChunk(): %d", sent);
            return transfer_result::kSendFailed;
        }
        if (group.count() == 0) {
            printLine("\nNo Orvins left; aborting");
            return transfer_result::kNoOrvinsLeft;
        }
        group.markPacketAcknowledged();
        showProgress();
    }
    return transfer_result::kSuccess;
}

// Looks up the next packet; false when all were sent. The bytes transferred follow from its number,
// so they go back with it, and the transfer ends only when every byte was acknowledged.
bool PacketLoop::lookUpPacket() {
    packet = group.nextPacket();
    const std::uint64_t before = std::uint64_t{packet} * ImageChunkSize;
    bytesTransferred = static_cast<std::uint32_t>(std::min<std::uint64_t>(before, contentSize));
    return before < contentSize;
}

// Writes the progress to the status message file, in steps.
void PacketLoop::reportProgress() {
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

// Fills the buffer with the content of the packet. False when the image does not yield it.
bool PacketLoop::readPacket() {
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

int PacketLoop::sendPacket() {
    return sendChunk(session, broadcastVanid, content, packet);
}

// Sends the packet in flight, a second time if need be, and drops the devices that acknowledge
// neither sending. Returns kSentToAll, or what the library answered instead.
int PacketLoop::sendUntilAcknowledged() {
    int sent = sendPacket();
    for (int poll = 0; sent == kSentToAll && !group.allAcknowledged();) {
        sleepFor(kBetweenPolls);
        ++poll;
        if (poll == kResendPolls) {
            printUnflushed("#");
            ++retransmissions;
            sent = sendPacket();
        }
        if (poll == kRemovalPolls) {
            group.removeUnacknowledged();
        }
    }
    return sent;
}

void PacketLoop::showProgress() {
    const std::uint32_t next = group.nextPacket();
    const bool wentBack = next <= packet;
    if (!wentBack && next % kPacketsPerDot == 0) {
        printProgress(".");
    }
}

void PacketLoop::printReport() const {
    printLine("\n>> Transferred %d bytes in %d packet%s", static_cast<int>(bytesTransferred),
              static_cast<int>(packet), packet > 1 ? "s" : "");
    printLine(">> Amount of retransmitted packets: %d", retransmissions);
}

}  // namespace

int OrvinGroup::transferData(FirmwareImage& image) {
    PacketLoop loop(*this, *session, image);
    const int result = loop.run();
    if (result == transfer_result::kSuccess) {
        loop.printReport();
    }
    clearTransferCallback();
    if (result == transfer_result::kSuccess && useMessageFile) {
        sleepFor(kPauseForFollowers);
    }
    return result;
}
