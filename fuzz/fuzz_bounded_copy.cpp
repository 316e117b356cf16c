// memcpy_s, memmove_s, strncpy_s, strncat_s and strcpy_s with fuzzed sizes, offsets and
// overlaps inside one heap arena, against a byte-by-byte model of their rules: the same
// code, and the same bytes in the whole arena afterwards.
#include "bounded/bounded.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

namespace {

const size_t ARENA = 64;

struct Call {
    int op;
    bool nullDest;
    bool nullSrc;
    size_t destOff;
    size_t srcOff;
    size_t destMax;
    size_t count;
};

bool ValidMax(size_t destMax) {
    return destMax >= 1 && destMax <= BOUNDED_MAX_LEN;
}

// ---- The model: each function's steps, in order, on indices into the arena ----------------

// The arena's bytes as the model sees them; -1 stands for a null pointer.
struct Model {
    unsigned char* a;
    long dest;
    long src;
};

bool RangesOverlap(long x, long y, size_t n) {
    return n != 0 && (x < y ? size_t(y - x) < n : size_t(x - y) < n);
}

// The checks memcpy_s and memmove_s make first, in the same order: the code of the
// first that fails (with the whole destination cleared for the reset codes), or -1.
int ModelMemoryChecks(Model m, size_t destMax, size_t count) {
    if (!ValidMax(destMax)) {
        return BOUNDED_ERANGE;
    }
    if (m.dest < 0) {
        return BOUNDED_EINVAL;
    }
    if (m.src < 0) {
        memset(m.a + m.dest, 0, destMax);
        return BOUNDED_EINVAL_RESET;
    }
    if (count > destMax) {
        memset(m.a + m.dest, 0, destMax);
        return BOUNDED_ERANGE_RESET;
    }
    return -1;
}

int ModelMemcpy(Model m, size_t destMax, size_t count) {
    if (int code = ModelMemoryChecks(m, destMax, count); code >= 0) {
        return code;
    }
    if (m.dest == m.src) {
        return BOUNDED_OK;
    }
    if (RangesOverlap(m.dest, m.src, count)) {
        memset(m.a + m.dest, 0, destMax);
        return BOUNDED_EOVERLAP_RESET;
    }
    for (size_t i = 0; i < count; ++i) {
        m.a[m.dest + i] = m.a[m.src + i];
    }
    return BOUNDED_OK;
}

int ModelMemmove(Model m, size_t destMax, size_t count) {
    if (int code = ModelMemoryChecks(m, destMax, count); code >= 0) {
        return code;
    }
    unsigned char copy[ARENA];
    for (size_t i = 0; i < count; ++i) {
        copy[i] = m.a[m.src + i];
    }
    for (size_t i = 0; i < count; ++i) {
        m.a[m.dest + i] = copy[i];
    }
    return BOUNDED_OK;
}

int ModelStrncpy(Model m, size_t destMax, size_t count) {
    if (!ValidMax(destMax)) {
        return BOUNDED_ERANGE;
    }
    if (m.dest < 0) {
        return BOUNDED_EINVAL;
    }
    if (m.src < 0 || count > BOUNDED_MAX_LEN || count == 0) {
        m.a[m.dest] = 0;
        return m.src < 0 ? BOUNDED_EINVAL_RESET : count == 0 ? BOUNDED_OK : BOUNDED_ERANGE_RESET;
    }
    size_t n = 0;
    while (n < count && n < destMax && m.a[m.src + n] != 0) {
        ++n;
    }
    if (n >= destMax) {
        m.a[m.dest] = 0;
        return BOUNDED_ERANGE_RESET;
    }
    if (m.dest != m.src && RangesOverlap(m.dest, m.src, n + 1)) {
        m.a[m.dest] = 0;
        return BOUNDED_EOVERLAP_RESET;
    }
    for (size_t i = 0; i < n; ++i) {
        m.a[m.dest + i] = m.a[m.src + i];
    }
    m.a[m.dest + n] = 0;
    return BOUNDED_OK;
}

int ModelStrncat(Model m, size_t destMax, size_t count) {
    if (!ValidMax(destMax)) {
        return BOUNDED_ERANGE;
    }
    if (m.dest < 0) {
        return BOUNDED_EINVAL;
    }
    if (m.src < 0) {
        m.a[m.dest] = 0;
        return BOUNDED_EINVAL_RESET;
    }
    if (count > BOUNDED_MAX_LEN) {
        m.a[m.dest] = 0;
        return BOUNDED_ERANGE_RESET;
    }
    size_t len = 0;
    while (len < destMax && m.a[m.dest + len] != 0) {
        if (m.dest < m.src && m.dest + long(len) == m.src) {
            m.a[m.dest] = 0;
            return BOUNDED_EOVERLAP_RESET;
        }
        ++len;
    }
    if (len == destMax) {
        m.a[m.dest] = 0;
        return BOUNDED_EINVAL_RESET;
    }
    if (count == 0) {
        return BOUNDED_OK;
    }
    if (m.dest == m.src) { // appending a text to itself is refused
        m.a[m.dest] = 0;
        return BOUNDED_EOVERLAP_RESET;
    }
    for (size_t k = 0; k < count; ++k) {
        unsigned char ch = m.a[m.src + k];
        m.a[m.dest + len + k] = ch;
        if (ch == 0) {
            return BOUNDED_OK;
        }
        if (len + k == destMax - 1) {
            m.a[m.dest] = 0;
            return BOUNDED_ERANGE_RESET;
        }
        if ((m.dest < m.src && m.dest + long(len + k + 1) == m.src) ||
            (m.src < m.dest && m.src + long(k + 1) == m.dest)) {
            m.a[m.dest] = 0;
            return BOUNDED_EOVERLAP_RESET;
        }
    }
    m.a[m.dest + len + count] = 0;
    return BOUNDED_OK;
}

int ModelStrcpy(Model m, size_t destMax) {
    if (!ValidMax(destMax)) {
        return BOUNDED_ERANGE;
    }
    if (m.dest < 0) {
        return BOUNDED_EINVAL;
    }
    if (m.src < 0) {
        m.a[m.dest] = 0;
        return BOUNDED_EINVAL_RESET;
    }
    size_t n = 0;
    while (n < destMax && m.a[m.src + n] != 0) {
        ++n;
    }
    if (n + 1 > destMax) {
        m.a[m.dest] = 0;
        return BOUNDED_ERANGE_RESET;
    }
    if (m.dest == m.src) {
        return BOUNDED_OK;
    }
    if (RangesOverlap(m.dest, m.src, n + 1)) {
        m.a[m.dest] = 0;
        return BOUNDED_EOVERLAP_RESET;
    }
    for (size_t i = 0; i <= n; ++i) {
        m.a[m.dest + i] = m.a[m.src + i];
    }
    return BOUNDED_OK;
}

// Sizes around the interesting values: small, exactly the room left, and the limits.
size_t PickSize(uint8_t b, size_t room) {
    switch (b & 7) {
    case 0:
        return room;
    case 1:
        return room == 0 ? 0 : room - 1;
    case 2:
        return room + 1;
    case 3:
        return b & 8 ? BOUNDED_MAX_LEN : BOUNDED_MAX_LEN + 1;
    case 4:
        return b & 8 ? SIZE_MAX : 0;
    default:
        return (b >> 3) % (ARENA + 2);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 6) {
        return 0;
    }
    Call c;
    c.op = data[0] % 5;
    c.nullDest = (data[0] >> 3) % 16 == 0;
    c.nullSrc = (data[0] >> 3) % 16 == 1;
    c.destOff = data[1] % ARENA;
    c.srcOff = data[2] % ARENA;
    c.destMax = PickSize(data[3], ARENA - c.destOff);
    c.count = PickSize(data[4], ARENA - (c.srcOff > c.destOff ? c.srcOff : c.destOff));
    // A destMax reaching beyond the arena claims memory that is not there (the caller's
    // mistake, not the function's), except where the rules refuse it before any access.
    if (c.destMax > ARENA - c.destOff && ValidMax(c.destMax) && !c.nullDest) {
        return 0;
    }

    // The arena's contents: the rest of the input, the last byte zero so that every
    // source text ends inside it.
    unsigned char* arena = static_cast<unsigned char*>(malloc(ARENA));
    unsigned char model[ARENA];
    for (size_t i = 0; i < ARENA; ++i) {
        arena[i] = 5 + i < size ? data[5 + i] : static_cast<unsigned char>('a' + i % 26);
    }
    arena[ARENA - 1] = 0;
    // The memory functions read count bytes of the source: keep those inside the arena.
    bool memoryOp = c.op < 2;
    if (memoryOp && !c.nullSrc && c.count <= c.destMax && c.srcOff + c.count > ARENA) {
        free(arena);
        return 0;
    }
    memcpy(model, arena, ARENA);

    void* dest = c.nullDest ? nullptr : arena + c.destOff;
    const void* src = c.nullSrc ? nullptr : arena + c.srcOff;
    Model m{model, c.nullDest ? -1 : long(c.destOff), c.nullSrc ? -1 : long(c.srcOff)};
    int code;
    int expected;
    switch (c.op) {
    case 0:
        code = memcpy_s(dest, c.destMax, src, c.count);
        expected = ModelMemcpy(m, c.destMax, c.count);
        break;
    case 1:
        code = memmove_s(dest, c.destMax, src, c.count);
        expected = ModelMemmove(m, c.destMax, c.count);
        break;
    case 2:
        code = strncpy_s(static_cast<char*>(dest), c.destMax, static_cast<const char*>(src), c.count);
        expected = ModelStrncpy(m, c.destMax, c.count);
        break;
    case 3:
        code = strncat_s(static_cast<char*>(dest), c.destMax, static_cast<const char*>(src), c.count);
        expected = ModelStrncat(m, c.destMax, c.count);
        break;
    default:
        code = strcpy_s(static_cast<char*>(dest), c.destMax, static_cast<const char*>(src));
        expected = ModelStrcpy(m, c.destMax);
        break;
    }
    if (code != expected || memcmp(arena, model, ARENA) != 0) {
        abort();
    }
    free(arena);
    return 0;
}
