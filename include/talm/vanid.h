// The device identifier library (libvanid).
#ifndef TALM_VANID_H
#define TALM_VANID_H

#include <stdint.h>

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

// The bus-wide identifier of one device: 17 opaque bytes, byte 0 first, no padding.
typedef struct {
    uint8_t bytes[17];
} vanid_t;

// Nonzero when both identifiers are equal.
int vanid_equal(const vanid_t* a, const vanid_t* b);

// Nonzero for the identifier that addresses every device on the bus.
int vanid_is_broadcast(const vanid_t* id);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
