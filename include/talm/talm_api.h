// The Talm bus access library (libtalm-api-v2): the tool's only access to the bus.
//
// Results are signed: unless a comment says otherwise, 0 means success and a negative value means
// failure. Identifiers are passed by value, all 17 bytes.
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

// Connects the handle to the bus with the URI `connection`. Only a negative result is a failure.
int TalmApiOpen(TalmApiHandle handle, const char* connection, int reserved);

// Sets `*active` if the state is known. A failed call may leave it unchanged, so clear it first.
int TalmApiGetLinkState(TalmApiHandle handle, bool* active);

int TalmApiCleanup(TalmApiHandle handle);

// Frees the handle.
int TalmApiClose(TalmApiHandle handle);

// ---- bus members ----

// Fills `members` with up to `capacity` identifiers. Returns their number, or a negative value on
// failure.
int TalmApiGetBusMembers(TalmApiHandle handle, vanid_t* members, int capacity);

int BusMember_get_type(TalmApiHandle handle, vanid_t member, uint8_t* type);

// Nonzero when the member is a bus master.
int TalmApiIsTalm(vanid_t member);

// Queries the versions and the name of one Orvin. `name` has room for 32 bytes; a name of 32 bytes
// has no terminating zero. The outputs of a failed query are undefined.
int OrvinInfo(TalmApiHandle handle, vanid_t device, uint32_t* hw, uint32_t* arm, uint32_t* dsp,
              uint32_t* boosterArm, uint16_t* api, void* reserved, char* name);

// ---- image transfer and maintenance ----
// A request to the broadcast identifier returns -2.

int ImageTransfer_write_request(TalmApiHandle handle, vanid_t device, uint32_t manufacturer,
                                uint32_t target, uint32_t contentType, uint32_t contentSize,
                                uint16_t contentChecksum);

// Sends one packet, always 64 bytes. The result only says whether the library accepted the packet;
// the devices answer through the transfer callback.
int ImageTransfer_data(TalmApiHandle handle, vanid_t device, uint32_t packetNumber,
                       const uint8_t* data, uint32_t* firstOutput, uint32_t* secondOutput);

// The device has the complete image if both outputs are equal.
int OrvinImageMaintenance_check_image(TalmApiHandle handle, vanid_t device, uint32_t target,
                                      uint16_t* firstOutput, uint16_t* secondOutput);

int OrvinImageMaintenance_start_update(TalmApiHandle handle, vanid_t device, uint32_t target);

// ---- callbacks ----
//
// The library makes callbacks on its own threads, at any time between setting and clearing, and may
// make several at once. After a clearing call has returned, no new callback starts, but one that
// already runs may still take a moment to end.
//
// A call must be able to complete while a callback waits for the tool: during the calls that query
// versions, announce, check and start, the tool holds a lock that its callbacks take. A library
// that serves both with one thread deadlocks.

// The setting call copies the slot. {null, null} clears the callback.
typedef struct {
    void (*function)(void);  // a TransferCallback or a BusChangeCallback; depends on the call
    void* userArgument;      // passed to every callback
} CallbackSlot;

// One device's answer to one packet. `result` 0: acknowledgement; 17: negative acknowledgement,
// send again from `packetNumber` on; other values: a fault of the device.
typedef void (*TransferCallback)(int32_t result, void* userArgument, vanid_t source, vanid_t other,
                                 uint32_t packetNumber, uint32_t lastWord);

// `event` 0: the member came onto the bus. `member` is only valid during the call.
typedef void (*BusChangeCallback)(void* userArgument, const vanid_t* member, uint32_t event);

// The unnamed arguments select the events: 2, 255, 2 and 0 select the answers to image packets.
int TalmApiSetCallback(TalmApiHandle handle, int, int, int, const CallbackSlot* slot, int);

int TalmApiSetBusChangeCallback(TalmApiHandle handle, const CallbackSlot* slot, int);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
