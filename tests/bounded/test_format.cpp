// snprintf_s and vsnprintf_s: where the engine departs from the C library, the limits of the
// format language, and what the destination holds at every capacity.
#include "support.h"

#include <locale.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <wchar.h>

#include <tuple>

namespace {

struct Outcome {
    int result;
    std::string text;
    bool terminated, guardIntact;
};

Outcome Format(size_t destMax, size_t count, const char* format, ...) {
    Area area(destMax);
    va_list args;
    va_start(args, format);
    int result = vsnprintf_s(area.data(), destMax, count, format, args);
    va_end(args);
    return {result, area.Text(), memchr(area.data(), 0, area.Room()) != nullptr, area.GuardIntact()};
}

// The callers' form: a roomy buffer, the limit one below its size.
#define EXPECT_FORMAT(expected, ...)                                                                         \
    do {                                                                                                     \
        Outcome o_ = Format(1024, 1023, __VA_ARGS__);                                                        \
        std::string e_(expected);                                                                            \
        EXPECT_EQ(o_.text, e_) << "format " << #__VA_ARGS__;                                                 \
        EXPECT_EQ(o_.result, static_cast<int>(e_.size())) << "format " << #__VA_ARGS__;                      \
    } while (0)

// The rest is compared with the C library in test_format_differential.cpp.
TEST(FormatS, DeparturesFromTheCLibrary) {
    const char* const nullText = nullptr;
    EXPECT_FORMAT("(null)|(n", "%s|%.2s", nullText, nullText);
    // No zeros around (nil); p takes no precision.
    EXPECT_FORMAT("     (nil)|0x00001000|0x1000", "%010p|%010p|%.8p", nullptr,
                  reinterpret_cast<void*>(0x1000), reinterpret_cast<void*>(0x1000));
    EXPECT_FORMAT("   ab", "%05s", "ab");
    EXPECT_FORMAT("7    |7  |", "%5-d|%5-3d|", 7, 7);       // a flag may follow the width, digits restart it
    const std::string capped = std::string(511, '0') + "1"; // integer precision stops at 512
    EXPECT_FORMAT(capped, "%.600d", 1);
    EXPECT_FORMAT(capped, "%.214748369d", 1);
    EXPECT_FORMAT("-" + capped, "%.*d", 100000, -1);
    Outcome zero = Format(16, 15, "a%cb", 0); // the count includes a zero character
    EXPECT_TRUE(zero.result == 3 && zero.text == "a");
    const long long big = 1LL << 40; // size modifiers outside the C library's language
    EXPECT_FORMAT("1099511627776|1099511627776|5|6", "%I64d|%Id|%I32d|%d", big, big, 5, 6);
    EXPECT_FORMAT("10000000000 1099511627776 1099511627776 5 6", "%I64x %qd %Ld %Zd %Nd", big, big, big, 5,
                  6);
    EXPECT_FORMAT("Is|I3d|I6x", "%Is|%5I3d|%I6x"); // I before anything but 32, 64 or a conversion is text
}

TEST(FormatS, RejectedFormats) {
    // Each gets one int, more than any of them reads before it fails.
    for (const char* format :
         {"%n", "%a", "%A", "%1$d", "abc%", "%5%", "%-", "%.5", "%hh", "%d%l", "%**d", "%5*d", "%.-5d",
          "%.5.5d", "%l5d", "%214748370d", "%.214748370d", "%0000000000214748370d"}) {
        Outcome o = Format(64, 63, format, 1);
        EXPECT_TRUE(o.result == -1 && o.text.empty() && o.guardIntact) << format;
    }
    // Every byte outside the format language ends a specification with a failure.
    const std::string accepted = "%.*0123456789 #+-ILNZhjlqtwzCEFGSXcdefgiopsux";
    for (int b = 1; b < 256; ++b) {
        char format[3] = {'%', static_cast<char>(b), '\0'};
        if (accepted.find(format[1]) == std::string::npos) {
            Outcome o = Format(16, 15, format);
            EXPECT_TRUE(o.result == -1 && o.text.empty()) << b;
        }
    }
}

// The floating conversions come from the platform's formatter, so it is the reference here,
// also for texts beyond the engine's stack buffer.
TEST(FormatS, FloatingConversionsMatchThePlatform) {
    char expected[2048];
    for (const char* format :
         {"%-+12.4G|%#.0f|%Lf", "%600.2f|%f|%Lf", "%.600f|%f|%Lf", "%+-#0000000000020.3f|%f|%Le"}) {
        snprintf(expected, sizeof expected, format, 0.000012345, 2.0, 1.0L / 3);
        EXPECT_FORMAT(expected, format, 0.000012345, 2.0, 1.0L / 3);
    }
    // A floating conversion that prints nothing still takes its value off the list; ll takes a double.
    EXPECT_FORMAT("|7", "%.*f|%d", 2147483299, 1.0, 7);
    EXPECT_FORMAT("|7", "%.*Lf|%d", 2147478676, 1.0L, 7);
    EXPECT_FORMAT("2.500000|9", "%llf|%d", 2.5, 9);
}

TEST(FormatS, WideConversionsFollowTheLocale) {
    const std::string saved = setlocale(LC_CTYPE, nullptr);
    setlocale(LC_CTYPE, "C");
    EXPECT_FORMAT("abc|abc|  abc|ab|(null)|x|x", "%ls|%hS|%5S|%.2ws|%ls|%lc|%hC", L"abc", "abc", L"abc",
                  L"abc", static_cast<const wchar_t*>(nullptr), L'x', 'x');
    // A character that does not convert prints nothing, padding included, and the call goes
    // on; a text that does not convert fails the call, unless the precision stops before it.
    EXPECT_FORMAT("|5", "%5lc|%d", 0xE9, 5);
    EXPECT_EQ(Format(64, 63, "%ls", L"a\u00e9").result, -1);
    EXPECT_FORMAT("a", "%.1ls", L"a\u00e9");
    if (setlocale(LC_CTYPE, "C.UTF-8") != nullptr) {
        EXPECT_FORMAT("a\xc3\xa9| \xc3\xa9|\xe2\x82\xac", "%ls|%3lc|%.1ls", L"a\u00e9", 0xE9,
                      L"\u20acx"); // width counts bytes
    }
    setlocale(LC_CTYPE, saved.c_str());
}

TEST(VsnprintfS, InvalidArguments) {
    Area area(8);
    EXPECT_EQ(snprintf_s(area.data(), 0, 0, "x"), -1); // no room or no destination: untouched
    EXPECT_EQ(snprintf_s(nullptr, 8, 7, "x"), -1);
    EXPECT_TRUE(area.Unchanged(0));
    // Anything else invalid leaves an empty text.
    const std::tuple<const char*, size_t, size_t, const char*> cases[] = {
        {"a null format", 8, 7, nullptr},
        {"destMax above the maximum", BOUNDED_MAX_LEN + 1, 7, "x"},
        {"a limit of the maximum", 8, BOUNDED_MAX_LEN, "x"},
        {"a limit above the maximum but not all bits set", 8, SIZE_MAX - 1, "x"}};
    for (const auto& [rule, destMax, count, format] : cases) {
        EXPECT_EQ(snprintf_s(area.data(), destMax, count, format, 1), -1) << rule;
        EXPECT_TRUE(area.bytes[0] == '\0' && area.Unchanged(1)) << rule;
    }
    EXPECT_EQ(snprintf_s(area.data(), 8, BOUNDED_MAX_LEN - 1, "x"),
              1); // the largest limit below all bits set
    EXPECT_EQ(area.Text(), "x");
}

// Every capacity from 1 to a few past the text, every limit around it: the truncating form
// (limit below destMax) keeps the first limit characters, the other form refuses.
TEST(VsnprintfS, TruncationAndRefusalAtEveryBoundary) {
    // Bare conversions skip the parser: their texts, a sign among them, must meet every
    // boundary as the others do.
    const std::pair<const char*, std::string> cases[] = {
        {"abcdefghij", "abcdefghij"},
        {"value is %d", "value is -42"},
        {"%d|%s|%x|%d", "-42|ab|ff|-7"},
        {"%5d|%-4s|%#x|%+06d", "  -42|ab  |0xff|-00007"},
        {"%20d%-20s.", std::string(17, ' ') + "-42ab" + std::string(18, ' ') + "."},
        {"", ""},
    };
    for (const auto& [format, text] : cases) {
        for (size_t destMax = 1; destMax <= text.size() + 3; ++destMax) {
            for (size_t count = 0; count <= destMax + 2; ++count) {
                size_t limit = count > destMax + 1 ? SIZE_MAX : count;
                SCOPED_TRACE(text + " destMax " + std::to_string(destMax) + " count " +
                             std::to_string(limit));
                Outcome o = Format(destMax, limit, format, -42, "ab", 255, -7);
                EXPECT_TRUE(o.guardIntact && o.terminated);
                bool fits = text.size() <= std::min(limit, destMax - 1);
                EXPECT_EQ(o.result, fits ? static_cast<int>(text.size()) : -1);
                EXPECT_EQ(o.text, fits ? text : limit >= destMax ? "" : text.substr(0, limit));
            }
        }
    }
}

TEST(VsnprintfS, RejectionDiscardsTextUnlessTheBufferRanOutFirst) {
    const struct {
        const char* rule;
        size_t destMax, count;
        const char* format;
        std::string text;
    } cases[] = {
        {"a rejection empties the truncating form", 16, 15, "abc%n", ""},
        {"a rejection empties the refusing form", 16, SIZE_MAX, "abc%5%", ""},
        {"room used up before the rejection is a truncation", 10, 9, "0123456789%n", "012345678"},
        {"a byte to spare before the rejection is a rejection", 10, 9, "012345678%n", ""},
        {"the largest width is accepted and cut", 16, 15, "%214748369d", std::string(15, ' ')},
        {"the largest width is refused when not cut", 16, SIZE_MAX, "%214748369d", ""},
    };
    for (const auto& c : cases) {
        Outcome o = Format(c.destMax, c.count, c.format, 1);
        EXPECT_TRUE(o.result == -1 && o.text == c.text && o.guardIntact) << c.rule;
    }
}

} // namespace
