/* Bounded copy, move and fill of raw memory.
 *
 * Each function decides the common valid case with one combined test and then does the
 * work with the C library's own routine; only a call that fails that test is classified.
 */
#include "bounded/bounded.h"
#include "bounded/scan.h"

#include <string.h>

using bounded::DestinationError;
using bounded::Overlap;

namespace {

/* The checks both copies make once their common case has failed: the destination, then
 * the source, whose absence zeroes the destination. BOUNDED_OK when both pass. */
int CopyArgumentsError(void* dest, size_t destMax, const void* src) {
    if (int code = DestinationError(dest, destMax); code != BOUNDED_OK) {
        return code;
    }
    if (src == nullptr) {
        memset(dest, 0, destMax);
        return BOUNDED_EINVAL_RESET;
    }
    return BOUNDED_OK;
}

} // namespace

extern "C" int memcpy_s(void* dest, size_t destMax, const void* src, size_t count) {
    if (count != 0 && destMax <= BOUNDED_MAX_LEN && src != nullptr && dest != nullptr && count <= destMax &&
        !Overlap(dest, src, count)) {
        memcpy(dest, src, count);
        return BOUNDED_OK;
    }
    if (int code = CopyArgumentsError(dest, destMax, src); code != BOUNDED_OK) {
        return code;
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
    if (dest != nullptr && src != nullptr && bounded::IsValidDestMax(destMax) && count <= destMax) {
        /* Covers dest == src and count 0 too: both leave the bytes as they are. */
        memmove(dest, src, count);
        return BOUNDED_OK;
    }
    if (int code = CopyArgumentsError(dest, destMax, src); code != BOUNDED_OK) {
        return code;
    }
    memset(dest, 0, destMax);
    return BOUNDED_ERANGE_RESET;
}

extern "C" int memset_s(void* dest, size_t destMax, int c, size_t count) {
    if (destMax <= BOUNDED_MAX_LEN && dest != nullptr && count <= destMax) {
        memset(dest, c, count);
        return BOUNDED_OK;
    }
    if (int code = DestinationError(dest, destMax); code != BOUNDED_OK) {
        return code;
    }
    /* count > destMax: the whole destination still gets the requested value. */
    memset(dest, c, destMax);
    return BOUNDED_ERANGE_RESET;
}
