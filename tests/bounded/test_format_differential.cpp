// snprintf_s against the C library's snprintf on generated specifications, inside the part
// of the format language where the two are meant to agree: same text, same count.
#include "bounded/bounded.h"

#include <gtest/gtest.h>

#include <float.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <random>
#include <string>

namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

int failures = 0;

// Formats with both and compares; the format text is printed on a mismatch.
template <typename... Args> void Compare(const std::string& format, Args... args) {
    char ours[1024];
    char theirs[1024];
    memset(ours, '#', sizeof ours);
    int expected = snprintf(theirs, sizeof theirs, format.c_str(), args...);
    int result = snprintf_s(ours, sizeof ours, sizeof ours - 1, format.c_str(), args...);
    ASSERT_GE(expected, 0) << format;
    ASSERT_LT(expected, static_cast<int>(sizeof theirs)) << format;
    bool same = result == expected && memcmp(ours, theirs, static_cast<size_t>(expected) + 1) == 0;
    EXPECT_TRUE(same) << "format \"" << format << "\": ours " << result << " \""
                      << std::string(ours, result > 0 ? static_cast<size_t>(result) : 0) << "\", C library "
                      << expected << " \"" << theirs << "\"";
    if (!same) {
        ++failures;
    }
}

// The two optional "*" arguments go first, then the value.
template <typename T>
void CompareWithStars(const std::string& format, int stars, int width, int precision, T value) {
    switch (stars) {
    case 0:
        Compare(format, value);
        break;
    case 1:
        Compare(format, width, value);
        break;
    case 2:
        Compare(format, precision, value);
        break;
    default:
        Compare(format, width, precision, value);
        break;
    }
}

class Generator {
  public:
    explicit Generator(uint32_t seed) : random_(seed) {}

    int Below(int n) { return static_cast<int>(random_() % static_cast<uint32_t>(n)); }
    bool OneIn(int n) { return Below(n) == 0; }
    uint64_t Bits() { return (static_cast<uint64_t>(random_()) << 32) | random_(); }

    // An integer with a random number of significant bits, so short and long values come up.
    uint64_t Integer() {
        int bits = Below(65);
        uint64_t value = Bits();
        return bits == 64 ? value : value & ((uint64_t{1} << bits) - 1);
    }

    double Floating() {
        static const double specials[] = {0.0,     -0.0,    0.5,         1.0,      -1.0,      9.5,
                                          0.1,     1e-5,    123456789.0, 1e15,     1e300,     -1e-300,
                                          DBL_MIN, DBL_MAX, 5e-324,      INFINITY, -INFINITY, NAN};
        if (OneIn(3)) {
            return specials[Below(sizeof specials / sizeof specials[0])];
        }
        double mantissa = static_cast<double>(Bits() >> 11) / static_cast<double>(uint64_t{1} << 53);
        return (OneIn(2) ? -1 : 1) * ldexp(mantissa, Below(80) - 40);
    }

    // Flags drawn from allowed, each at most a few times and in any order.
    std::string Flags(const char* allowed) {
        std::string flags;
        size_t n = strlen(allowed);
        for (int i = Below(4); i > 0; --i) {
            flags += allowed[Below(static_cast<int>(n))];
        }
        return flags;
    }

    // Width and precision parts; stars says which were taken from the arguments.
    std::string WidthAndPrecision(bool precisionAllowed, int& stars, int& width, int& precision) {
        std::string text;
        stars = 0;
        width = Below(61) - 30;
        precision = Below(34) - 3;
        switch (Below(3)) {
        case 0:
            break;
        case 1:
            text += std::to_string(Below(30) + 1);
            break;
        default:
            text += "*";
            stars |= 1;
            break;
        }
        if (precisionAllowed) {
            switch (Below(4)) {
            case 0:
                break;
            case 1:
                text += ".";
                break;
            case 2:
                text += "." + std::to_string(Below(30));
                break;
            default:
                text += ".*";
                stars |= 2;
                break;
            }
        }
        return text;
    }

    std::string Literal() {
        static const char* pieces[] = {"", "", "x", "ab ", "%%", " = ", "[", "]%%|", "long literal text "};
        return pieces[Below(sizeof pieces / sizeof pieces[0])];
    }

  private:
    std::mt19937 random_;
};

