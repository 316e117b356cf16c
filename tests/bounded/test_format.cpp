// snprintf_s and vsnprintf_s: conversions, the limits of the format language, and what the
// destination holds at every capacity.
#include "bounded/bounded.h"

#include <gtest/gtest.h>

#include <limits.h>
#include <locale.h>
#include <math.h>
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

TEST(FormatS, NullArgumentsAndPointers) {
    EXPECT_FORMAT("(null)", "%s", static_cast<const char*>(nullptr));
    EXPECT_FORMAT("(n", "%.2s", static_cast<const char*>(nullptr));
    EXPECT_FORMAT("  (null)|", "%8s|", static_cast<const char*>(nullptr));
    EXPECT_FORMAT("(nil)", "%p", static_cast<void*>(nullptr));
    EXPECT_FORMAT("     (nil)", "%10p", static_cast<void*>(nullptr));
    EXPECT_FORMAT("     (nil)", "%010p", static_cast<void*>(nullptr)); // no zeros around (nil)
    EXPECT_FORMAT("(nil)     |", "%-10p|", static_cast<void*>(nullptr));
    EXPECT_FORMAT("0x1000", "%p", reinterpret_cast<void*>(0x1000));
    EXPECT_FORMAT("0x00001000", "%010p", reinterpret_cast<void*>(0x1000));
    EXPECT_FORMAT("0x1000", "%.8p", reinterpret_cast<void*>(0x1000)); // p ignores a precision
    EXPECT_FORMAT("0xffffffffffffffff", "%p", reinterpret_cast<void*>(UINTPTR_MAX));
}

TEST(FormatS, IntegerForms) {
    // Alternate forms.
    EXPECT_FORMAT("010", "%#o", 8);
    EXPECT_FORMAT("0", "%#o", 0);
    EXPECT_FORMAT("0", "%#.0o", 0);
    EXPECT_FORMAT("00010", "%#.5o", 8);
    EXPECT_FORMAT("0xff", "%#x", 255);
    EXPECT_FORMAT("0XFF", "%#X", 255);
    EXPECT_FORMAT("0", "%#x", 0);
    EXPECT_FORMAT("", "%#.0x", 0);
    EXPECT_FORMAT("0x000ff", "%#07x", 255);
    // Precision, signs and padding.
    EXPECT_FORMAT("", "%.0d", 0);
    EXPECT_FORMAT("+", "%+.0d", 0);
    EXPECT_FORMAT("-0042", "%05d", -42);
    EXPECT_FORMAT("42   |", "%-5d|", 42);
    EXPECT_FORMAT("42   |", "%-05d|", 42); // left-justify beats zero-pad
    EXPECT_FORMAT("42   ", "%*d", -5, 42);
    EXPECT_FORMAT("   42", "%*d", 5, 42);
    EXPECT_FORMAT("   007", "%06.3d", 7); // a precision drops zero-pad
    EXPECT_FORMAT("+7| 7", "%+d|% d", 7, 7);
    EXPECT_FORMAT("+7", "%+ d", 7);
    EXPECT_FORMAT("7", "%+u", 7u);       // unsigned conversions take no sign
    EXPECT_FORMAT("7    |", "%5-d|", 7); // a flag may follow the width
    EXPECT_FORMAT("7  |", "%5-3d|", 7);  // and digits after it start a new width
    EXPECT_FORMAT("-2147483648", "%d", INT_MIN);
    EXPECT_FORMAT("-9223372036854775808", "%lld", LLONG_MIN);
    EXPECT_FORMAT("18446744073709551615", "%llu", ULLONG_MAX);
    EXPECT_FORMAT("1777777777777777777777", "%llo", ULLONG_MAX);
    EXPECT_FORMAT("4294967295", "%u", UINT_MAX);
    // Precision stops at 512 digits.
    EXPECT_FORMAT(std::string(511, '0') + "1", "%.600d", 1);
    EXPECT_FORMAT(std::string(511, '0') + "1", "%.*d", 100000, 1);
    EXPECT_FORMAT("-" + std::string(511, '0') + "1", "%.512d", -1);
}

TEST(FormatS, SizeModifiersTakeTheirArgumentWidth) {
    EXPECT_FORMAT("44", "%hhd", 300);
    EXPECT_FORMAT("-1 255", "%hhd %hhu", 255, -1);
    EXPECT_FORMAT("4464", "%hd", 70000);
    EXPECT_FORMAT("65535", "%hu", -1);
    EXPECT_FORMAT("-1", "%ld", -1L);
    EXPECT_FORMAT("9223372036854775807 -9223372036854775807", "%jd %td", INTMAX_MAX, -PTRDIFF_MAX);
    EXPECT_FORMAT("18446744073709551615", "%zu", SIZE_MAX);
    EXPECT_FORMAT("ffffffff|1", "%x|%d", 0xffffffffu, 1);
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
    expectText(snprintf_s(text, sizeof text, sizeof text - 1, "%I64x %Iu %qd %Ld", big, big, big, big),
               "10000000000 1099511627776 1099511627776 1099511627776");
    expectText(snprintf_s(text, sizeof text, sizeof text - 1, "%Zd %Nd", 5, 6), "5 6");
    // I before anything but 32, 64 or an integer conversion is plain text.
    expectText(snprintf_s(text, sizeof text, sizeof text - 1, "%Is|%5I3d|%I6x"), "Is|I3d|I6x");
#pragma GCC diagnostic pop
}

