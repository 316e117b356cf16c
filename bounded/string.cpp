/* Bounded copy and concatenation of zero-terminated text.
 *
 * The text functions reset a destination by making it the empty text (dest[0] = 0);
 * the bytes behind it stay. A copy that does not fit is refused as a whole, never cut:
 * cutting is the caller's business, through count.
 */
#include "bounded/bounded.h"
#include "bounded/scan.h"

#include <stdint.h>
#include <string.h>

using bounded::DestinationError;
using bounded::Overlap;

namespace {

inline uintptr_t Address(const void* p) {
    return reinterpret_cast<uintptr_t>(p);
}

inline int ResetText(char* dest, int code) {
    dest[0] = '\0';
    return code;
}

/* The checks every text function makes once its common case has failed: the destination,
 * then the source and the count, which reset the destination. BOUNDED_OK when all pass. */
int TextArgumentsError(char* dest, size_t destMax, const char* src, size_t count) {
    if (int code = DestinationError(dest, destMax); code != BOUNDED_OK) {
        return code;
    }
    if (src == nullptr) {
        return ResetText(dest, BOUNDED_EINVAL_RESET);
    }
    if (count > BOUNDED_MAX_LEN) {
        return ResetText(dest, BOUNDED_ERANGE_RESET);
    }
    return BOUNDED_OK;
}

/* strncat_s past its argument checks, byte by byte: the form that sees a write reach the
 * source or a read reach the destination while it happens. */
int AppendWithOverlapWatch(char* dest, size_t destMax, size_t len, const char* src, size_t count) {
    const uintptr_t destAddress = Address(dest);
    const uintptr_t srcAddress = Address(src);
    for (size_t k = 0; k < count; ++k) {
        char ch = src[k];
        dest[len + k] = ch;
        if (ch == '\0') {
            return BOUNDED_OK;
        }
        if (len + k == destMax - 1) {
            return ResetText(dest, BOUNDED_ERANGE_RESET);
        }
        if (destAddress < srcAddress && destAddress + len + k + 1 == srcAddress) {
            return ResetText(dest, BOUNDED_EOVERLAP_RESET);
        }
        if (srcAddress < destAddress && srcAddress + k + 1 == destAddress) {
            return ResetText(dest, BOUNDED_EOVERLAP_RESET);
        }
    }
    dest[len + count] = '\0';
    return BOUNDED_OK;
}

} // namespace

extern "C" int strncpy_s(char* dest, size_t destMax, const char* src, size_t count) {
    if (dest != nullptr && src != nullptr && bounded::IsValidDestMax(destMax) &&
        count - 1 < BOUNDED_MAX_LEN) {
        /* Reads no further than count characters, nor than the one that would not fit. */
        size_t n = bounded::LengthWithin(src, count < destMax ? count : destMax);
        if (n < destMax && (dest == src || !Overlap(dest, src, n + 1))) {
            if (dest != src) {
                memcpy(dest, src, n);
            }
            dest[n] = '\0';
            return BOUNDED_OK;
        }
        return ResetText(dest, n >= destMax ? BOUNDED_ERANGE_RESET : BOUNDED_EOVERLAP_RESET);
    }
    if (int code = TextArgumentsError(dest, destMax, src, count); code != BOUNDED_OK) {
        return code;
    }
    /* count is 0: the destination becomes the empty text. */
    return ResetText(dest, BOUNDED_OK);
}

extern "C" int strncat_s(char* dest, size_t destMax, const char* src, size_t count) {
    if (int code = TextArgumentsError(dest, destMax, src, count); code != BOUNDED_OK) {
        return code;
    }
    size_t len = dest[0] == '\0' ? 0 : bounded::LengthWithin(dest, destMax);
    if (Address(dest) < Address(src) && Address(src) < Address(dest) + len) {
        return ResetText(dest, BOUNDED_EOVERLAP_RESET);
    }
    if (len == destMax) {
        return ResetText(dest, BOUNDED_EINVAL_RESET);
    }
    if (count == 0) {
        return BOUNDED_OK;
    }
    /* Appending a text to itself would read what it has just appended. */
    if (dest == src) {
        return ResetText(dest, BOUNDED_EOVERLAP_RESET);
    }
    size_t room = destMax - len; /* at least 1: the terminator's byte */
    size_t scan = count < room ? count : room;
    /* A source that ends before the destination with a byte to spare, or lies wholly
     * behind it, can meet no write and no read of the other: one scan, one block copy. */
    if (Address(src) + scan < Address(dest) || Address(src) >= Address(dest) + destMax) {
        if (count < room) {
            /* The callers' append pattern: whatever the source holds, at most count
             * characters and the terminator fit, and the C library appends them in one pass. */
            strncat(dest + len, src, count);
            return BOUNDED_OK;
        }
        size_t n = bounded::LengthWithin(src, scan);
        if (n == room) {
            /* What was appended up to the last byte stays behind the emptied text. */
            memcpy(dest + len, src, room);
            return ResetText(dest, BOUNDED_ERANGE_RESET);
        }
        memcpy(dest + len, src, n);
        dest[len + n] = '\0';
        return BOUNDED_OK;
    }
    return AppendWithOverlapWatch(dest, destMax, len, src, count);
}

extern "C" int strcpy_s(char* dest, size_t destMax, const char* src) {
    if (int code = TextArgumentsError(dest, destMax, src, 0); code != BOUNDED_OK) {
        return code;
    }
    size_t n = bounded::LengthWithin(src, destMax);
    if (n == destMax) {
        return ResetText(dest, BOUNDED_ERANGE_RESET);
    }
    if (dest == src) {
        return BOUNDED_OK;
    }
    if (Overlap(dest, src, n + 1)) {
        return ResetText(dest, BOUNDED_EOVERLAP_RESET);
    }
    memcpy(dest, src, n + 1);
    return BOUNDED_OK;
}
