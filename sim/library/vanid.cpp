#include "talm/vanid.h"

#include "common/vanid_text.h"

int vanid_equal(const vanid_t* a, const vanid_t* b) {
    return isSameVanid(*a, *b) ? 1 : 0;
}

int vanid_is_broadcast(const vanid_t* id) {
    return isBroadcastVanid(*id) ? 1 : 0;
}
