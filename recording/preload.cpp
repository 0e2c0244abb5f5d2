// The recorder, a library that LD_PRELOAD puts in front of the bus libraries. It forwards every
// call and every callback, and records it. Its own errors do not affect the program.

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <mutex>

#include "recording/recording.h"
#include "talm/talm_api.h"

namespace {

using recording::Microseconds;
using recording::Moment;
using recording::Recording;
using talm::Call;
using talm::Function;
using talm::kNameBytes;
using talm::kPacketBytes;

Microseconds clockNow() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return Microseconds{time.tv_sec} * 1'000'000 + time.tv_nsec / 1'000;
}

std::once_flag started;
// The first call sets these before it is forwarded; later they do not change.
Recording* current = nullptr;  // null: nothing is recorded
Microseconds startedAt = 0;
pid_t recordedProcess = 0;

Microseconds now() {
    return clockNow() - startedAt;
}

// Runs at the first call of the bus: a program without such a call is not recorded.
void start() {
    startedAt = clockNow();
    recordedProcess = getpid();
    const char* const path = std::getenv("ORVIN_RECORDING");
    if (path == nullptr) {
        return;
    }
    try {
        const char* const invocation = std::getenv("ORVIN_RECORD_INVOCATION");
        // Never freed, because callbacks may come until the process ends.
        current = new Recording(path, invocation == nullptr ? "" : invocation);
    } catch (const std::exception& error) {
        recording::complain(std::string("recording '") + path +
                            "' does not begin: " + error.what() + '\n');
    }
}

// Calls `append` with the recording, if there is one.
template <typename Append>
void record(Append append) {
    if (current == nullptr) {
        return;
    }
    try {
        append(*current);
    } catch (const std::exception& error) {
        current->fail(error.what());
    }
}

// The bus library's own function.
template <typename Signature>
Signature* find(const char* name) {
    if (void* const found = dlsym(RTLD_NEXT, name)) {
        return reinterpret_cast<Signature*>(found);
    }
    // As the loader does when a library lacks a function.
    std::fprintf(stderr, "%s\n", dlerror());
    _exit(127);
}

#define NEXT(function) static auto* const next = find<decltype(function)>(#function)

// Executes the call and records it; `fillIn` adds its arguments and outputs, if there are any.
template <typename CarryOut, typename FillIn = void (*)(Call&)>
int pass(
    Function function, const std::optional<vanid_t>& device, CarryOut carryOut,
    FillIn fillIn = [](Call&) {}) {
    std::call_once(started, start);
    const Microseconds at = now();
    const int result = carryOut();
    const Microseconds took = now() - at;
    record([&](Recording& recording) {
        Call call(function, device);
        call.result = result;
        fillIn(call);
        recording.append({at, took, recording::threadNumber()}, call);
    });
    return result;
}

// ---- callbacks ----

// The slot that the program has set. Never freed, because a callback may still use it.
struct RegisteredSlot {
    CallbackSlot slot;
    RegisteredSlot* previous;
};
std::atomic<RegisteredSlot*> lastRegistered{nullptr};

void onTransfer(int32_t result, void* argument, vanid_t source, vanid_t other, uint32_t packet,
                uint32_t lastWord) {
    record([&](Recording& recording) {
        const Moment moment{now(), 0, recording::threadNumber()};
        if (result == 0) {
            recording.appendAcknowledgement(moment, source, packet);
        } else {
            recording.append(moment, Call(Function::TransferCallback, source, {result, packet}));
        }
    });
    const CallbackSlot& program = static_cast<const RegisteredSlot*>(argument)->slot;
    reinterpret_cast<TransferCallback>(program.function)(result, program.userArgument, source,
                                                         other, packet, lastWord);
}

void onBusChange(void* argument, const vanid_t* member, uint32_t event) {
    record([&](Recording& recording) {
        const Moment moment{now(), 0, recording::threadNumber()};
        recording.append(moment, Call(Function::BusChangeCallback, *member, {event}));
    });
    const CallbackSlot& program = static_cast<const RegisteredSlot*>(argument)->slot;
    reinterpret_cast<BusChangeCallback>(program.function)(program.userArgument, member, event);
}

// The slot to set instead of the program's: `callback` records and then calls the program's.
CallbackSlot recordingSlot(void (*callback)(), const CallbackSlot& slot) {
    if (slot.function == nullptr) {
        return slot;
    }
    auto* const registered = new (std::nothrow) RegisteredSlot{slot, nullptr};
    if (registered == nullptr) {
        return slot;
    }
    registered->previous = lastRegistered.exchange(registered);
    return {callback, registered};
}

void fillInSlot(Call& call, const CallbackSlot& slot, std::vector<std::int64_t> numbers) {
    call.given = std::move(numbers);
    call.text = talm::slotText(slot.function != nullptr);
}

// A forked child has no writer thread to wait for.
__attribute__((destructor)) void finish() {
    if (current != nullptr && getpid() == recordedProcess) {
        current->finish();
    }
}

}  // namespace

// ---- session ----

TalmApiHandle TalmApiInitialize() {
    NEXT(TalmApiInitialize);
    TalmApiHandle handle = nullptr;
    pass(Function::Initialize, {}, [&] { return (handle = next()) == nullptr ? -1 : 0; });
    return handle;
}

