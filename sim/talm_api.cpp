// The C interface of the bus access library: handles, the trace of every call, and no exception
// that gets out.

#include "talm/talm_api.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <sstream>
#include <utility>
#include <vector>

#include "files/one_line.h"
#include "sim/bus.h"
#include "sim/connections.h"
#include "sim/identifier.h"

struct TalmApi {
    std::shared_ptr<sim::Bus> bus;  // null until opened
};

namespace {

using sim::Bus;
namespace result = sim::result;

constexpr char kScheme[] = "sim:";

struct Connections {
    std::mutex mutex;  // guards all that follows
    std::map<TalmApiHandle, std::unique_ptr<TalmApi>> byHandle;
};

// Never destroyed: what is still open when the process ends stays usable, and in reach.
Connections& connections() {
    static auto& all = *new Connections;
    return all;
}

// ---- how arguments look in the trace ----

void append(std::ostream& out, const vanid_t& id) {
    out << sim::identifierText(id);
}

void append(std::ostream& out, const CallbackSlot* slot) {
    out << (slot->function == nullptr ? "cleared" : "set");
}

template <typename Value>
void append(std::ostream& out, const Value& value) {
    out << value;
}

// What a call gave back beside its result.
template <typename... Values>
std::string outputs(const Values&... values) {
    std::ostringstream text;
    text << std::hex << std::showbase << " ->";
    ((text << ' ', append(text, values)), ...);
    return text.str();
}

template <typename... Arguments>
void trace(Bus& bus, const char* name, int result, const std::string& given,
           const Arguments&... arguments) {
    std::ostringstream line;
    line << name << '(';
    [[maybe_unused]] const char* separator = "";
    ((line << separator, append(line, arguments), separator = ", "), ...);
    line << ") = " << result << given;
    bus.trace().write(bus.now(), line.str());
}

// Carries out a call on the handle's bus and records it with its arguments. `carryOut` may leave in
// its second parameter what the call gave back beside its result; only composed when there is a
// trace.
template <typename CarryOut, typename... Arguments>
int call(TalmApiHandle handle, const char* name, CarryOut carryOut, const Arguments&... arguments) {
    const std::shared_ptr<Bus> bus = sim::findBus(handle);
    if (!bus) {
        return result::kNoSession;
    }
    try {
        std::string given;
        const int answer = carryOut(*bus, given);
        if (bus->trace().isOn()) {
            trace(*bus, name, answer, given, arguments...);
        }
        return answer;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", name, error.what());
        return result::kNoSession;
    }
}

std::shared_ptr<Bus> openBus(const std::string& connection) {
    const std::size_t schemeLength = std::strlen(kScheme);
    if (connection.compare(0, schemeLength, kScheme) != 0) {
        return nullptr;  // there is no bus controller to be reached here
    }
    const std::string path = connection.substr(schemeLength);
    try {
        return sim::openBusFile(path);
    } catch (const std::bad_alloc&) {
        std::fputs("bus file: not enough memory\n", stderr);
        return nullptr;
    } catch (const std::exception& error) {
        constexpr std::size_t kMaxReason = 300;
        const std::string reason = std::string(error.what()).substr(0, kMaxReason);
        const std::string line = onOneLine("bus file '" + path + "': " + reason);
        std::fprintf(stderr, "%s\n", line.c_str());
        return nullptr;
    }
}

}  // namespace

std::shared_ptr<Bus> sim::findBus(TalmApiHandle handle) {
    Connections& all = connections();
    const std::lock_guard<std::mutex> lock(all.mutex);
    const auto found = all.byHandle.find(handle);
    return found == all.byHandle.end() ? nullptr : found->second->bus;
}

void sim::forEachBus(const std::function<void(Bus&)>& visit) {
    std::vector<std::shared_ptr<Bus>> open;
    {
        Connections& all = connections();
        const std::lock_guard<std::mutex> lock(all.mutex);
        for (const auto& entry : all.byHandle) {
            if (entry.second->bus) {
                open.push_back(entry.second->bus);
            }
        }
    }
    for (const std::shared_ptr<Bus>& bus : open) {
        visit(*bus);
    }
}

// ---- session ----

TalmApiHandle TalmApiInitialize() {
    Connections& all = connections();
    const std::lock_guard<std::mutex> lock(all.mutex);
    auto api = std::make_unique<TalmApi>();
    TalmApiHandle handle = api.get();
    all.byHandle.emplace(handle, std::move(api));
    return handle;
}

int TalmApiOpen(TalmApiHandle handle, const char* connection, int reserved) {
    Connections& all = connections();
    const std::lock_guard<std::mutex> lock(all.mutex);
    const auto found = all.byHandle.find(handle);
    if (connection == nullptr || found == all.byHandle.end() || found->second->bus) {
        return result::kNoSession;
    }
    const std::shared_ptr<Bus> bus = openBus(connection);
    if (!bus) {
        return result::kNoSession;
    }
    const int answer = bus->openResult();
    if (bus->trace().isOn()) {
        bus->trace().write(0, "TalmApiInitialize() = handle");
        trace(*bus, "TalmApiOpen", answer, "", connection, reserved);
    }
    if (answer >= 0) {
        found->second->bus = bus;
    }
    return answer;
}

int TalmApiGetLinkState(TalmApiHandle handle, bool* active) {
    return call(handle, "TalmApiGetLinkState", [&](Bus& bus, std::string& given) {
        // Left alone while the link is down: the library owes no answer then.
        if (bus.isLinkActive()) {
            *active = true;
            given = outputs(*active);
        }
        return 0;
    });
}

