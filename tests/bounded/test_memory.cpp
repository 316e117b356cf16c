// memcpy_s, memmove_s, memset_s: codes and what the destination holds afterwards.
#include "support.h"

namespace {

const char SOURCE[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ!";

// The rules both copy functions share: the first that applies decides.
TEST(CopyS, CodesAndDestinationByRule) {
    enum Expect { COPIED, UNTOUCHED, ZEROED };
    const struct {
        const char* rule;
        size_t destMax, count;
        bool nullDest, nullSrc;
        int code;
        Expect dest;
    } cases[] = {
        {"a count of destMax is copied", 16, 16, false, false, BOUNDED_OK, COPIED},
        {"a count past destMax zeroes the destination", 16, 17, false, false, BOUNDED_ERANGE_RESET, ZEROED},
        {"count 0 copies nothing", 16, 0, false, false, BOUNDED_OK, UNTOUCHED},
        {"destMax 0 is refused untouched", 0, 0, false, false, BOUNDED_ERANGE, UNTOUCHED},
        {"destMax above the maximum is refused untouched", BOUNDED_MAX_LEN + 1, 4, false, false,
         BOUNDED_ERANGE, UNTOUCHED},
        {"a null destination is refused before a null source", 16, 4, true, true, BOUNDED_EINVAL, UNTOUCHED},
        {"a null source zeroes the destination", 16, 4, false, true, BOUNDED_EINVAL_RESET, ZEROED},
    };
    for (auto copy : {memcpy_s, memmove_s}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(copy == memcpy_s ? "memcpy_s: " : "memmove_s: ") + c.rule);
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

// Ranges side by side are copied; ranges that share one byte, from either side, are refused
// by memcpy_s, which clears the whole destination, and moved by memmove_s.
TEST(CopyS, OverlapBoundaries) {
    constexpr size_t kCount = 8;
    for (size_t shared : {0, 1}) {
        for (bool destAbove : {true, false}) {
            for (auto copy : {memcpy_s, memmove_s}) {
                SCOPED_TRACE(std::to_string(shared) + (destAbove ? " dest above" : " dest below"));
                char bytes[32];
                memcpy(bytes, SOURCE, sizeof bytes);
                char *lower = bytes + 4, *upper = lower + kCount - shared;
                char* dest = destAbove ? upper : lower;
                const char* src = destAbove ? lower : upper;
                const std::string moved(SOURCE + (src - bytes), kCount);
                bool refused = copy == memcpy_s && shared == 1;
                EXPECT_EQ(copy(dest, kCount, src, kCount), refused ? BOUNDED_EOVERLAP_RESET : BOUNDED_OK);
                EXPECT_EQ(std::string(dest, kCount), refused ? std::string(kCount, '\0') : moved);
                EXPECT_EQ(dest[kCount], SOURCE[dest + kCount - bytes]);
            }
        }
    }
    char bytes[16];
    memcpy(bytes, SOURCE, sizeof bytes);
    EXPECT_EQ(memcpy_s(bytes, 16, bytes, 16), BOUNDED_OK); // the same address is no overlap
    EXPECT_EQ(std::string(bytes, 16), std::string(SOURCE, 16));
}

// Only the low byte of the value (0x141) is stored.
TEST(MemsetS, FillsCountBytesAndOnOverflowTheWholeDestination) {
    const struct {
        const char* rule;
        bool nullDest;
        size_t destMax, count;
        int code;
        size_t filled;
    } cases[] = {
        {"count bytes are filled", false, 10, 4, BOUNDED_OK, 4},
        {"a count past destMax fills the whole destination with the value, not zero", false, 10, 11,
         BOUNDED_ERANGE_RESET, 10},
        {"destMax 0 with count 0 is fine", false, 0, 0, BOUNDED_OK, 0},
        {"destMax 0 with a count is refused", false, 0, 1, BOUNDED_ERANGE, 0},
        {"destMax above the maximum is refused", false, BOUNDED_MAX_LEN + 1, 1, BOUNDED_ERANGE, 0},
        {"a null destination is refused", true, 10, 1, BOUNDED_EINVAL, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rule);
        Area area(c.destMax);
        EXPECT_EQ(memset_s(c.nullDest ? nullptr : area.data(), c.destMax, 0x141, c.count), c.code);
        EXPECT_TRUE(area.Filled(c.filled, 'A') && area.Unchanged(c.filled));
    }
}

} // namespace
