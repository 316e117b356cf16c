// snprintf_s against the C library's snprintf on generated specifications, inside the part
// of the format language where the two agree: same text, same count.
#include "support.h"

#include <float.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>

#include <random>

#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

namespace {

std::mt19937_64 rng(20261122);
int Below(int n) {
    return static_cast<int>(rng() % static_cast<uint64_t>(n));
}

template <typename... Args> bool Compare(const std::string& format, Args... args) {
    char ours[1024], theirs[1024];
    int expected = snprintf(theirs, sizeof theirs, format.c_str(), args...);
    int result = snprintf_s(ours, sizeof ours, sizeof ours - 1, format.c_str(), args...);
    bool same = expected >= 0 && result == expected && strcmp(ours, theirs) == 0;
    EXPECT_TRUE(same) << "format \"" << format << "\": ours " << result << " \"" << ours << "\", C library "
                      << expected << " \"" << theirs << "\"";
    return same;
}

// One specification between two pieces of literal text: up to three flags from the allowed
// ones, a width and a precision as digits or "*" (those values go first), then the value.
template <typename T>
bool CompareOne(const char* flags, bool precision, const char* size, char conversion, T value) {
    static const char* literals[] = {"", "", "x", "ab ", "%%", "]%%|", "long literal text "};
    std::string format = literals[Below(7)] + std::string("%");
    for (int i = Below(4); i > 0; --i) {
        format += flags[Below(static_cast<int>(strlen(flags)))];
    }
    const std::string widths[] = {"", std::to_string(Below(30) + 1), "*"};
    const std::string precisions[] = {"", ".", "." + std::to_string(Below(30)), ".*"};
    int w = Below(3), p = precision ? Below(4) : 0, width = Below(61) - 30, digits = Below(34) - 3;
    format += widths[w] + precisions[p] + size + conversion + literals[Below(7)];
    bool starWidth = w == 2, starPrecision = p == 3;
    return !starWidth      ? (starPrecision ? Compare(format, digits, value) : Compare(format, value))
           : starPrecision ? Compare(format, width, digits, value)
                           : Compare(format, width, value);
}

// Short and long values alike: a random number of significant bits.
uint64_t Integer() {
    int bits = Below(65);
    return bits == 64 ? rng() : rng() & ((uint64_t{1} << bits) - 1);
}

double Floating() {
    static const double specials[] = {0.0,     -0.0,    0.5,         1.0,      -1.0,      9.5,
                                      0.1,     1e-5,    123456789.0, 1e15,     1e300,     -1e-300,
                                      DBL_MIN, DBL_MAX, 5e-324,      INFINITY, -INFINITY, NAN};
    if (Below(3) == 0) {
        return specials[Below(sizeof specials / sizeof specials[0])];
    }
    return (Below(2) ? -1 : 1) * ldexp(static_cast<double>(rng() >> 11) / 9007199254740992.0, Below(80) - 40);
}

TEST(FormatDifferential, AgreesWithTheCLibraryOnGeneratedSpecifications) {
    static const char* sizes[] = {"", "hh", "h", "l", "ll", "j", "z", "t"};
    static const char* texts[] = {"", "a", "hello", "with blanks ", "0123456789abcdefghijklmnopqrstuvwxyz"};
    int failures = 0;
    for (int i = 0; i < 20000 && failures < 20; ++i) {
        int size = Below(8);
        uint64_t bits = Integer();
        char conversion = "diuoxX"[Below(6)];
        bool isSigned = conversion == 'd' || conversion == 'i';
        const char* flags = isSigned ? "-+ 0" : "-#0";
        bool same =
            size <= 2
                ? (isSigned ? CompareOne(flags, true, sizes[size], conversion, static_cast<int>(bits))
                            : CompareOne(flags, true, sizes[size], conversion, static_cast<unsigned>(bits)))
                : CompareOne(flags, true, sizes[size], conversion, static_cast<long long>(bits));
        same &= CompareOne("-", true, "", 's', texts[Below(5)]);
        same &= CompareOne("-", false, "", 'c', 32 + Below(95));
        same &=
            CompareOne("-", false, "", 'p', reinterpret_cast<void*>(static_cast<uintptr_t>(Integer() | 1)));
        conversion = "fFeEgG"[Below(6)];
        same &= Below(4) == 0
                    ? CompareOne("-+ #0", true, "L", conversion, static_cast<long double>(Floating()) / 3)
                    : CompareOne("-+ #0", true, "", conversion, Floating());
        failures += same ? 0 : 1;
    }
}

TEST(FormatDifferential, NothingCarriesOverFromOneConversionToTheNext) {
    Compare("%-+08.3d|%#o|%x|%5s|%c|%-6hhd|%lld|%e|%%", -42, 8u, 255u, "ab", 'z', 300, -1LL, 0.25);
    Compare("%#x %x %+d %d %05d %d %.2s %s", 255u, 255u, 5, 5, 7, 7, "abc", "abc");
    Compare("%*d|%d|%-*d|%d|%.*f|%f", 6, 1, 2, -6, 3, 4, 2, 1.5, 1.5);
    Compare("%*.*f|%d|%-*g|", 12, 3, -2.5, 7, -8, 0.5);
}

} // namespace
