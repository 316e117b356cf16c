/* What the bounded functions share: the checks of a destination and of overlapping ranges,
 * and length-limited scans of zero-terminated text, written here because the oldest C
 * libraries the launcher runs on have neither strnlen nor strchrnul. Private to bounded/. */
#ifndef BOUNDED_SCAN_H
#define BOUNDED_SCAN_H

#include "bounded/bounded.h"

#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace bounded {

/* destMax in 1 to BOUNDED_MAX_LEN. */
inline bool IsValidDestMax(size_t destMax) {
    return destMax - 1 < BOUNDED_MAX_LEN;
}

/* Why a destination may not be touched at all: BOUNDED_ERANGE for a capacity of 0 or above
 * the maximum, else BOUNDED_EINVAL for a null pointer; BOUNDED_OK when it may be written. */
inline int DestinationError(const void* dest, size_t destMax) {
    if (!IsValidDestMax(destMax)) {
        return BOUNDED_ERANGE;
    }
    return dest == nullptr ? BOUNDED_EINVAL : BOUNDED_OK;
}

/* The half-open ranges [a, a + size) and [b, b + size) share a byte. */
inline bool Overlap(const void* a, const void* b, size_t size) {
    const uintptr_t x = reinterpret_cast<uintptr_t>(a);
    const uintptr_t y = reinterpret_cast<uintptr_t>(b);
    return x < y ? y - x < size : x - y < size;
}

/* Length of text, looking at no more than max bytes: max when none of them ends it.
 * memchr stops at the first match, so no byte behind the terminator is read. */
inline size_t LengthWithin(const char* text, size_t max) {
    const void* end = memchr(text, '\0', max);
    return end != nullptr ? static_cast<size_t>(static_cast<const char*>(end) - text) : max;
}

} // namespace bounded

#endif
