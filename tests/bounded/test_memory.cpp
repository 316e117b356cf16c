// memcpy_s, memmove_s, memset_s: results and what the destination holds afterwards.
#include "bounded/bounded.h"

#include <gtest/gtest.h>

#include <string.h>

namespace {

constexpr unsigned char JUNK = 0xA5;
constexpr size_t AREA = 64;

// A junk-filled area; the destination starts at its beginning, so every byte behind
// destMax acts as a guard.
struct Area {
    unsigned char bytes[AREA];
    Area() { memset(bytes, JUNK, sizeof bytes); }
    bool AllFrom(size_t from, size_t to, unsigned char value) const {
        for (size_t i = from; i < to; ++i) {
            if (bytes[i] != value) {
                return false;
            }
        }
        return true;
    }
};

const unsigned char SOURCE[AREA] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ!";

enum Expect { COPIED, UNTOUCHED, ZEROED };

struct CopyCase {
    const char* what;
    size_t destMax;
    size_t count;
    bool nullDest;
    bool nullSrc;
    int code;
    Expect dest;
};

// Each row: the first rule that applies decides, and the bytes behind destMax never change.
const CopyCase COPY_CASES[] = {
    {"exact fit", 16, 16, false, false, BOUNDED_OK, COPIED},
    {"one short", 16, 15, false, false, BOUNDED_OK, COPIED},
    {"one over", 16, 17, false, false, BOUNDED_ERANGE_RESET, ZEROED},
    {"count 0", 16, 0, false, false, BOUNDED_OK, UNTOUCHED},
    {"destMax 0", 0, 0, false, false, BOUNDED_ERANGE, UNTOUCHED},
    {"destMax 0 beats null dest", 0, 4, true, true, BOUNDED_ERANGE, UNTOUCHED},
    {"destMax above the limit", BOUNDED_MAX_LEN + 1, 4, false, false, BOUNDED_ERANGE, UNTOUCHED},
    {"null dest beats null src", 16, 4, true, true, BOUNDED_EINVAL, UNTOUCHED},
    {"null src", 16, 4, false, true, BOUNDED_EINVAL_RESET, ZEROED},
    {"null src beats count over", 16, 40, false, true, BOUNDED_EINVAL_RESET, ZEROED},
};

TEST(MemcpyS, CodesAndDestinationByRule) {
    for (const CopyCase& c : COPY_CASES) {
        SCOPED_TRACE(c.what);
        Area area;
        void* dest = c.nullDest ? nullptr : area.bytes;
        const void* src = c.nullSrc ? nullptr : SOURCE;
        EXPECT_EQ(memcpy_s(dest, c.destMax, src, c.count), c.code);
        size_t touched = c.destMax <= AREA ? c.destMax : 0;
        if (c.dest == COPIED) {
            EXPECT_EQ(memcmp(area.bytes, SOURCE, c.count), 0);
            EXPECT_TRUE(area.AllFrom(c.count, AREA, JUNK));
        } else if (c.dest == ZEROED) {
            EXPECT_TRUE(area.AllFrom(0, touched, 0));
            EXPECT_TRUE(area.AllFrom(touched, AREA, JUNK));
        } else {
            EXPECT_TRUE(area.AllFrom(0, AREA, JUNK));
        }
    }
}

TEST(MemcpyS, OverlapIsRefusedButSameAddressAndAdjacentRangesAreNot) {
    Area area;
    memcpy(area.bytes, SOURCE, 32);
    // dest equal to src: nothing to do.
    EXPECT_EQ(memcpy_s(area.bytes, 32, area.bytes, 32), BOUNDED_OK);
    EXPECT_EQ(memcmp(area.bytes, SOURCE, 32), 0);

    // Adjacent ranges share no byte.
    EXPECT_EQ(memcpy_s(area.bytes + 8, 8, area.bytes, 8), BOUNDED_OK);
    EXPECT_EQ(memcmp(area.bytes + 8, "01234567", 8), 0);

    // dest inside the source range, and src inside the destination range.
    for (int direction = 0; direction < 2; ++direction) {
        SCOPED_TRACE(direction);
        Area overlap;
        memcpy(overlap.bytes, SOURCE, 32);
        unsigned char* dest = direction == 0 ? overlap.bytes + 4 : overlap.bytes;
        unsigned char* src = direction == 0 ? overlap.bytes : overlap.bytes + 4;
        EXPECT_EQ(memcpy_s(dest, 12, src, 8), BOUNDED_EOVERLAP_RESET);
        // The whole destination is cleared, not only the count bytes.
        for (size_t i = 0; i < 12; ++i) {
            EXPECT_EQ(dest[i], 0) << i;
        }
        EXPECT_EQ(dest[12], SOURCE[dest - overlap.bytes + 12]);
    }

    // Overlapping ranges with count 0 copy nothing and are no error.
    EXPECT_EQ(memcpy_s(area.bytes + 1, 8, area.bytes, 0), BOUNDED_OK);
}

TEST(MemmoveS, MovesOverlappingRangesAndClassifiesErrors) {
    unsigned char bytes[16];
    memcpy(bytes, "0123456789abcdef", 16);
    EXPECT_EQ(memmove_s(bytes + 2, 14, bytes, 8), BOUNDED_OK);
    EXPECT_EQ(memcmp(bytes, "0101234567abcdef", 16), 0);
    EXPECT_EQ(memmove_s(bytes, 16, bytes + 2, 8), BOUNDED_OK);
    EXPECT_EQ(memcmp(bytes, "01234567", 8), 0);

    // Errors: which code, and whether destMax bytes are zeroed (the guard behind never is).
    const struct {
        size_t destMax;
        const void* src;
        size_t count;
        int code;
        bool zeroed;
    } cases[] = {
        {16, SOURCE, 17, BOUNDED_ERANGE_RESET, true},
        {16, nullptr, 4, BOUNDED_EINVAL_RESET, true},
        {0, SOURCE, 0, BOUNDED_ERANGE, false},
        {BOUNDED_MAX_LEN + 1, SOURCE, 4, BOUNDED_ERANGE, false},
    };
    for (const auto& c : cases) {
        Area area;
        EXPECT_EQ(memmove_s(area.bytes, c.destMax, c.src, c.count), c.code);
        EXPECT_TRUE(area.AllFrom(0, c.zeroed ? 16 : AREA, c.zeroed ? 0 : JUNK)) << c.code;
        EXPECT_TRUE(area.AllFrom(16, AREA, JUNK));
    }
    EXPECT_EQ(memmove_s(nullptr, 16, SOURCE, 4), BOUNDED_EINVAL);
}

TEST(MemsetS, FillsCountBytesAndOnOverflowTheWholeDestination) {
    Area area;
    EXPECT_EQ(memset_s(area.bytes, 10, 0x141, 4), BOUNDED_OK); // only the low byte is stored
    EXPECT_TRUE(area.AllFrom(0, 4, 0x41));
    EXPECT_TRUE(area.AllFrom(4, AREA, JUNK));

    Area over;
    EXPECT_EQ(memset_s(over.bytes, 10, 0x41, 11), BOUNDED_ERANGE_RESET);
    EXPECT_TRUE(over.AllFrom(0, 10, 0x41)); // the requested value, not zero
    EXPECT_TRUE(over.AllFrom(10, AREA, JUNK));

    Area untouched;
    EXPECT_EQ(memset_s(untouched.bytes, 0, 0, 0), BOUNDED_OK); // the one destMax 0 that is fine
    EXPECT_EQ(memset_s(untouched.bytes, 0, 0, 1), BOUNDED_ERANGE);
    EXPECT_EQ(memset_s(nullptr, 0, 0, 0), BOUNDED_ERANGE);
    EXPECT_EQ(memset_s(untouched.bytes, BOUNDED_MAX_LEN + 1, 0, 1), BOUNDED_ERANGE);
    EXPECT_EQ(memset_s(nullptr, 10, 0, 1), BOUNDED_EINVAL);
    EXPECT_TRUE(untouched.AllFrom(0, AREA, JUNK));
}

} // namespace
