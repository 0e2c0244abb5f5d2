// The C interface of the bus access library: it manages handles, passes every call through the
// interceptors, and catches exceptions.

#include "talm/talm_api.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "common/one_line.h"
#include "common/vanid_text.h"
#include "sim/library/bus_opener.h"

struct TalmApi {
    std::shared_ptr<sim::Bus> bus;  // null until opened
};

namespace {

using sim::Bus;
using sim::Call;
using sim::Function;
using sim::Interceptor;
namespace result = sim::result;

constexpr char kScheme[] = "sim:";

struct Connections {
    std::mutex mutex;  // guards byHandle
    std::map<TalmApiHandle, std::unique_ptr<TalmApi>> byHandle;

    // Null for a handle without an open bus, such as a closed handle.
    std::shared_ptr<Bus> find(TalmApiHandle handle) {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto found = byHandle.find(handle);
        return found == byHandle.end() ? nullptr : found->second->bus;
    }

    std::vector<std::shared_ptr<Bus>> allOpen() {
        const std::lock_guard<std::mutex> lock(mutex);
        std::vector<std::shared_ptr<Bus>> open;
        for (const auto& entry : byHandle) {
            if (entry.second->bus) {
                open.push_back(entry.second->bus);
            }
        }
        return open;
    }
};

// Never destroyed, so open connections stay usable until the process ends.
Connections& connections() {
    static auto& all = *new Connections;
    return all;
}

// Returns the result of `body`. If `body` throws, prints a line on standard error and returns
// `failed`.
template <typename Result, typename Body>
Result guarded(Function function, Result failed, Body body) {
    try {
        return body();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", sim::nameOf(function), error.what());
        return failed;
    }
}

// Passes the call through the interceptors to the bus, if there is one. Afterwards `call` has the
// outputs.
template <typename CarryOut>
int passToBus(const std::shared_ptr<Bus>& bus, Call& call, CarryOut carryOut) {
    static const std::vector<Interceptor*> kNone;
    const auto& interceptors = bus ? bus->ownInterceptors() : kNone;
    return guarded(call.function, int{result::kNoSession}, [&] {
        return sim::pass(call, interceptors,
                         [&] { return bus ? carryOut(*bus) : result::kNoSession; });
    });
}

template <typename CarryOut>
int passToBus(TalmApiHandle handle, Call& call, CarryOut carryOut) {
    return passToBus(connections().find(handle), call, carryOut);
}

int stopBus(TalmApiHandle handle, Function function) {
    Call call(function);
    return passToBus(handle, call, [](Bus& bus) {
        bus.stop();
        return 0;
    });
}

std::shared_ptr<Bus> openBus(const std::string& connection) {
    const std::size_t schemeLength = std::strlen(kScheme);
    if (connection.compare(0, schemeLength, kScheme) != 0) {
        return nullptr;  // there is no bus controller here
    }
    const std::string name = connection.substr(schemeLength);
    try {
        return sim::busOpener()(name);
    } catch (const std::bad_alloc&) {
        std::fputs("bus file: not enough memory\n", stderr);
        return nullptr;
    } catch (const std::exception& error) {
        constexpr std::size_t kMaxReason = 300;
        const std::string reason = std::string(error.what()).substr(0, kMaxReason);
        const std::string line = onOneLine("bus file '" + name + "': " + reason);
        std::fprintf(stderr, "%s\n", line.c_str());
        return nullptr;
    }
}

}  // namespace

// ---- session ----

TalmApiHandle TalmApiInitialize() {
    return guarded(Function::Initialize, TalmApiHandle{}, [] {
        Call call(Function::Initialize);
        TalmApiHandle handle = nullptr;
        sim::pass(call, {}, [&] {
            Connections& all = connections();
            const std::lock_guard<std::mutex> lock(all.mutex);
            auto api = std::make_unique<TalmApi>();
            handle = api.get();
            all.byHandle.emplace(handle, std::move(api));
            return 0;
        });
        return handle;
    });
}

int TalmApiOpen(TalmApiHandle handle, const char* connection, int reserved) {
    if (connection == nullptr || connections().find(handle)) {
        return result::kNoSession;
    }
    const std::shared_ptr<Bus> bus = openBus(connection);
    Call call(Function::Open, std::nullopt, {reserved}, connection);
    const int answer = passToBus(bus, call, [](Bus&) { return 0; });
    Connections& all = connections();
    const std::lock_guard<std::mutex> lock(all.mutex);
    const auto found = all.byHandle.find(handle);
    if (found == all.byHandle.end()) {
        return result::kNoSession;
    }
    if (answer >= 0) {
        found->second->bus = bus;
    }
    return answer;
}

int TalmApiGetLinkState(TalmApiHandle handle, bool* active) {
    Call call(Function::GetLinkState);
    const int answer = passToBus(handle, call, [&](Bus& bus) {
        // Leaves `*active` unchanged while the link is down, as the interface allows.
        if (bus.isLinkActive()) {
            call.answer = {1};
        }
        return 0;
    });
    if (!call.answer.empty()) {
        *active = call.answer[0] != 0;
    }
    return answer;
}

int TalmApiCleanup(TalmApiHandle handle) {
    return stopBus(handle, Function::Cleanup);
}

int TalmApiClose(TalmApiHandle handle) {
    const int answer = stopBus(handle, Function::Close);
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
    Call call(Function::GetBusMembers, std::nullopt, {capacity});
    const int answer =
        passToBus(handle, call, [&](Bus& bus) { return bus.getMembers(call.members, capacity); });
    const auto room = static_cast<std::size_t>(std::max(capacity, 0));
    std::copy_n(call.members.begin(), std::min(call.members.size(), room), members);
    return answer;
}

