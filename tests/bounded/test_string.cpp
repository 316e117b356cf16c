// strncpy_s, strncat_s, strcpy_s: codes and the text left in the destination.
#include "support.h"

namespace {

using TextFunction = int (*)(char*, size_t, const char*, size_t);
const TextFunction cpy = strncpy_s, cat = strncat_s;
const TextFunction StrcpyS = [](char* d, size_t m, const char* s, size_t) { return strcpy_s(d, m, s); };
const char UNTERMINATED[4] = {'w', 'x', 'y', 'z'};

// A reset of strncpy_s and strcpy_s zeroes the first byte only; none writes behind destMax.
TEST(TextS, CodesAndTextByRule) {
    const struct {
        const char* rule;
        TextFunction function;
        const char* initial; // text already in dest, or junk
        size_t destMax;
        const char* src;
        size_t count;
        int code;
        const char* result;
    } cases[] = {
        {"a text that fits is copied", cpy, nullptr, 5, "abcd", 10, BOUNDED_OK, "abcd"},
        {"a text one byte too long is refused whole, not cut", cpy, nullptr, 5, "abcde", 10,
         BOUNDED_ERANGE_RESET, ""},
        {"count cuts the copy without an error", cpy, nullptr, 5, "abcdef", 4, BOUNDED_OK, "abcd"},
        {"count reaching destMax is too long", cpy, nullptr, 5, "abcdef", 5, BOUNDED_ERANGE_RESET, ""},
        {"count 0 copies the empty text", cpy, nullptr, 5, "abcdef", 0, BOUNDED_OK, ""},
        {"the empty text fits in one byte", cpy, nullptr, 1, "", 1, BOUNDED_OK, ""},
        {"nothing past count is read", cpy, nullptr, 8, UNTERMINATED, 4, BOUNDED_OK, "wxyz"},
        {"a null source resets", cpy, nullptr, 5, nullptr, 3, BOUNDED_EINVAL_RESET, ""},
        {"a count above the maximum resets", cpy, nullptr, 5, "ab", BOUNDED_MAX_LEN + 1, BOUNDED_ERANGE_RESET,
         ""},
        {"a count of the maximum is allowed", cpy, nullptr, 5, "ab", BOUNDED_MAX_LEN, BOUNDED_OK, "ab"},
        {"an append that fits", cat, "ab", 5, "cd", 10, BOUNDED_OK, "abcd"},
        {"an append one byte too long resets", cat, "ab", 5, "cde", 10, BOUNDED_ERANGE_RESET, ""},
        {"count cuts an append without an error", cat, "ab", 5, "cde", 2, BOUNDED_OK, "abcd"},
        {"an append whose count reaches destMax resets", cat, "ab", 5, "cde", 3, BOUNDED_ERANGE_RESET, ""},
        {"count 0 on a full buffer appends nothing", cat, "abcd", 5, "xyz", 0, BOUNDED_OK, "abcd"},
        {"an append to a full buffer resets", cat, "abcd", 5, "x", 1, BOUNDED_ERANGE_RESET, ""},
        {"appending the empty text to the empty text", cat, "", 1, "", 5, BOUNDED_OK, ""},
        {"a null source of an append resets", cat, "ab", 5, nullptr, 1, BOUNDED_EINVAL_RESET, ""},
        {"a count above the maximum resets an append", cat, "ab", 5, "c", BOUNDED_MAX_LEN + 1,
         BOUNDED_ERANGE_RESET, ""},
        {"a destination with no terminator within destMax resets", cat, "abcde", 5, "x", 0,
         BOUNDED_EINVAL_RESET, ""},
        {"strcpy_s copies a text that fits", StrcpyS, nullptr, 5, "abcd", 0, BOUNDED_OK, "abcd"},
        {"strcpy_s refuses a text one byte too long", StrcpyS, nullptr, 5, "abcde", 0, BOUNDED_ERANGE_RESET,
         ""},
        {"strcpy_s resets on a null source", StrcpyS, nullptr, 5, nullptr, 0, BOUNDED_EINVAL_RESET, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rule);
        Area dest(c.destMax, c.initial);
        EXPECT_EQ(c.function(dest.data(), c.destMax, c.src, c.count), c.code);
        EXPECT_EQ(dest.Text(), c.result);
        EXPECT_TRUE(dest.Unchanged(c.code == BOUNDED_OK || c.function == cat ? c.destMax : 1));
    }
    // A destination that is null, empty or too large is left as it is.
    for (TextFunction function : {cpy, cat, StrcpyS}) {
        Area dest(5, "ab");
        EXPECT_EQ(function(dest.data(), 0, "c", 1), BOUNDED_ERANGE);
        EXPECT_EQ(function(dest.data(), BOUNDED_MAX_LEN + 1, "c", 1), BOUNDED_ERANGE);
        EXPECT_EQ(function(nullptr, 5, "c", 1), BOUNDED_EINVAL);
        EXPECT_TRUE(dest.Unchanged(0));
    }
}

// A text that ends just before the other range is copied or appended; one byte shared,
// from either side, is refused with the empty text.
TEST(TextS, OverlapBoundaries) {
    for (size_t shared : {0, 1}) {
        for (bool destAbove : {true, false}) {
            SCOPED_TRACE(std::to_string(shared) + (destAbove ? " dest above" : " dest below"));
            const int code = shared == 0 ? BOUNDED_OK : BOUNDED_EOVERLAP_RESET;
            // Copies: the source "abcdefg" and its terminator take 8 bytes, as the copy does.
            for (TextFunction copy : {cpy, StrcpyS}) {
                char bytes[32] = {};
                char *lower = bytes + 4, *upper = lower + 8 - shared;
                char* dest = destAbove ? upper : lower;
                char* src = destAbove ? lower : upper;
                memcpy(src, "abcdefg", 8);
                EXPECT_EQ(copy(dest, 8, src, 8), code);
                EXPECT_STREQ(dest, shared == 0 ? "abcdefg" : "");
            }
            // Appending "xy" to "ab" writes up to the terminator at dest + 4; the source
            // "xy" reads up to its terminator at src + 2.
            char bytes[32] = {};
            char* dest = bytes + 4 + (destAbove ? 3 - shared : 0);
            char* src = bytes + 4 + (destAbove ? 0 : 5 - shared);
            memcpy(src, "xy", 3);
            memcpy(dest, "ab", 3);
            EXPECT_EQ(cat(dest, 10, src, 10), code);
            EXPECT_STREQ(dest, shared == 0 ? "abxy" : "");
        }
    }
    // The same address is no overlap for a copy; a source inside the destination's text is.
    char bytes[16] = "abcdef";
    EXPECT_EQ(cpy(bytes, 10, bytes, 3), BOUNDED_OK);
    EXPECT_EQ(StrcpyS(bytes, 10, bytes, 0), BOUNDED_OK);
    EXPECT_STREQ(bytes, "abc");
    memcpy(bytes, "abcdef", 7);
    EXPECT_EQ(cat(bytes, 10, bytes + 2, 2), BOUNDED_EOVERLAP_RESET);
    EXPECT_STREQ(bytes, "");
}

} // namespace
