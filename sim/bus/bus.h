#ifndef SIM_BUS_BUS_H
#define SIM_BUS_BUS_H

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "sim/bus/bus_description.h"
#include "sim/bus/call_faults.h"
#include "sim/bus/device.h"
#include "sim/bus/event_queue.h"
#include "sim/bus/interceptor.h"
#include "talm/talm_api.h"

namespace sim {

// One connection to a simulated bus: its devices, its clock and the callbacks. Thread-safe. The bus
// makes callbacks on the event queue's threads without holding its lock, so they may block and may
// call the bus.
class Bus {
public:
    // The bus calls `store` for every member (counted from 0) that has new firmware or never
    // returns.
    using StoreMember =
        std::function<void(std::size_t member, const Versions& versions, bool onBus)>;
    explicit Bus(BusDescription busDescription, StoreMember store = {});
    ~Bus();

    // Ends all traffic: after it returns, no callback runs. Running installations are completed,
    // because hardware continues without a connection.
    void stop();

    // The bus calls. Namespace `result` lists their results.
    bool isLinkActive();
    int getMembers(std::vector<vanid_t>& members, int capacity);
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

    // ---- events that can happen at any moment ----

    // Makes the device ask, at once and on this thread, for all packets from `packet` on.
    void requestGoBack(const vanid_t& id, std::uint32_t packet);

    // Cuts the device's power for the duration. The device loses its running transfer or
    // installation.
    void interrupt(const vanid_t& id, Microseconds duration);

    void dropLink(Microseconds duration);

    // These make a callback at once and on this thread, unless it was cleared.
    void reportTransferResult(const vanid_t& source, const PacketAnswer& answer);
    void reportBusChange(const vanid_t& member, std::uint32_t event);

    void addFault(const vanid_t& id, const PacketFault& fault);

    // Null when the bus has no such device.
    const Device* findDevice(const vanid_t& id) { return find(id); }

    // The interceptors of this bus: its call faults.
    const std::vector<Interceptor*>& ownInterceptors() const { return interceptors; }

private:
    using Lock = std::lock_guard<std::mutex>;

    Microseconds now() const;
    bool isLinkUp() const;
    Device* find(const vanid_t& id);
    Device* findOnBus(const vanid_t& id);
    int request(const vanid_t& id, const std::function<int(Device&)>& carryOut);
    Microseconds answerDelay(const Device& device);
    void reportLater(const Device& device, const PacketAnswers& answers);
    void reportLater(const Device& device, const std::vector<BusChange>& changes);
    void finishInstallation(Device& device, std::uint32_t installation);
    void endInstallation(Device& device);
    void comeBack(Device& device, std::uint32_t installation);
    void storeContent(const Device& device) const;
    void after(Microseconds delay, Event event);

    std::mutex mutex;  // guards `devices` and the members after it
    const BusDescription description;
    const StoreMember storeMember;
    const std::unique_ptr<EventQueue> queue;
    const Microseconds openedAt;
    CallFaults callFaults;
    const std::vector<Interceptor*> interceptors{&callFaults};
    std::vector<Device> devices;  // in the bus file's order; never resized
    std::minstd_rand random;
    CallbackSlot transferSlot{nullptr, nullptr};
    CallbackSlot busChangeSlot{nullptr, nullptr};
    Microseconds linkDownUntil;
    bool stopped = false;
};

}  // namespace sim

#endif
