// The Talm bus access library (libtalm-api-v2): the only door to the bus.
//
// Results are signed: unless a function says otherwise, 0 is success and a negative value a
// failure. Identifiers travel by value, all 17 bytes.
#ifndef TALM_TALM_API_H
#define TALM_TALM_API_H

#include <stdbool.h>
#include <stdint.h>

#include "talm/vanid.h"

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

// Opaque; null on failure.
typedef struct TalmApi* TalmApiHandle;

// ---- session ----

TalmApiHandle TalmApiInitialize(void);

// Connects the handle to the bus that the URI `connection` names. Below 0: failure.
int TalmApiOpen(TalmApiHandle handle, const char* connection, int reserved);

// Sets `*active` where the state is known. It may leave it alone on failure, so clear it first.
int TalmApiGetLinkState(TalmApiHandle handle, bool* active);

int TalmApiCleanup(TalmApiHandle handle);

// The handle is gone afterwards.
int TalmApiClose(TalmApiHandle handle);

// ---- bus members ----

// Fills `members` with up to `capacity` identifiers. Returns their number, below 0 on failure.
int TalmApiGetBusMembers(TalmApiHandle handle, vanid_t* members, int capacity);

int BusMember_get_type(TalmApiHandle handle, vanid_t member, uint8_t* type);

// Nonzero when the member is a bus master.
int TalmApiIsTalm(vanid_t member);

// The versions and the name of one Orvin. `name` has room for 32 bytes and may fill them all
// without a terminating zero. What a failed query leaves in the outputs means nothing.
int OrvinInfo(TalmApiHandle handle, vanid_t device, uint32_t* hw, uint32_t* arm, uint32_t* dsp,
              uint32_t* boosterArm, uint16_t* api, void* reserved, char* name);

// ---- image transfer and maintenance ----
// A request to the broadcast identifier answers -2.

int ImageTransfer_write_request(TalmApiHandle handle, vanid_t device, uint32_t manufacturer,
                                uint32_t target, uint32_t contentType, uint32_t contentSize,
                                uint16_t contentChecksum);

// Sends one packet: always 64 bytes. The result only says whether the library took the packet for
// sending; what the devices make of it comes through the transfer callback.
int ImageTransfer_data(TalmApiHandle handle, vanid_t device, uint32_t packetNumber,
                       const uint8_t* data, uint32_t* firstOutput, uint32_t* secondOutput);

// The device has a whole image when both outputs are equal.
int OrvinImageMaintenance_check_image(TalmApiHandle handle, vanid_t device, uint32_t target,
                                      uint16_t* firstOutput, uint16_t* secondOutput);

int OrvinImageMaintenance_start_update(TalmApiHandle handle, vanid_t device, uint32_t target);

// ---- callbacks ----
//
// Callbacks come on threads of the library's own, at any time between setting and clearing, several
// at once. Once a clearing call has returned no new one starts; one that was already running may
// take a moment to end.
//
// A call must be able to complete while a callback waits for the tool: the tool holds a lock that
// its callbacks take during the calls that query versions, announce, check and start. A library
// that serves both with one thread makes the tool stand still.

// Read during the setting call, so it need not outlive it. {null, null} clears.
typedef struct {
    void (*function)(void);  // a TransferCallback or a BusChangeCallback, by the call that sets it
    void* userArgument;      // handed back with every callback
} CallbackSlot;

// What one device made of one packet. `result` 0: received; 17: send again from `packetNumber` on;
// anything else: a fault of the device.
typedef void (*TransferCallback)(int32_t result, void* userArgument, vanid_t source, vanid_t other,
                                 uint32_t packetNumber, uint32_t lastWord);

// `event` 0: the member came onto the bus. `member` is only valid during the call.
typedef void (*BusChangeCallback)(void* userArgument, const vanid_t* member, uint32_t event);

// The unnamed arguments are the library's own: 2, 255, 2 and 0 for the results of image packets.
int TalmApiSetCallback(TalmApiHandle handle, int, int, int, const CallbackSlot* slot, int);

int TalmApiSetBusChangeCallback(TalmApiHandle handle, const CallbackSlot* slot, int);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
