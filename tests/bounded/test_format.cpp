// snprintf_s and vsnprintf_s: conversions, the limits of the format language, and what the
// destination holds at every capacity.
#include "bounded/bounded.h"

#include <gtest/gtest.h>

#include <limits.h>
#include <locale.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <wchar.h>

#include <functional>
#include <string>
#include <vector>

namespace {

constexpr char JUNK = '#';
constexpr size_t GUARD = 16;

struct Outcome {
    int result;
    std::string text; // up to the first zero byte within destMax
    bool terminated;  // a zero byte lies within destMax
    bool guardIntact; // nothing written behind destMax
};

Outcome VFormat(size_t destMax, size_t count, const char* format, va_list args) {
    std::vector<char> area(destMax + GUARD, JUNK);
    Outcome out;
    out.result = vsnprintf_s(area.data(), destMax, count, format, args);
    size_t len = strnlen(area.data(), destMax);
    out.text.assign(area.data(), len);
    out.terminated = len < destMax;
    out.guardIntact = std::string(area.data() + destMax, GUARD) == std::string(GUARD, JUNK);
    return out;
}

Outcome Format(size_t destMax, size_t count, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Outcome out = VFormat(destMax, count, format, args);
    va_end(args);
    return out;
}

// The callers' form: a roomy buffer, limit one below its size.
#define EXPECT_FORMAT(expected, ...)                                                                         \
    do {                                                                                                     \
        Outcome o_ = Format(1024, 1023, __VA_ARGS__);                                                        \
        std::string e_(expected);                                                                            \
        EXPECT_EQ(o_.text, e_) << "format " << #__VA_ARGS__;                                                 \
        EXPECT_EQ(o_.result, static_cast<int>(e_.size())) << "format " << #__VA_ARGS__;                      \
    } while (0)

#define EXPECT_REJECTED(...)                                                                                 \
    do {                                                                                                     \
        Outcome o_ = Format(64, 63, __VA_ARGS__);                                                            \
        EXPECT_EQ(o_.result, -1) << "format " << #__VA_ARGS__;                                               \
        EXPECT_EQ(o_.text, "") << "format " << #__VA_ARGS__;                                                 \
        EXPECT_TRUE(o_.guardIntact);                                                                         \
    } while (0)

// Where the engine departs from the C library; the rest is compared with it in
// test_format_differential.cpp.
TEST(FormatS, DeparturesFromTheCLibrary) {
    EXPECT_FORMAT("(null)|(n", "%s|%.2s", static_cast<const char*>(nullptr),
                  static_cast<const char*>(nullptr));
    EXPECT_FORMAT("     (nil)|(nil)|0x1000", "%010p|%p|%.8p", static_cast<void*>(nullptr),
                  static_cast<void*>(nullptr),
                  reinterpret_cast<void*>(0x1000)); // no zeros around (nil); p takes no precision
    EXPECT_FORMAT("0x00001000", "%010p", reinterpret_cast<void*>(0x1000));
    EXPECT_FORMAT("   ab", "%05s", "ab");                    // no zero padding for text
    EXPECT_FORMAT("7    |7  |", "%5-d|%5-3d|", 7, 7);        // a flag may follow the width, digits restart it
    EXPECT_FORMAT(std::string(511, '0') + "1", "%.600d", 1); // integer precision stops at 512
    EXPECT_FORMAT("-" + std::string(511, '0') + "1", "%.*d", 100000, -1);
    Outcome zero = Format(16, 15, "a%cb", 0); // the count includes a zero character
    EXPECT_EQ(zero.result, 3);
    EXPECT_EQ(zero.text, "a");
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
    // Size modifiers outside the C library's language, through the variadic entry itself.
    char text[64];
    const long long big = 1LL << 40;
    auto expectText = [&text](int result, const char* expected) {
        EXPECT_EQ(result, static_cast<int>(strlen(expected)));
        EXPECT_STREQ(text, expected);
    };
    expectText(snprintf_s(text, sizeof text, sizeof text - 1, "%I64d|%Id|%I32d|%d", big, big, 5, 6),
               "1099511627776|1099511627776|5|6");
    expectText(snprintf_s(text, sizeof text, sizeof text - 1, "%I64x %qd %Ld %Zd %Nd", big, big, big, 5, 6),
               "10000000000 1099511627776 1099511627776 5 6");
    // I before anything but 32, 64 or an integer conversion is plain text.
    expectText(snprintf_s(text, sizeof text, sizeof text - 1, "%Is|%5I3d|%I6x"), "Is|I3d|I6x");
#pragma GCC diagnostic pop
}

TEST(FormatS, RejectedFormats) {
    // Each gets one int, more than any of them reads before it fails.
    const char* const rejected[] = {
        "%n",    "%a",     "%A",   "%1$d",        "abc%",         "%5%",
        "%-",    "%.5",    "%hh",  "%d%l",        "%**d",         "%5*d",
        "%.-5d", "%.5.5d", "%l5d", "%214748370d", "%.214748370d", "%0000000000214748370d"};
    for (const char* format : rejected) {
        Outcome o = Format(64, 63, format, 1);
        EXPECT_EQ(o.result, -1) << format;
        EXPECT_EQ(o.text, "") << format;
        EXPECT_TRUE(o.guardIntact) << format;
    }
    // Every byte of class OTHER ends a specification with a failure.
    const std::string accepted = "%.*0123456789 #+-ILNZhjlqtwzCEFGSXcdefgiopsux";
    for (int b = 1; b < 256; ++b) {
        if (accepted.find(static_cast<char>(b)) != std::string::npos) {
            continue;
        }
        char format[3] = {'%', static_cast<char>(b), '\0'};
        Outcome o = Format(16, 15, format);
        EXPECT_EQ(o.result, -1) << "byte " << b;
        EXPECT_EQ(o.text, "") << "byte " << b;
    }
}

TEST(FormatS, LargestWidthIsAcceptedAndExhaustsTheBuffer) {
    Outcome cut = Format(16, 15, "%214748369d", 1);
    EXPECT_EQ(cut.result, -1);
    EXPECT_EQ(cut.text, std::string(15, ' '));
    EXPECT_TRUE(cut.guardIntact);
    Outcome refused = Format(16, SIZE_MAX, "%214748369d", 1);
    EXPECT_EQ(refused.result, -1);
    EXPECT_EQ(refused.text, "");
    EXPECT_TRUE(refused.guardIntact);
    EXPECT_FORMAT(std::string(511, '0') + "1", "%.214748369d", 1);
}

// The floating conversions come from the C library's formatter, so the C library is the
// reference here, also for the buffers beyond the engine's stack space.
TEST(FormatS, FloatingConversionsMatchThePlatform) {
    char expected[2048];
    const char* const formats[] = {"%-+12.4G|%#.0f|%Lf", "%600.2f|%f|%Lf", "%.600f|%f|%Lf",
                                   "%+-#0000000000020.3f|%f|%Le"};
    for (const char* format : formats) { // the last three need heap buffers
        snprintf(expected, sizeof expected, format, 0.000012345, 2.0, 1.0L / 3);
        EXPECT_FORMAT(expected, format, 0.000012345, 2.0, 1.0L / 3);
    }
    snprintf(expected, sizeof expected, "%*.*f|%d|%-*g|", 12, 3, -2.5, 7, -8, 0.5);
    EXPECT_FORMAT(expected, "%*.*f|%d|%-*g|", 12, 3, -2.5, 7, -8, 0.5);
    // A floating conversion that prints nothing still takes its value off the list.
    EXPECT_FORMAT("|7", "%.*f|%d", 2147483299, 1.0, 7);
    EXPECT_FORMAT("|7", "%.*Lf|%d", 2147478676, 1.0L, 7);
    // ll takes a plain double.
    snprintf(expected, sizeof expected, "%f|%d", 2.5, 9);
    EXPECT_FORMAT(expected, "%llf|%d", 2.5, 9);
}

// Restores the character type locale a test switched.
struct CtypeLocale {
    std::string saved;
    explicit CtypeLocale(const char* name) : saved(setlocale(LC_CTYPE, nullptr)) {
        setlocale(LC_CTYPE, name);
    }
    ~CtypeLocale() { setlocale(LC_CTYPE, saved.c_str()); }
};

TEST(FormatS, WideConversionsFollowTheLocale) {
    {
        CtypeLocale c("C");
        EXPECT_FORMAT("abc|abc|abc|abc", "%ls|%S|%ws|%hS", L"abc", L"abc", L"abc", "abc");
        EXPECT_FORMAT("  abc|ab", "%5ls|%.2ls", L"abc", L"abc");
        EXPECT_FORMAT("(null)", "%ls", static_cast<const wchar_t*>(nullptr));
        EXPECT_FORMAT("x|x|x|x", "%lc|%C|%wc|%hC", L'x', L'x', L'x', 'x');
        // A wide character that does not convert prints nothing, padding included, and the
        // call goes on; a wide text that does not convert fails the call.
        EXPECT_FORMAT("|5", "%5lc|%d", 0xE9, 5);
        EXPECT_REJECTED("%ls", L"a\u00e9");
        EXPECT_FORMAT("a", "%.1ls", L"a\u00e9"); // the precision stops before it
    }
    {
        CtypeLocale utf8("C.UTF-8");
        if (strstr(setlocale(LC_CTYPE, nullptr), "UTF") == nullptr &&
            strstr(setlocale(LC_CTYPE, nullptr), "utf") == nullptr) {
            GTEST_SKIP() << "no UTF-8 locale";
        }
        EXPECT_FORMAT("a\xc3\xa9", "%ls", L"a\u00e9");
        EXPECT_FORMAT(" \xc3\xa9|", "%3lc|", 0xE9); // width counts bytes
        EXPECT_FORMAT("\xe2\x82\xac", "%.1ls", L"\u20acx");
    }
}

// ---- Capacity and limit -------------------------------------------------------------------

TEST(VsnprintfS, InvalidArguments) {
    char area[8];
    memset(area, JUNK, sizeof area);
    EXPECT_EQ(snprintf_s(area, 0, 0, "x"), -1);
    EXPECT_EQ(area[0], JUNK); // destMax 0: nothing written
    EXPECT_EQ(snprintf_s(nullptr, 8, 7, "x"), -1);
    const struct {
        size_t destMax;
        size_t count;
        const char* format;
    } cases[] = {
        {8, 7, nullptr},
        {BOUNDED_MAX_LEN + 1, 7, "x"},
        {8, BOUNDED_MAX_LEN, "x"},
        {8, SIZE_MAX - 1, "x"},
    };
    for (const auto& c : cases) {
        memset(area, JUNK, sizeof area);
        EXPECT_EQ(snprintf_s(area, c.destMax, c.count, c.format, 1), -1) << c.destMax << " " << c.count;
        EXPECT_EQ(area[0], '\0');
        EXPECT_EQ(area[1], JUNK);
    }
    // The largest accepted limit below all bits set.
    EXPECT_EQ(snprintf_s(area, 8, BOUNDED_MAX_LEN - 1, "x"), 1);
    EXPECT_STREQ(area, "x");
}

// Every capacity from 1 to a few past the text, every limit around it: the truncating form
// (limit below destMax) keeps the first limit characters, the other form refuses.
TEST(VsnprintfS, TruncationAndRefusalAtEveryBoundary) {
    struct Case {
        const char* what;
        std::function<Outcome(size_t, size_t)> run;
        std::string text;
    };
    const Case cases[] = {
        {"plain text", [](size_t m, size_t c) { return Format(m, c, "abcdefghij"); }, "abcdefghij"},
        {"string", [](size_t m, size_t c) { return Format(m, c, "%s", "abcdefghij"); }, "abcdefghij"},
        {"padding, prefix and text",
         [](size_t m, size_t c) { return Format(m, c, "%5d|%-4s|%#x|%+06d", 42, "ab", 255, -7); },
         "   42|ab  |0xff|-00007"},
        {"long pieces", [](size_t m, size_t c) { return Format(m, c, "%20s%-20d.", "x", 1); },
         std::string(19, ' ') + "x" + "1" + std::string(19, ' ') + "."},
        {"empty", [](size_t m, size_t c) { return Format(m, c, ""); }, ""},
    };
    for (const Case& k : cases) {
        const size_t len = k.text.size();
        for (size_t destMax = 1; destMax <= len + 3; ++destMax) {
            std::vector<size_t> counts;
            for (size_t count = 0; count <= destMax + 1; ++count) {
                counts.push_back(count);
            }
            counts.push_back(SIZE_MAX);
            for (size_t count : counts) {
                SCOPED_TRACE(std::string(k.what) + " destMax " + std::to_string(destMax) + " count " +
                             std::to_string(count));
                Outcome o = k.run(destMax, count);
                EXPECT_TRUE(o.guardIntact);
                EXPECT_TRUE(o.terminated);
                if (count < destMax) {
                    EXPECT_EQ(o.result, len <= count ? static_cast<int>(len) : -1);
                    EXPECT_EQ(o.text, k.text.substr(0, count));
                } else {
                    EXPECT_EQ(o.result, len < destMax ? static_cast<int>(len) : -1);
                    EXPECT_EQ(o.text, len < destMax ? k.text : "");
                }
            }
        }
    }
}

TEST(VsnprintfS, RejectionDiscardsTextUnlessTheBufferRanOutFirst) {
    Outcome o = Format(16, 15, "abc%n", static_cast<int*>(nullptr));
    EXPECT_EQ(o.result, -1);
    EXPECT_EQ(o.text, "");
    o = Format(16, SIZE_MAX, "abc%5%");
    EXPECT_EQ(o.result, -1);
    EXPECT_EQ(o.text, "");
    // The text has used up the room before the bad specification is reached: a truncation.
    o = Format(10, 9, "0123456789%n", static_cast<int*>(nullptr));
    EXPECT_EQ(o.result, -1);
    EXPECT_EQ(o.text, "012345678");
    // With a byte to spare it is a rejection.
    o = Format(10, 9, "012345678%n", static_cast<int*>(nullptr));
    EXPECT_EQ(o.result, -1);
    EXPECT_EQ(o.text, "");
}

} // namespace
