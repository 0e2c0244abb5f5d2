#include "talm/vanid.h"

#include "recording/identifier.h"

int vanid_equal(const vanid_t* a, const vanid_t* b) {
    return recording::sameIdentifier(*a, *b) ? 1 : 0;
}

int vanid_is_broadcast(const vanid_t* id) {
    return recording::isBroadcast(*id) ? 1 : 0;
}
