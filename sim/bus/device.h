#ifndef SIM_BUS_DEVICE_H
#define SIM_BUS_DEVICE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "sim/bus/bus_description.h"

namespace sim {

// Results of bus calls, beside 0 and those that a bus file sets.
namespace result {
constexpr int kNoSession = -1;  // the handle is not that of an open connection
constexpr int kBroadcast = -2;  // the request went to all devices
constexpr int kNoAnswer = -3;   // no such device on the bus, or the link is down
constexpr int kRefused = -5;    // the device does not do that now
}  // namespace result

// One bus member and, for an Orvin, its firmware: what was announced to it, received and installed.
// It knows no time and no threads; the bus brings both, and holds its lock around every call.
class Device {
public:
    explicit Device(const MemberDescription& memberDescription);

    const MemberDescription description;

    bool isOrvin() const { return description.type == kOrvinType; }
    bool isOnBus() const { return state != State::Restarting; }

    // ---- requests. What they return is the bus call's result ----

    Versions readVersions() const;
    int writeRequest(std::uint32_t target, std::uint32_t contentSize, std::uint16_t checksum);
    int checkImage(std::uint32_t target, std::uint16_t& announced, std::uint16_t& computed);
    int startUpdate(std::uint32_t target);

    // A data packet of kPacketBytes, which the device answers after that delay if nothing is wrong.
    PacketAnswers receive(std::uint32_t number, const std::uint8_t* bytes, Microseconds now,
                          Microseconds usualDelay);

    // ---- its replay script ----

    bool hasAnswersLeft() const { return packetsRepeated < description.replay->packets.size(); }

    // What it answered to the next packet, which it gets now. There must be answers left.
    PacketAnswers repeatAnswers(std::uint32_t number, const std::uint8_t* bytes);

    // The next list of what the bus reported about it; null when there is none left.
    const std::vector<BusChange>* takeChanges();

    // ---- what can happen at any moment ----

    // Forgets the packets from `packet` on, as a device does that asks for them again.
    void discardFrom(std::uint32_t packet);

    void addFault(const PacketFault& fault) { packetFaults.push_back(fault); }

    // ---- an update that was started, one step after the other ----

    bool isInstalling() const { return state == State::Installing; }
    bool isGone() const { return !isOnBus() && description.faults.neverReturns; }

    // Identifies one installation, so that events of an interrupted one are ignored.
    std::uint32_t installation() const { return installationNumber; }

    // Ends the installation: the firmware is in, if it is fit for the device, and a device that
    // restarts has left the bus. True when there is new content to keep.
    bool finishInstallation();

    // Ends the installation, if there is one, without leaving the bus.
    void installAtOnce();

    // The device is back on the bus. False when it never comes, or never left.
    bool comeBack();

    // Off the bus at once, without what it was receiving or installing.
    void losePower();

    const Versions& installedVersions() const { return versions; }
    std::uint32_t target() const { return transfer.target; }
    const std::vector<std::uint8_t>& content() const { return transfer.content; }

private:
    enum class State { Ready, Installing, Restarting };

    // An image on its way to the device. What arrived is kept per packet.
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
    std::vector<PacketFault> packetFaults;  // with the times that they still strike
    std::uint32_t installationNumber = 0;
    std::uint32_t packetsSeen = 0;
    Microseconds busyUntil = 0;
    std::size_t packetsRepeated = 0;
    std::size_t changesTaken = 0;
    std::uint32_t installations = 0;
};

}  // namespace sim

#endif
