/* Length-limited scans of zero-terminated text, written here because the oldest C
 * libraries the launcher runs on have neither strnlen nor strchrnul. Private to bounded/. */
#ifndef BOUNDED_SCAN_H
#define BOUNDED_SCAN_H

#include <stddef.h>
#include <string.h>

namespace bounded {

/* Length of text, looking at no more than max bytes: max when none of them ends it.
 * memchr stops at the first match, so no byte behind the terminator is read. */
inline size_t LengthWithin(const char* text, size_t max) {
    const void* end = memchr(text, '\0', max);
    return end != nullptr ? static_cast<size_t>(static_cast<const char*>(end) - text) : max;
}

/* The first c in text, or its terminator when there is none. */
inline const char* FindOrEnd(const char* text, char c) {
    const char set[2] = {c, '\0'};
    return text + strcspn(text, set);
}

} // namespace bounded

#endif