int TalmApiCleanup(TalmApiHandle handle) {
    return call(handle, "TalmApiCleanup", [](Bus& bus, std::string&) {
        bus.stop();
        return 0;
    });
}

int TalmApiClose(TalmApiHandle handle) {
    const int answer = call(handle, "TalmApiClose", [](Bus& bus, std::string&) {
        bus.stop();
        return 0;
    });
    std::unique_ptr<TalmApi> closed;  // outlives the lock
    Connections& all = connections();
    const std::lock_guard<std::mutex> lock(all.mutex);
    const auto found = all.byHandle.find(handle);
    if (found != all.byHandle.end()) {
        closed = std::move(found->second);
        all.byHandle.erase(found);
    }
    return answer;
}

// ---- bus members ----

int TalmApiGetBusMembers(TalmApiHandle handle, vanid_t* members, int capacity) {
    return call(
        handle, "TalmApiGetBusMembers",
        [&](Bus& bus, std::string& given) {
            const int count = bus.getMembers(members, capacity);
            for (int i = 0; i < std::min(count, capacity); ++i) {
                given += (i == 0 ? " -> " : ", ") + sim::identifierText(members[i]);
            }
            return count;
        },
        capacity);
}

int BusMember_get_type(TalmApiHandle handle, vanid_t member, uint8_t* type) {
    return call(
        handle, "BusMember_get_type",
        [&](Bus& bus, std::string& given) {
            const int answer = bus.readType(member, *type);
            given = answer == 0 ? outputs(unsigned{*type}) : "";
            return answer;
        },
        member);
}

int TalmApiIsTalm(vanid_t member) {
    bool master = false;
    sim::forEachBus([&](Bus& bus) {
        const bool here = bus.isMaster(member);
        master = master || here;
        if (bus.trace().isOn()) {
            trace(bus, "TalmApiIsTalm", here ? 1 : 0, "", member);
        }
    });
    return master ? 1 : 0;
}

int OrvinInfo(TalmApiHandle handle, vanid_t device, uint32_t* hw, uint32_t* arm, uint32_t* dsp,
              uint32_t* boosterArm, uint16_t* api, void* /*reserved*/, char* name) {
    return call(
        handle, "OrvinInfo",
        [&](Bus& bus, std::string& given) {
            sim::Versions versions;
            std::string nameText;
            const int answer = bus.readVersions(device, versions, nameText);
            if (answer != 0) {
                // What a failed query leaves behind means nothing, so let it be something.
                *hw = *arm = *dsp = *boosterArm = 0xdeadbeef;
                *api = 0xdead;
                std::memset(name, '?', sim::kNameBytes);
                return answer;
            }
            *hw = versions.hw;
            *arm = versions.arm;
            *dsp = versions.dsp;
            *boosterArm = versions.boosterArm;
            *api = versions.api;
            // Without a terminating zero when the name fills all the room there is.
            std::strncpy(name, nameText.c_str(), sim::kNameBytes);
            given = outputs(*hw, *arm, *dsp, *boosterArm, *api, nameText);
            return answer;
        },
        device);
}

// ---- image transfer and maintenance ----

int ImageTransfer_write_request(TalmApiHandle handle, vanid_t device, uint32_t manufacturer,
                                uint32_t target, uint32_t contentType, uint32_t contentSize,
                                uint16_t contentChecksum) {
    return call(
        handle, "ImageTransfer_write_request",
        [&](Bus& bus, std::string&) {
            return bus.writeRequest(device, target, contentSize, contentChecksum);
        },
        device, manufacturer, target, contentType, contentSize, contentChecksum);
}

int ImageTransfer_data(TalmApiHandle handle, vanid_t device, uint32_t packetNumber,
                       const uint8_t* data, uint32_t* firstOutput, uint32_t* secondOutput) {
    return call(
        handle, "ImageTransfer_data",
        [&](Bus& bus, std::string& given) {
            *firstOutput = 0;
            *secondOutput = 0;
            if (bus.trace().isOn()) {
                given = " <- " + sim::hexText(data, sim::kPacketBytes, "");
            }
            return bus.sendData(device, packetNumber, data);
        },
        device, packetNumber);
}

int OrvinImageMaintenance_check_image(TalmApiHandle handle, vanid_t device, uint32_t target,
                                      uint16_t* firstOutput, uint16_t* secondOutput) {
    return call(
        handle, "OrvinImageMaintenance_check_image",
        [&](Bus& bus, std::string& given) {
            const int answer = bus.checkImage(device, target, *firstOutput, *secondOutput);
            given = answer == 0 ? outputs(*firstOutput, *secondOutput) : "";
            return answer;
        },
        device, target);
}

int OrvinImageMaintenance_start_update(TalmApiHandle handle, vanid_t device, uint32_t target) {
    return call(
        handle, "OrvinImageMaintenance_start_update",
        [&](Bus& bus, std::string&) { return bus.startUpdate(device, target); }, device, target);
}

// ---- callbacks ----

int TalmApiSetCallback(TalmApiHandle handle, int first, int second, int third,
                       const CallbackSlot* slot, int last) {
    return call(
        handle, "TalmApiSetCallback",
        [&](Bus& bus, std::string&) {
            bus.setTransferCallback(*slot);
            return 0;
        },
        first, second, third, slot, last);
}

int TalmApiSetBusChangeCallback(TalmApiHandle handle, const CallbackSlot* slot, int last) {
    return call(
        handle, "TalmApiSetBusChangeCallback",
        [&](Bus& bus, std::string&) {
            bus.setBusChangeCallback(*slot);
            return 0;
        },
        slot, last);
}