int BusMember_get_type(TalmApiHandle handle, vanid_t member, uint8_t* type) {
    Call call(Function::GetType, member);
    const int answer = passToBus(handle, call, [&](Bus& bus) {
        std::uint8_t itsType = 0;
        const int result = bus.readType(member, itsType);
        if (result == 0) {
            call.answer = {itsType};
        }
        return result;
    });
    if (!call.answer.empty()) {
        *type = static_cast<std::uint8_t>(call.answer[0]);
    }
    return answer;
}

int TalmApiIsTalm(vanid_t member) {
    const auto open = connections().allOpen();
    std::vector<Interceptor*> interceptors;
    for (const auto& bus : open) {
        interceptors.insert(interceptors.end(), bus->ownInterceptors().begin(),
                            bus->ownInterceptors().end());
    }
    Call call(Function::IsTalm, member);
    return sim::pass(call, interceptors, [&] {
        const auto isMaster = [&](const auto& bus) { return bus->isMaster(member); };
        return std::any_of(open.begin(), open.end(), isMaster) ? 1 : 0;
    });
}

int OrvinInfo(TalmApiHandle handle, vanid_t device, uint32_t* hw, uint32_t* arm, uint32_t* dsp,
              uint32_t* boosterArm, uint16_t* api, void* /*reserved*/, char* name) {
    // Fills the outputs with garbage, because the tool must not use them after a failed query.
    *hw = *arm = *dsp = *boosterArm = 0xdeadbeef;
    *api = 0xdead;
    std::memset(name, '?', sim::kNameBytes);
    Call call(Function::OrvinInfo, device);
    const int answer = passToBus(handle, call, [&](Bus& bus) {
        sim::Versions versions;
        const int result = bus.readVersions(device, versions, call.name);
        if (result == 0) {
            call.answer = sim::numbersOf(versions);
        }
        return result;
    });
    if (!call.answer.empty()) {
        *hw = static_cast<std::uint32_t>(call.answer[0]);
        *arm = static_cast<std::uint32_t>(call.answer[1]);
        *dsp = static_cast<std::uint32_t>(call.answer[2]);
        *boosterArm = static_cast<std::uint32_t>(call.answer[3]);
        *api = static_cast<std::uint16_t>(call.answer[4]);
        // Without a terminating zero if the name fills the buffer.
        std::strncpy(name, call.name.c_str(), sim::kNameBytes);
    }
    return answer;
}

// ---- image transfer and maintenance ----

int ImageTransfer_write_request(TalmApiHandle handle, vanid_t device, uint32_t manufacturer,
                                uint32_t target, uint32_t contentType, uint32_t contentSize,
                                uint16_t contentChecksum) {
    Call call(Function::WriteRequest, device,
              {manufacturer, target, contentType, contentSize, contentChecksum});
    return passToBus(handle, call, [&](Bus& bus) {
        return bus.writeRequest(device, target, contentSize, contentChecksum);
    });
}

int ImageTransfer_data(TalmApiHandle handle, vanid_t device, uint32_t packetNumber,
                       const uint8_t* data, uint32_t* firstOutput, uint32_t* secondOutput) {
    *firstOutput = 0;
    *secondOutput = 0;
    Call call(Function::Data, device, {packetNumber});
    call.content.assign(reinterpret_cast<const char*>(data), sim::kPacketBytes);
    return passToBus(handle, call,
                     [&](Bus& bus) { return bus.sendData(device, packetNumber, data); });
}

int OrvinImageMaintenance_check_image(TalmApiHandle handle, vanid_t device, uint32_t target,
                                      uint16_t* firstOutput, uint16_t* secondOutput) {
    Call call(Function::CheckImage, device, {target});
    const int answer = passToBus(handle, call, [&](Bus& bus) {
        std::uint16_t announced = 0;
        std::uint16_t computed = 0;
        const int result = bus.checkImage(device, target, announced, computed);
        if (result == 0) {
            call.answer = {announced, computed};
        }
        return result;
    });
    if (!call.answer.empty()) {
        *firstOutput = static_cast<std::uint16_t>(call.answer[0]);
        *secondOutput = static_cast<std::uint16_t>(call.answer[1]);
    }
    return answer;
}

int OrvinImageMaintenance_start_update(TalmApiHandle handle, vanid_t device, uint32_t target) {
    Call call(Function::StartUpdate, device, {target});
    return passToBus(handle, call, [&](Bus& bus) { return bus.startUpdate(device, target); });
}

// ---- callbacks ----

int TalmApiSetCallback(TalmApiHandle handle, int first, int second, int third,
                       const CallbackSlot* slot, int last) {
    Call call(Function::SetTransferCallback, std::nullopt, {first, second, third, last},
              talm::slotText(slot->function != nullptr));
    return passToBus(handle, call, [&](Bus& bus) {
        bus.setTransferCallback(*slot);
        return 0;
    });
}

int TalmApiSetBusChangeCallback(TalmApiHandle handle, const CallbackSlot* slot, int last) {
    Call call(Function::SetBusChangeCallback, std::nullopt, {last},
              talm::slotText(slot->function != nullptr));
    return passToBus(handle, call, [&](Bus& bus) {
        bus.setBusChangeCallback(*slot);
        return 0;
    });
}
