#ifndef SIM_BUS_H
#define SIM_BUS_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "sim/bus_file.h"
#include "sim/device.h"
#include "sim/event_queue.h"
#include "sim/trace.h"
#include "talm/talm_api.h"

namespace sim {

// Something that happens to a packet on its way to one device, or to the device's answer.
struct PacketFault {
    enum class Kind {
        Lost,    // and `value` - 1 more, if that is positive
        Answer,  // with `value` as its result
        GoBack,  // to packet `value`
        Late,    // by `value` microseconds
        Twice,
    };
    Kind kind = Kind::Lost;
    std::int64_t value = 0;
};

// One connection to a simulated bus: its devices, its clock and the callbacks. Any thread may call.
// Callbacks are made on the event queue's threads without the bus's lock held, so that they may
// block and may call the bus.
class Bus {
public:
    // `storeVersions` learns of every member (counted from 0) that has new firmware.
    using StoreVersions = std::function<void(std::size_t member, const Versions& versions)>;
    explicit Bus(BusDescription description, StoreVersions storeVersions = {});
    ~Bus();

    // The result of opening the connection: 0, or what the bus file has instead.
    int openResult() const;

    // Ends all traffic. No callback is running any more when it returns. What devices were
    // installing they have then installed: hardware goes on when nobody is connected.
    void stop();

    // Each as the bus call of that name; for the results see namespace `result`.
    bool isLinkActive();
    int getMembers(vanid_t* members, int capacity);
    int readType(const vanid_t& id, std::uint8_t& type);
    bool isMaster(const vanid_t& id);
    int readVersions(const vanid_t& id, Versions& versions, std::string& name);
    int writeRequest(const vanid_t& id, std::uint32_t target, std::uint32_t contentSize,
                     std::uint16_t checksum);
    int sendData(const vanid_t& id, std::uint32_t packet, const std::uint8_t* bytes);
    int checkImage(const vanid_t& id, std::uint32_t target, std::uint16_t& announced,
                   std::uint16_t& computed);
    int startUpdate(const vanid_t& id, std::uint32_t target);
    void setTransferCallback(const CallbackSlot& slot);
    void setBusChangeCallback(const CallbackSlot& slot);

    // ---- what can happen at any moment ----

    // Makes the device ask, at once and on this thread, for everything from `packet` on.
    void requestGoBack(const vanid_t& id, std::uint32_t packet);

    // The device loses its power, and with it what it was receiving or installing, and comes back
    // onto the bus after a while.
    void interrupt(const vanid_t& id, Microseconds duration);

    void dropLink(Microseconds duration);

    // Strikes the next packet that goes to the device.
    void disturbNextPacket(const vanid_t& id, const PacketFault& fault);

    // Null for no device of this bus.
    const Device* findDevice(const vanid_t& id) { return find(id); }

    Trace& trace() { return trace_; }
    Microseconds now() const;

private:
    using Lock = std::lock_guard<std::mutex>;

    struct Report {
        Microseconds due;
        const Device* device;
        PacketAnswer answer;
    };
    using Reports = std::vector<Report>;

    bool isLinkUp() const;
    Device* find(const vanid_t& id);
    Device* findOnBus(const vanid_t& id);
    int request(const vanid_t& id, const std::function<int(Device&)>& carryOut);
    std::optional<PacketFault> takePacketFault(const Device& device);
    Microseconds answerDelay(const Device& device);
    Microseconds disturbAnswer(Device& device, const PacketFault& fault, PacketAnswer& answer);
    // Appends what the device answers. `sent`: a packet to all devices reaches them at the same
    // moment, however many they are.
    void passPacketTo(Device& device, std::uint32_t packet, const std::uint8_t* bytes,
                      Microseconds sent, Reports& reports);
    void scheduleReports(const std::shared_ptr<const Reports>& reports);
    void reportTransferResult(const vanid_t& source, const PacketAnswer& answer);
    void reportBusChange(const vanid_t& member, std::uint32_t event);
    void finishInstallation(Device& device, std::uint32_t turn);
    void comeBack(Device& device, std::uint32_t turn);
    void storeInstalled(const Device& device);
    void after(Microseconds delay, Event event);

    std::mutex mutex_;  // guards all that follows, but for the trace, which has its own lock
    const BusDescription description_;
    const StoreVersions storeVersions_;
    Trace trace_;
    std::vector<Device> devices_;  // in the bus file's order; never resized
    std::minstd_rand random_;
    FaultCounter getMembersCalls_;
    FaultCounter dataCalls_;
    CallbackSlot transferSlot_{nullptr, nullptr};
    CallbackSlot busChangeSlot_{nullptr, nullptr};
    Microseconds linkDownUntil_ = 0;
    std::map<const Device*, PacketFault> packetFaults_;
    bool stopped_ = false;
    const std::unique_ptr<EventQueue> queue_;
    const Microseconds openedAt_;
};

// The bus that the file describes, which keeps the versions of its devices. Throws BusFileError.
std::shared_ptr<Bus> openBusFile(const std::string& path);

}  // namespace sim

#endif