TEST(FormatS, TextAndCharacters) {
    EXPECT_FORMAT("ab   |   ab|a|", "%-5s|%5s|%.1s|", "ab", "ab", "ab");
    EXPECT_FORMAT("   ab", "%05s", "ab"); // no zero padding for text
    EXPECT_FORMAT("  x|x  ", "%3c|%-3c", 'x', 'x');
    EXPECT_FORMAT("A", "%c", 0x141); // the low byte
    Outcome zero = Format(16, 15, "a%cb", 0);
    EXPECT_EQ(zero.result, 3);
    EXPECT_EQ(zero.text, "a");
    EXPECT_FORMAT("50%", "%d%%", 50);
    EXPECT_FORMAT(".*0#+- zhl", ".*0#+- zhl");
    EXPECT_FORMAT("line 7===2026-1-2 3:4:5   main:Main --- Main Enter\n",
                  "line %d===%d-%d-%d %d:%d:%d   %s:%s --- %s\n", 7, 2026, 1, 2, 3, 4, 5, "main", "Main",
                  "Main Enter");
    EXPECT_FORMAT("", "");
}

TEST(FormatS, RejectedFormats) {
    EXPECT_REJECTED("%n", static_cast<int*>(nullptr));
    EXPECT_REJECTED("%a", 1.0);
    EXPECT_REJECTED("%A", 1.0);
    EXPECT_REJECTED("%1$d", 1);
    EXPECT_REJECTED("abc%");
    EXPECT_REJECTED("%5%");
    EXPECT_REJECTED("%-");
    EXPECT_REJECTED("%.");
    EXPECT_REJECTED("%.5");
    EXPECT_REJECTED("%hh");
    EXPECT_REJECTED("%d%l", 1);
    EXPECT_REJECTED("%**d", 1, 1);
    EXPECT_REJECTED("%5*d", 1);
    EXPECT_REJECTED("%.-5d", 1);
    EXPECT_REJECTED("%.5.5d", 1);
    EXPECT_REJECTED("%l5d", 1L); // a digit after a size modifier
    EXPECT_REJECTED("%214748370d", 1);
    EXPECT_REJECTED("%.214748370d", 1);
    EXPECT_REJECTED("%0000000000214748370d", 1);
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
    snprintf(expected, sizeof expected, "%f|%10.3e|%-+12.4G|%#.0f|%g", 3.14159, 1234.5, 0.000012345, 2.0,
             1e100);
    EXPECT_FORMAT(expected, "%f|%10.3e|%-+12.4G|%#.0f|%g", 3.14159, 1234.5, 0.000012345, 2.0, 1e100);
    snprintf(expected, sizeof expected, "%Lf|%.30Le", 1.0L / 3, 2.0L / 3);
    EXPECT_FORMAT(expected, "%Lf|%.30Le", 1.0L / 3, 2.0L / 3);
    snprintf(expected, sizeof expected, "%*.*f|%d|%-*g|", 12, 3, -2.5, 7, -8, 0.5);
    EXPECT_FORMAT(expected, "%*.*f|%d|%-*g|", 12, 3, -2.5, 7, -8, 0.5);
    // Wide or precise enough to be made on the heap.
    snprintf(expected, sizeof expected, "%600.2f|", 1.5);
    EXPECT_FORMAT(expected, "%600.2f|", 1.5);
    snprintf(expected, sizeof expected, "%.600f|%f", 1.0 / 3, 1e300);
    EXPECT_FORMAT(expected, "%.600f|%f", 1.0 / 3, 1e300);
    const char* longSpecification = "%+-#0000000000020.3f|%d"; // copied to the heap
    snprintf(expected, sizeof expected, longSpecification, 1.25, 4);
    EXPECT_FORMAT(expected, longSpecification, 1.25, 4);
    snprintf(expected, sizeof expected, "%f %F %e %g", INFINITY, -INFINITY, NAN, -0.0);
    EXPECT_FORMAT(expected, "%f %F %e %g", INFINITY, -INFINITY, NAN, -0.0);

    // A floating conversion that prints nothing still takes its value off the list.
    EXPECT_FORMAT("|7", "%.*f|%d", 2147483299, 1.0, 7);
    EXPECT_FORMAT("|7", "%.*Lf|%d", 2147478676, 1.0L, 7);
    // ll takes a plain double.
    snprintf(expected, sizeof expected, "%f|%d", 2.5, 9);
    EXPECT_FORMAT(expected, "%llf|%d", 2.5, 9);
    // A floating text cut by the destination.
    Outcome cut = Format(6, 5, "%f", 3.14159);
    EXPECT_EQ(cut.result, -1);
    EXPECT_EQ(cut.text, "3.141");
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
