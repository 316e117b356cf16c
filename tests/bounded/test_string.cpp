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
        TextFunction function;
        const char* initial; // text already in dest, or junk
        size_t destMax;
        const char* src;
        size_t count;
        int code;
        const char* result;
    } cases[] = {
        {cpy, nullptr, 5, "abcd", 10, BOUNDED_OK, "abcd"},
        {cpy, nullptr, 5, "abcde", 10, BOUNDED_ERANGE_RESET, ""}, // refused as a whole, not cut
        {cpy, nullptr, 5, "abcdef", 4, BOUNDED_OK, "abcd"},       // count cuts without error
        {cpy, nullptr, 5, "abcdef", 5, BOUNDED_ERANGE_RESET, ""},
        {cpy, nullptr, 5, "abcdef", 0, BOUNDED_OK, ""},
        {cpy, nullptr, 1, "", 1, BOUNDED_OK, ""},
        {cpy, nullptr, 8, UNTERMINATED, 4, BOUNDED_OK, "wxyz"}, // nothing past count is read
        {cpy, nullptr, 5, nullptr, 3, BOUNDED_EINVAL_RESET, ""},
        {cpy, nullptr, 5, "ab", BOUNDED_MAX_LEN + 1, BOUNDED_ERANGE_RESET, ""},
        {cpy, nullptr, 5, "ab", BOUNDED_MAX_LEN, BOUNDED_OK, "ab"},
        {cat, "ab", 5, "cd", 10, BOUNDED_OK, "abcd"},
        {cat, "ab", 5, "cde", 10, BOUNDED_ERANGE_RESET, ""},
        {cat, "ab", 5, "cde", 2, BOUNDED_OK, "abcd"},
        {cat, "ab", 5, "cde", 3, BOUNDED_ERANGE_RESET, ""},
        {cat, "abcd", 5, "xyz", 0, BOUNDED_OK, "abcd"}, // the append pattern on a full buffer
        {cat, "abcd", 5, "x", 1, BOUNDED_ERANGE_RESET, ""},
        {cat, "", 1, "", 5, BOUNDED_OK, ""},
        {cat, "ab", 5, nullptr, 1, BOUNDED_EINVAL_RESET, ""},
        {cat, "ab", 5, "c", BOUNDED_MAX_LEN + 1, BOUNDED_ERANGE_RESET, ""},
        {cat, "abcde", 5, "x", 0, BOUNDED_EINVAL_RESET, ""}, // no terminator within destMax
        {StrcpyS, nullptr, 5, "abcd", 0, BOUNDED_OK, "abcd"},
        {StrcpyS, nullptr, 5, "abcde", 0, BOUNDED_ERANGE_RESET, ""},
        {StrcpyS, nullptr, 5, nullptr, 0, BOUNDED_EINVAL_RESET, ""},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        const auto& c = cases[i];
        SCOPED_TRACE("row " + std::to_string(i));
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

TEST(TextS, OverlapIsRefusedAndNeighboursAreNot) {
    const struct {
        TextFunction function;
        char bytes[12];
        size_t destAt, srcAt, count;
        int code;
        const char* result;
    } cases[] = {
        {strncpy_s, "abcdef", 2, 0, 6, BOUNDED_EOVERLAP_RESET, ""},
        {strncpy_s, "abcdef", 0, 2, 6, BOUNDED_EOVERLAP_RESET, ""},
        {strncpy_s, "abcdef", 0, 0, 3, BOUNDED_OK, "abc"},          // the same address is no overlap
        {strncpy_s, "ab", 3, 0, 5, BOUNDED_OK, "ab"},               // a source that ends just before dest
        {strncat_s, "abcdef", 0, 2, 2, BOUNDED_EOVERLAP_RESET, ""}, // source inside the text
        {strncat_s, "ab\0\0\0xyz", 0, 5, 10, BOUNDED_EOVERLAP_RESET, ""}, // appended bytes run into it
        {strncat_s, "ab\0\0\0x", 0, 5, 10, BOUNDED_OK, "abx"},            // ... unless it ends first
        {strncat_s, "pqab", 2, 0, 5, BOUNDED_EOVERLAP_RESET, ""},         // reading on reaches dest
        {strncat_s, "pq\0ab", 3, 0, 5, BOUNDED_OK, "abpq"},
        {StrcpyS, "abcdef", 0, 0, 0, BOUNDED_OK, "abcdef"},
        {StrcpyS, "abcdef", 3, 0, 0, BOUNDED_EOVERLAP_RESET, ""},
    };
    for (const auto& c : cases) {
        char bytes[16] = {};
        memcpy(bytes, c.bytes, sizeof c.bytes);
        EXPECT_EQ(c.function(bytes + c.destAt, 10, bytes + c.srcAt, c.count), c.code)
            << c.bytes << " at " << c.destAt;
        EXPECT_STREQ(bytes + c.destAt, c.result) << c.bytes << " at " << c.destAt;
    }
}

} // namespace