int TalmApiOpen(TalmApiHandle handle, const char* connection, int reserved) {
    NEXT(TalmApiOpen);
    return pass(
        Function::Open, {}, [&] { return next(handle, connection, reserved); },
        [&](Call& call) {
            call.given = {reserved};
            call.text = connection == nullptr ? "" : connection;
        });
}

int TalmApiGetLinkState(TalmApiHandle handle, bool* active) {
    NEXT(TalmApiGetLinkState);
    return pass(
        Function::GetLinkState, {}, [&] { return next(handle, active); },
        [&](Call& call) {
            if (*active) {
                call.answer = {1};
            }
        });
}

int TalmApiCleanup(TalmApiHandle handle) {
    NEXT(TalmApiCleanup);
    return pass(Function::Cleanup, {}, [&] { return next(handle); });
}

int TalmApiClose(TalmApiHandle handle) {
    NEXT(TalmApiClose);
    return pass(Function::Close, {}, [&] { return next(handle); });
}

// ---- bus members ----

int TalmApiGetBusMembers(TalmApiHandle handle, vanid_t* members, int capacity) {
    NEXT(TalmApiGetBusMembers);
    return pass(
        Function::GetBusMembers, {}, [&] { return next(handle, members, capacity); },
        [&](Call& call) {
            call.given = {capacity};
            const int count = std::clamp(call.result, 0, capacity);
            call.members.assign(members, members + count);
        });
}

int BusMember_get_type(TalmApiHandle handle, vanid_t member, uint8_t* type) {
    NEXT(BusMember_get_type);
    return pass(
        Function::GetType, member, [&] { return next(handle, member, type); },
        [&](Call& call) {
            if (call.result == 0) {
                call.answer = {*type};
            }
        });
}

int TalmApiIsTalm(vanid_t member) {
    NEXT(TalmApiIsTalm);
    return pass(Function::IsTalm, member, [&] { return next(member); });
}

int OrvinInfo(TalmApiHandle handle, vanid_t device, uint32_t* hw, uint32_t* arm, uint32_t* dsp,
              uint32_t* boosterArm, uint16_t* api, void* reserved, char* name) {
    NEXT(OrvinInfo);
    return pass(
        Function::OrvinInfo, device,
        [&] { return next(handle, device, hw, arm, dsp, boosterArm, api, reserved, name); },
        [&](Call& call) {
            if (call.result == 0) {
                call.answer = {*hw, *arm, *dsp, *boosterArm, *api};
                call.name.assign(name, std::find(name, name + kNameBytes, '\0'));
            }
        });
}

// ---- image transfer and maintenance ----

int ImageTransfer_write_request(TalmApiHandle handle, vanid_t device, uint32_t manufacturer,
                                uint32_t target, uint32_t contentType, uint32_t contentSize,
                                uint16_t contentChecksum) {
    NEXT(ImageTransfer_write_request);
    return pass(
        Function::WriteRequest, device,
        [&] {
            return next(handle, device, manufacturer, target, contentType, contentSize,
                        contentChecksum);
        },
        [&](Call& call) {
            call.given = {manufacturer, target, contentType, contentSize, contentChecksum};
        });
}

int ImageTransfer_data(TalmApiHandle handle, vanid_t device, uint32_t packetNumber,
                       const uint8_t* data, uint32_t* firstOutput, uint32_t* secondOutput) {
    NEXT(ImageTransfer_data);
    return pass(
        Function::Data, device,
        [&] { return next(handle, device, packetNumber, data, firstOutput, secondOutput); },
        [&](Call& call) {
            call.given = {packetNumber};
            call.content.assign(data, data + kPacketBytes);
        });
}

int OrvinImageMaintenance_check_image(TalmApiHandle handle, vanid_t device, uint32_t target,
                                      uint16_t* firstOutput, uint16_t* secondOutput) {
    NEXT(OrvinImageMaintenance_check_image);
    return pass(
        Function::CheckImage, device,
        [&] { return next(handle, device, target, firstOutput, secondOutput); },
        [&](Call& call) {
            call.given = {target};
            if (call.result == 0) {
                call.answer = {*firstOutput, *secondOutput};
            }
        });
}

int OrvinImageMaintenance_start_update(TalmApiHandle handle, vanid_t device, uint32_t target) {
    NEXT(OrvinImageMaintenance_start_update);
    return pass(
        Function::StartUpdate, device, [&] { return next(handle, device, target); },
        [&](Call& call) { call.given = {target}; });
}

// ---- setting callbacks ----

int TalmApiSetCallback(TalmApiHandle handle, int first, int second, int third,
                       const CallbackSlot* slot, int last) {
    NEXT(TalmApiSetCallback);
    const CallbackSlot ours = recordingSlot(reinterpret_cast<void (*)()>(onTransfer), *slot);
    return pass(
        Function::SetTransferCallback, {},
        [&] { return next(handle, first, second, third, &ours, last); },
        [&](Call& call) {
            fillInSlot(call, *slot, {first, second, third, last});
        });
}

int TalmApiSetBusChangeCallback(TalmApiHandle handle, const CallbackSlot* slot, int last) {
    NEXT(TalmApiSetBusChangeCallback);
    const CallbackSlot ours = recordingSlot(reinterpret_cast<void (*)()>(onBusChange), *slot);
    return pass(
        Function::SetBusChangeCallback, {}, [&] { return next(handle, &ours, last); },
        [&](Call& call) { fillInSlot(call, *slot, {last}); });
}
