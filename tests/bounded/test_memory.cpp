// memcpy_s, memmove_s, memset_s: codes and what the destination holds afterwards.
#include "support.h"

namespace {

const char SOURCE[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ!";

// The rules both copy functions share: the first that applies decides.
TEST(CopyS, CodesAndDestinationByRule) {
    enum Expect { COPIED, UNTOUCHED, ZEROED };
    const struct {
        size_t destMax, count;
        bool nullDest, nullSrc;
        int code;
        Expect dest;
    } cases[] = {
        {16, 16, false, false, BOUNDED_OK, COPIED},
        {16, 17, false, false, BOUNDED_ERANGE_RESET, ZEROED},
        {16, 0, false, false, BOUNDED_OK, UNTOUCHED},
        {0, 0, false, false, BOUNDED_ERANGE, UNTOUCHED},
        {0, 4, true, true, BOUNDED_ERANGE, UNTOUCHED}, // destMax 0 before null dest
        {BOUNDED_MAX_LEN + 1, 4, false, false, BOUNDED_ERANGE, UNTOUCHED},
        {16, 4, true, true, BOUNDED_EINVAL, UNTOUCHED}, // null dest before null src
        {16, 4, false, true, BOUNDED_EINVAL_RESET, ZEROED},
        {16, 40, false, true, BOUNDED_EINVAL_RESET, ZEROED}, // null src before count over
    };
    for (auto copy : {memcpy_s, memmove_s}) {
        for (const auto& c : cases) {
            SCOPED_TRACE("destMax " + std::to_string(c.destMax) + " count " + std::to_string(c.count));
            Area area(c.destMax);
            EXPECT_EQ(
                copy(c.nullDest ? nullptr : area.data(), c.destMax, c.nullSrc ? nullptr : SOURCE, c.count),
                c.code);
            size_t filled = c.dest == COPIED ? c.count : c.dest == ZEROED ? area.Room() : 0;
            EXPECT_TRUE(c.dest == ZEROED ? area.Filled(filled, 0) : memcmp(area.data(), SOURCE, filled) == 0);
            EXPECT_TRUE(area.Unchanged(filled));
        }
    }
}

TEST(CopyS, OverlapIsRefusedByMemcpyAndMovedByMemmove) {
    // dest inside the source range, and src inside the destination range: the whole
    // destination is cleared, not only count bytes.
    for (size_t destAt : {4, 0}) {
        char bytes[32];
        memcpy(bytes, SOURCE, sizeof bytes);
        EXPECT_EQ(memcpy_s(bytes + destAt, 12, bytes + 4 - destAt, 8), BOUNDED_EOVERLAP_RESET);
        EXPECT_EQ(std::string(bytes + destAt, 13), std::string(12, '\0') + SOURCE[destAt + 12]);
    }
    // The same address, adjacent ranges and a count of 0 are no overlap.
    char bytes[16];
    memcpy(bytes, SOURCE, sizeof bytes);
    EXPECT_EQ(memcpy_s(bytes, 16, bytes, 16), BOUNDED_OK);
    EXPECT_EQ(memcpy_s(bytes + 8, 8, bytes, 8), BOUNDED_OK);
    EXPECT_EQ(memcpy_s(bytes + 1, 8, bytes, 0), BOUNDED_OK);
    EXPECT_EQ(std::string(bytes, 16), "0123456701234567");
    EXPECT_EQ(memmove_s(bytes + 2, 14, bytes, 8), BOUNDED_OK);
    EXPECT_EQ(memmove_s(bytes, 16, bytes + 3, 4), BOUNDED_OK);
    EXPECT_EQ(std::string(bytes, 16), "1234234567234567");
}

// Only the low byte of the value (0x141) is stored.
TEST(MemsetS, FillsCountBytesAndOnOverflowTheWholeDestination) {
    const struct {
        bool nullDest;
        size_t destMax, count;
        int code;
        size_t filled;
    } cases[] = {
        {false, 10, 4, BOUNDED_OK, 4},
        {false, 10, 11, BOUNDED_ERANGE_RESET, 10}, // the requested value, not zero
        {false, 0, 0, BOUNDED_OK, 0},              // the one destMax 0 that is fine
        {false, 0, 1, BOUNDED_ERANGE, 0},
        {true, 0, 0, BOUNDED_ERANGE, 0},
        {false, BOUNDED_MAX_LEN + 1, 1, BOUNDED_ERANGE, 0},
        {true, 10, 1, BOUNDED_EINVAL, 0},
    };
    for (const auto& c : cases) {
        Area area(c.destMax);
        EXPECT_EQ(memset_s(c.nullDest ? nullptr : area.data(), c.destMax, 0x141, c.count), c.code) << c.count;
        EXPECT_TRUE(area.Filled(c.filled, 'A') && area.Unchanged(c.filled)) << c.count;
    }
}

} // namespace
