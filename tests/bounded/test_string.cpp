// strncpy_s, strncat_s, strcpy_s: results and the text left in the destination.
#include "bounded/bounded.h"

#include <gtest/gtest.h>

#include <string.h>

#include <memory>
#include <string>

namespace {

constexpr char JUNK = '#';
constexpr size_t AREA = 32;

// A destination of destMax bytes at the start of a junk-filled area, optionally holding
// a text; everything behind destMax is a guard that must keep its junk.
struct Dest {
    char bytes[AREA];
    size_t destMax;
    explicit Dest(size_t max, const char* text = nullptr) : destMax(max) {
        memset(bytes, JUNK, sizeof bytes);
        if (text != nullptr) {
            memcpy(bytes, text, strlen(text) + 1);
        }
    }
    std::string Text() const { return std::string(bytes, strnlen(bytes, destMax)); }
    bool GuardIntact() const {
        for (size_t i = destMax; i < AREA; ++i) {
            if (bytes[i] != JUNK) {
                return false;
            }
        }
        return true;
    }
};

struct TextCase {
    const char* initial; // text already in dest (strncat_s), or null for junk
    size_t destMax;
    const char* src;
    size_t count;
    int code;
    const char* result;
};

TEST(StrncpyS, CopiesCutsByCountAndRefusesWhatDoesNotFit) {
    const TextCase cases[] = {
        {nullptr, 5, "abcd", 10, BOUNDED_OK, "abcd"},
        {nullptr, 5, "abcde", 10, BOUNDED_ERANGE_RESET, ""}, // refused as a whole, not cut
        {nullptr, 5, "abcdef", 4, BOUNDED_OK, "abcd"},       // count cuts without error
        {nullptr, 5, "abcdef", 5, BOUNDED_ERANGE_RESET, ""},
        {nullptr, 5, "abcdef", 0, BOUNDED_OK, ""},
        {nullptr, 5, "", 10, BOUNDED_OK, ""},
        {nullptr, 1, "", 1, BOUNDED_OK, ""},
        {nullptr, 1, "a", 1, BOUNDED_ERANGE_RESET, ""},
        {nullptr, 5, nullptr, 3, BOUNDED_EINVAL_RESET, ""},
        {nullptr, 5, "ab", BOUNDED_MAX_LEN + 1, BOUNDED_ERANGE_RESET, ""},
        {nullptr, 5, "ab", BOUNDED_MAX_LEN, BOUNDED_OK, "ab"},
    };
    for (const TextCase& c : cases) {
        SCOPED_TRACE(std::string(c.src ? c.src : "(null)") + " count " + std::to_string(c.count));
        Dest dest(c.destMax);
        EXPECT_EQ(strncpy_s(dest.bytes, c.destMax, c.src, c.count), c.code);
        EXPECT_EQ(dest.Text(), c.result);
        EXPECT_TRUE(dest.GuardIntact());
        if (c.code != BOUNDED_OK) {
            // A reset makes only the first byte zero.
            EXPECT_EQ(dest.bytes[1], JUNK);
        }
    }

    Dest untouched(5);
    EXPECT_EQ(strncpy_s(untouched.bytes, 0, "a", 1), BOUNDED_ERANGE);
    EXPECT_EQ(strncpy_s(untouched.bytes, BOUNDED_MAX_LEN + 1, "a", 1), BOUNDED_ERANGE);
    EXPECT_EQ(strncpy_s(nullptr, 5, "a", 1), BOUNDED_EINVAL);
    EXPECT_EQ(untouched.bytes[0], JUNK);
}

TEST(StrncpyS, ReadsNoFurtherThanCountAndCatchesOverlap) {
    // A source of exactly count bytes with no terminator: reading one more would run off
    // the allocation (caught under AddressSanitizer).
    std::unique_ptr<char[]> unterminated(new char[4]);
    memcpy(unterminated.get(), "wxyz", 4);
    Dest dest(8);
    EXPECT_EQ(strncpy_s(dest.bytes, 8, unterminated.get(), 4), BOUNDED_OK);
    EXPECT_EQ(dest.Text(), "wxyz");

    // The copy pattern of the callers: N, N - 1 cuts any source at N - 1 characters.
    std::string longText(300, 'p');
    char path[256];
    EXPECT_EQ(strncpy_s(path, sizeof path, longText.c_str(), sizeof path - 1), BOUNDED_OK);
    EXPECT_EQ(std::string(path), longText.substr(0, 255));

    char text[16] = "abcdef";
    EXPECT_EQ(strncpy_s(text + 2, 10, text, 6), BOUNDED_EOVERLAP_RESET);
    EXPECT_EQ(text[2], '\0');
    memcpy(text, "abcdef", 7);
    EXPECT_EQ(strncpy_s(text, 10, text + 2, 6), BOUNDED_EOVERLAP_RESET);
    EXPECT_EQ(text[0], '\0');
    // Same address is no overlap: the text is cut at count.
    memcpy(text, "abcdef", 7);
    EXPECT_EQ(strncpy_s(text, 10, text, 3), BOUNDED_OK);
    EXPECT_STREQ(text, "abc");
    // A source that ends just before the destination does not overlap it.
    memcpy(text, "ab\0", 3);
    EXPECT_EQ(strncpy_s(text + 3, 10, text, 5), BOUNDED_OK);
    EXPECT_STREQ(text + 3, "ab");
}

TEST(StrncatS, AppendsOrRefusesAsAWhole) {
    const TextCase cases[] = {
        {"ab", 5, "cd", 10, BOUNDED_OK, "abcd"},
        {"ab", 5, "cde", 10, BOUNDED_ERANGE_RESET, ""},
        {"ab", 5, "cde", 2, BOUNDED_OK, "abcd"},
        {"ab", 5, "cde", 3, BOUNDED_ERANGE_RESET, ""},
        {"ab", 5, "", 10, BOUNDED_OK, "ab"},
        {"abcd", 5, "xyz", 0, BOUNDED_OK, "abcd"}, // the append pattern on a full buffer
        {"abcd", 5, "", 1, BOUNDED_OK, "abcd"},
        {"abcd", 5, "x", 1, BOUNDED_ERANGE_RESET, ""},
        {"", 1, "", 5, BOUNDED_OK, ""},
        {"", 5, "abcd", 4, BOUNDED_OK, "abcd"},
        {"ab", 5, nullptr, 1, BOUNDED_EINVAL_RESET, ""},
        {"ab", 5, "c", BOUNDED_MAX_LEN + 1, BOUNDED_ERANGE_RESET, ""},
        {"abcde", 5, "x", 1, BOUNDED_EINVAL_RESET, ""}, // no terminator within destMax
        {"abcde", 5, "x", 0, BOUNDED_EINVAL_RESET, ""},
    };
    for (const TextCase& c : cases) {
        SCOPED_TRACE(std::string(c.initial) + " + " + (c.src ? c.src : "(null)") + " count " +
                     std::to_string(c.count));
        Dest dest(c.destMax, c.initial);
        bool terminatedInside = strlen(c.initial) < c.destMax;
        EXPECT_EQ(strncat_s(dest.bytes, c.destMax, c.src, c.count), c.code);
        EXPECT_EQ(dest.Text(), c.result);
        if (terminatedInside) {
            EXPECT_TRUE(dest.GuardIntact());
        }
    }

    Dest untouched(5, "ab");
    EXPECT_EQ(strncat_s(untouched.bytes, 0, "c", 1), BOUNDED_ERANGE);
    EXPECT_EQ(strncat_s(untouched.bytes, BOUNDED_MAX_LEN + 1, "c", 1), BOUNDED_ERANGE);
    EXPECT_EQ(strncat_s(nullptr, 5, "c", 1), BOUNDED_EINVAL);
    EXPECT_EQ(untouched.Text(), "ab");
}

TEST(StrncatS, OverlapBetweenSourceAndDestinationIsRefused) {
    // Source inside the text already in dest: the scan for its end reaches it.
    char a[16] = "abcdef";
    EXPECT_EQ(strncat_s(a, 16, a + 2, 2), BOUNDED_EOVERLAP_RESET);
    EXPECT_EQ(a[0], '\0');

    // Source in dest behind the text: the appended bytes would run into it.
    char b[16] = "ab";
    memcpy(b + 5, "xyz", 4);
    EXPECT_EQ(strncat_s(b, 16, b + 5, 10), BOUNDED_EOVERLAP_RESET);
    EXPECT_EQ(b[0], '\0');
    // ... unless the source ends before the writes get there.
    char c[16] = "ab";
    memcpy(c + 5, "x", 2);
    EXPECT_EQ(strncat_s(c, 16, c + 5, 10), BOUNDED_OK);
    EXPECT_STREQ(c, "abx");

    // Source right before dest: reading on would reach the destination.
    char d[16] = "pq";
    memcpy(d + 2, "ab", 3); // "pqab": the source "pq" runs into dest at d + 2
    EXPECT_EQ(strncat_s(d + 2, 10, d, 5), BOUNDED_EOVERLAP_RESET);
    EXPECT_EQ(d[2], '\0');
    char e[16] = {'p', 'q', '\0', 'a', 'b', '\0'}; // terminated source before dest
    EXPECT_EQ(strncat_s(e + 3, 10, e, 5), BOUNDED_OK);
    EXPECT_STREQ(e + 3, "abpq");

    // A text appended to itself.
    char f[16] = "ab";
    EXPECT_EQ(strncat_s(f, 16, f, 2), BOUNDED_EOVERLAP_RESET);
    EXPECT_EQ(f[0], '\0');
}

TEST(StrcpyS, CopiesWholeTextOrRefuses) {
    Dest exact(5);
    EXPECT_EQ(strcpy_s(exact.bytes, 5, "abcd"), BOUNDED_OK);
    EXPECT_EQ(exact.Text(), "abcd");
    EXPECT_TRUE(exact.GuardIntact());

    Dest over(5);
    EXPECT_EQ(strcpy_s(over.bytes, 5, "abcde"), BOUNDED_ERANGE_RESET);
    EXPECT_EQ(over.Text(), "");
    EXPECT_EQ(over.bytes[1], JUNK);

    Dest nullSrc(5);
    EXPECT_EQ(strcpy_s(nullSrc.bytes, 5, nullptr), BOUNDED_EINVAL_RESET);
    EXPECT_EQ(nullSrc.Text(), "");

    Dest untouched(5);
    EXPECT_EQ(strcpy_s(untouched.bytes, 0, "a"), BOUNDED_ERANGE);
    EXPECT_EQ(strcpy_s(nullptr, 5, "a"), BOUNDED_EINVAL);
    EXPECT_EQ(untouched.bytes[0], JUNK);

    char text[16] = "abcdef";
    EXPECT_EQ(strcpy_s(text, 16, text), BOUNDED_OK);
    EXPECT_STREQ(text, "abcdef");
    EXPECT_EQ(strcpy_s(text + 3, 13, text), BOUNDED_EOVERLAP_RESET);
    EXPECT_EQ(text[3], '\0');
}

} // namespace