// Runs one generated specification of every kind.
void CompareOneOfEach(Generator& gen) {
    int stars;
    int width;
    int precision;

    // Signed integers with every size modifier.
    {
        static const char* sizes[] = {"", "hh", "h", "l", "ll", "j", "z", "t"};
        int size = gen.Below(8);
        std::string conversion = "%" + gen.Flags("-+ 0") +
                                 gen.WidthAndPrecision(true, stars, width, precision) + sizes[size] +
                                 (gen.OneIn(2) ? "d" : "i");
        std::string format = gen.Literal() + conversion + gen.Literal();
        uint64_t bits = gen.Integer();
        if (size <= 2) {
            CompareWithStars(format, stars, width, precision, static_cast<int>(bits));
        } else {
            CompareWithStars(format, stars, width, precision, static_cast<long long>(bits));
        }
    }
    // Unsigned integers.
    {
        static const char* sizes[] = {"", "hh", "h", "l", "ll", "j", "z", "t"};
        static const char conversions[] = "uoxX";
        int size = gen.Below(8);
        std::string conversion = "%" + gen.Flags("-#0") +
                                 gen.WidthAndPrecision(true, stars, width, precision) + sizes[size] +
                                 conversions[gen.Below(4)];
        std::string format = gen.Literal() + conversion + gen.Literal();
        uint64_t bits = gen.Integer();
        if (size <= 2) {
            CompareWithStars(format, stars, width, precision, static_cast<unsigned>(bits));
        } else {
            CompareWithStars(format, stars, width, precision, static_cast<unsigned long long>(bits));
        }
    }
    // Text and characters.
    {
        static const char* texts[] = {"", "a", "hello", "with blanks ",
                                      "0123456789abcdefghijklmnopqrstuvwxyz"};
        std::string conversion =
            "%" + gen.Flags("-") + gen.WidthAndPrecision(true, stars, width, precision) + "s";
        CompareWithStars(gen.Literal() + conversion + gen.Literal(), stars, width, precision,
                         texts[gen.Below(sizeof texts / sizeof texts[0])]);
        conversion = "%" + gen.Flags("-") + gen.WidthAndPrecision(false, stars, width, precision) + "c";
        CompareWithStars(gen.Literal() + conversion, stars, width, precision, 32 + gen.Below(95));
    }
    // Pointers (never null: that prints the same, but is tested on its own).
    {
        std::string conversion =
            "%" + gen.Flags("-") + gen.WidthAndPrecision(false, stars, width, precision) + "p";
        void* pointer = reinterpret_cast<void*>(static_cast<uintptr_t>(gen.Integer() | 1));
        CompareWithStars(gen.Literal() + conversion + gen.Literal(), stars, width, precision, pointer);
    }
    // Floating conversions, double and long double.
    {
        static const char conversions[] = "fFeEgG";
        bool isLong = gen.OneIn(4);
        std::string conversion = "%" + gen.Flags("-+ #0") +
                                 gen.WidthAndPrecision(true, stars, width, precision) + (isLong ? "L" : "") +
                                 conversions[gen.Below(6)];
        std::string format = gen.Literal() + conversion + gen.Literal();
        if (isLong) {
            CompareWithStars(format, stars, width, precision, static_cast<long double>(gen.Floating()) / 3);
        } else {
            CompareWithStars(format, stars, width, precision, gen.Floating());
        }
    }
}

TEST(FormatDifferential, AgreesWithTheCLibraryOnGeneratedSpecifications) {
    Generator gen(20261122);
    failures = 0;
    for (int i = 0; i < 20000 && failures < 20; ++i) {
        CompareOneOfEach(gen);
    }
}

TEST(FormatDifferential, SeveralConversionsInOneFormat) {
    // Each conversion starts from a clean state: nothing of the one before carries over.
    Compare(std::string("%-+08.3d|%#o|%x|%5s|%c|%-6hhd|%lld|%e|%%"), -42, 8u, 255u, "ab", 'z', 300, -1LL,
            0.25);
    Compare(std::string("%#x %x %+d %d %05d %d %.2s %s"), 255u, 255u, 5, 5, 7, 7, "abc", "abc");
    Compare(std::string("%*d|%d|%-*d|%d"), 6, 1, 2, -6, 3, 4);
    Compare(std::string("%.*f|%f|%10.*e|%e"), 2, 1.5, 1.5, 3, 2.5, 2.5);
}

#pragma GCC diagnostic pop

} // namespace
