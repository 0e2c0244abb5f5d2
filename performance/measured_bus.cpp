// Bus libraries in virtual time: each callback comes at its exact microsecond, so a program does
// the same on every run. The connection gives the number of Orvins, the microseconds after which
// they acknowledge a packet, and those of the last Orvin:
//
//     63,300,1001
//
// The clock stands still until the program sleeps. At the end, standard error has how often and how
// long it slept while a transfer callback was set.

#include <unistd.h>

#include <cstdint>
#include <cstdio>

#include "talm/talm_api.h"

namespace {

constexpr int kMaxDevices = 63;
constexpr long long kNever = -1;

int devices;
long long acknowledge;
long long lastAcknowledges;
long long now;
long long due[kMaxDevices];  // when each device acknowledges the packet in flight, or kNever
std::uint32_t packetInFlight;
bool upgraded;
CallbackSlot transferSlot;
long polls;
long long slept;

vanid_t idOf(int device) {
    return {{0x0a, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(device)}};
}

}  // namespace

extern "C" {

// Makes the program's callback. A function of its own, because the costs are counted by function.
__attribute__((noinline, used, visibility("default"))) void deliver(int device) {
    due[device] = kNever;
    const auto callback = reinterpret_cast<TransferCallback>(transferSlot.function);
    callback(0, transferSlot.userArgument, idOf(device), idOf(0), packetInFlight, 0);
}

// In place of the system's. NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
int usleep(useconds_t duration) {
    now += duration;
    if (transferSlot.function == nullptr) {
        return 0;
    }
    ++polls;
    slept += duration;
    for (int device = 0; device < devices; ++device) {
        if (due[device] != kNever && due[device] <= now) {
            deliver(device);
        }
    }
    return 0;
}

int ImageTransfer_data(TalmApiHandle, vanid_t, uint32_t packetNumber, const uint8_t*, uint32_t*,
                       uint32_t*) {
    packetInFlight = packetNumber;
    for (int device = 0; device < devices; ++device) {
        due[device] = now + (device == devices - 1 ? lastAcknowledges : acknowledge);
        if (due[device] == now) {
            deliver(device);
        }
    }
    return -2;
}

int TalmApiSetCallback(TalmApiHandle, int, int, int, const CallbackSlot* slot, int) {
    transferSlot = *slot;
    return 0;
}

TalmApiHandle TalmApiInitialize(void) {
    return reinterpret_cast<TalmApiHandle>(&transferSlot);
}

int TalmApiOpen(TalmApiHandle, const char* connection, int) {
    const int fields =
        std::sscanf(connection, "%d,%lld,%lld", &devices, &acknowledge, &lastAcknowledges);
    return fields == 3 && devices <= kMaxDevices ? 0 : -1;
}

int TalmApiGetLinkState(TalmApiHandle, bool* active) {
    *active = true;
    return 0;
}

int TalmApiCleanup(TalmApiHandle) {
    return 0;
}

int TalmApiClose(TalmApiHandle) {
    std::fprintf(stderr, "%ld polls, %lld us\n", polls, slept);
    return 0;
}

int TalmApiGetBusMembers(TalmApiHandle, vanid_t* members, int) {
    for (int device = 0; device < devices; ++device) {
        members[device] = idOf(device);
    }
    return devices;
}

int BusMember_get_type(TalmApiHandle, vanid_t, uint8_t* type) {
    *type = 64;
    return 0;
}

int TalmApiIsTalm(vanid_t) {
    return 0;
}

int OrvinInfo(TalmApiHandle, vanid_t, uint32_t* hw, uint32_t* arm, uint32_t* dsp,
              uint32_t* boosterArm, uint16_t* api, void*, char* name) {
    *hw = *arm = *boosterArm = *api = 1;
    *dsp = upgraded ? 2 : 1;
    *name = 0;
    return 0;
}

int ImageTransfer_write_request(TalmApiHandle, vanid_t, uint32_t, uint32_t, uint32_t, uint32_t,
                                uint16_t) {
    return 0;
}

int OrvinImageMaintenance_check_image(TalmApiHandle, vanid_t, uint32_t, uint16_t* firstOutput,
                                      uint16_t* secondOutput) {
    *firstOutput = *secondOutput = 0;
    return 0;
}

int OrvinImageMaintenance_start_update(TalmApiHandle, vanid_t, uint32_t) {
    upgraded = true;
    return 0;
}

int TalmApiSetBusChangeCallback(TalmApiHandle, const CallbackSlot*, int) {
    return 0;
}

}  // extern "C"
