/* Bounded copy, move and fill of raw memory.
 *
 * Each function decides the common valid case with one combined test and then does the
 * work with the C library's own routine; only a call that fails that test is classified.
 */
#include "bounded/bounded.h"

#include <stdint.h>
#include <string.h>

namespace {

/* destMax in 1 to BOUNDED_MAX_LEN. */
inline bool IsValidDestMax(size_t destMax) {
    return destMax - 1 < BOUNDED_MAX_LEN;
}

/* The half-open ranges [a, a + count) and [b, b + count) share no byte. */
inline bool AreDisjoint(const void* a, const void* b, size_t count) {
    uintptr_t x = reinterpret_cast<uintptr_t>(a);
    uintptr_t y = reinterpret_cast<uintptr_t>(b);
    return x < y ? y - x >= count : x - y >= count;
}

} // namespace

extern "C" int memcpy_s(void* dest, size_t destMax, const void* src, size_t count) {
    if (count != 0 && destMax <= BOUNDED_MAX_LEN && src != NULL && dest != NULL && count <= destMax &&
        AreDisjoint(dest, src, count)) {
        memcpy(dest, src, count);
        return BOUNDED_OK;
    }
    if (!IsValidDestMax(destMax)) {
        return BOUNDED_ERANGE;
    }
    if (dest == NULL) {
        return BOUNDED_EINVAL;
    }
    if (src == NULL) {
        memset(dest, 0, destMax);
        return BOUNDED_EINVAL_RESET;
    }
    if (count > destMax) {
        memset(dest, 0, destMax);
        return BOUNDED_ERANGE_RESET;
    }
    if (dest == src) {
        return BOUNDED_OK;
    }
    if (count != 0) {
        /* Everything else has passed, so the ranges must overlap. */
        memset(dest, 0, destMax);
        return BOUNDED_EOVERLAP_RESET;
    }
    return BOUNDED_OK;
}

extern "C" int memmove_s(void* dest, size_t destMax, const void* src, size_t count) {
    if (dest != NULL && src != NULL && IsValidDestMax(destMax) && count <= destMax) {
        /* Covers dest == src and count 0 too: both leave the bytes as they are. */
        memmove(dest, src, count);
        return BOUNDED_OK;
    }
    if (!IsValidDestMax(destMax)) {
        return BOUNDED_ERANGE;
    }
    if (dest == NULL) {
        return BOUNDED_EINVAL;
    }
    if (src == NULL) {
        memset(dest, 0, destMax);
        return BOUNDED_EINVAL_RESET;
    }
    memset(dest, 0, destMax);
    return BOUNDED_ERANGE_RESET;
}

extern "C" int memset_s(void* dest, size_t destMax, int c, size_t count) {
    if (destMax <= BOUNDED_MAX_LEN && dest != NULL && count <= destMax) {
        memset(dest, c, count);
        return BOUNDED_OK;
    }
    if (!IsValidDestMax(destMax)) {
        return BOUNDED_ERANGE;
    }
    if (dest == NULL) {
        return BOUNDED_EINVAL;
    }
    /* count > destMax: the whole destination still gets the requested value. */
    memset(dest, c, destMax);
    return BOUNDED_ERANGE_RESET;
}
