#ifndef SIM_BUS_DEVICE_H
#define SIM_BUS_DEVICE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "sim/bus/bus_description.h"

namespace sim {

// Results of bus calls, besides 0 and those that a bus file injects.
namespace result {
constexpr int kNoSession = -1;  // the handle has no open connection
constexpr int kBroadcast = -2;  // the request went to all devices
constexpr int kNoAnswer = -3;   // the device is not on the bus, or the link is down
constexpr int kRefused = -5;    // the device refuses the request in its current state
}  // namespace result

// One bus member and, for an Orvin, its firmware: announced, received and installed. It has no
// clock and is not thread-safe: the bus provides the time, and holds its lock during every call.
class Device {
public:
    explicit Device(const MemberDescription& memberDescription);

    const MemberDescription description;

    bool isOrvin() const { return description.type == kOrvinType; }
    bool isOnBus() const { return state != State::Restarting; }

    // ---- requests; they return the result of the bus call ----

    Versions readVersions() const;
    int writeRequest(std::uint32_t target, std::uint32_t contentSize, std::uint16_t checksum);
    int checkImage(std::uint32_t target, std::uint16_t& announced, std::uint16_t& computed);
    int startUpdate(std::uint32_t target);

    // Receives a data packet of kPacketBytes. `usualDelay` is the delay of an answer without
    // faults.
    PacketAnswers receive(std::uint32_t number, const std::uint8_t* bytes, Microseconds now,
                          Microseconds usualDelay);

    // ---- its replay script ----

    bool hasAnswersLeft() const { return packetsRepeated < description.replay->packets.size(); }

    // Receives the packet and returns the script's next answers. Needs hasAnswersLeft.
    PacketAnswers repeatAnswers(std::uint32_t number, const std::uint8_t* bytes);

    // The script's next list of reports about this device; null if none is left.
    const std::vector<BusChange>* takeChanges();

    // ---- events that can happen at any moment ----

    // Discards all packets from `packet` on, as a device does when it asks to go back.
    void discardFrom(std::uint32_t packet);

    void addFault(const PacketFault& fault) { packetFaults.push_back(fault); }

    // ---- the steps of a started update ----

    bool isInstalling() const { return state == State::Installing; }
    bool isGone() const { return !isOnBus() && description.faults.neverReturns; }

    // Identifies an installation, so that the bus can ignore events of an interrupted one.
    std::uint32_t installation() const { return installationNumber; }

    // Ends the installation: the device takes the new firmware, if its descriptor fits, and leaves
    // the bus if it restarts. True if there is new content to store.
    bool finishInstallation();

    // Ends a running installation without leaving the bus.
    void installAtOnce();

    // Puts the device back on the bus. False if it never returns or did not leave.
    bool comeBack();

    // Leaves the bus at once. The running transfer or installation is lost.
    void losePower();

    const Versions& installedVersions() const { return versions; }
    std::uint32_t target() const { return transfer.target; }
    const std::vector<std::uint8_t>& content() const { return transfer.content; }

private:
    enum class State { Ready, Installing, Restarting };

    // The transfer of an image to the device.
    struct Transfer {
        bool open = false;
        bool checked = false;
        std::uint32_t target = 0;
        std::uint32_t contentSize = 0;
        std::uint16_t checksum = 0;
        std::vector<std::uint8_t> content;
        std::vector<bool> received;  // by packet number

        bool isComplete() const;
        std::uint16_t computeChecksum() const;
    };

    bool expects(std::uint32_t number) const;
    bool has(std::uint32_t number) const;
    const PacketFault* takeFault(std::uint32_t number);
    void keepPacket(std::uint32_t number, const std::uint8_t* bytes);
    PacketAnswers answerWith(const PacketFault& fault, const PacketAnswer& usual);
    bool takesNewFirmware();
    std::uint32_t* versionOf(std::uint32_t target);

    Versions versions;
    State state = State::Ready;
    Transfer transfer;
    std::vector<PacketFault> packetFaults;  // `times` counts down
    std::uint32_t installationNumber = 0;
    std::uint32_t packetsSeen = 0;
    Microseconds busyUntil = 0;
    std::size_t packetsRepeated = 0;
    std::size_t changesTaken = 0;
    std::uint32_t installations = 0;
};

}  // namespace sim

#endif
