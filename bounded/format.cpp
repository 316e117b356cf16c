/* Bounded formatted output: snprintf_s, vsnprintf_s and their conversion engine.
 *
 * format_output_s is a state machine over the printf format language driven by
 * format_state_table. The parser collects one conversion specification at a time; at its
 * conversion character the argument is fetched, turned into a piece of text by its
 * converter, and only then written. Every byte goes out through the writers of one
 * OutputBuffer, which refuses the first byte that does not fit and remembers it: from then
 * on every write does nothing, so the engine looks for a failure once per conversion.
 * Integer, character, string and pointer conversions are the engine's own; floating
 * conversions are handed to the platform's formatter.
 */
#include "bounded/bounded.h"
#include "bounded/scan.h"

#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

/* The converters and writers are each one procedure in the source, but copied into every
 * place that calls them, so the compiler can fold in what a call site already knows. */
#define ALWAYS_INLINE __attribute__((always_inline)) inline

namespace {

/* ---- The format language ---------------------------------------------------------- */

enum CharClass {
    CLASS_OTHER,
    CLASS_PERCENT,
    CLASS_DOT,
    CLASS_STAR,
    CLASS_ZERO,
    CLASS_DIGIT,
    CLASS_FLAG,
    CLASS_SIZE,
    CLASS_TYPE,
    CLASS_COUNT
};

enum FormatState {
    STAT_NORMAL,
    STAT_PERCENT,
    STAT_FLAG,
    STAT_WIDTH,
    STAT_DOT,
    STAT_PRECIS,
    STAT_SIZE,
    STAT_TYPE,
    STAT_INVALID,
    STATE_COUNT
};

/* The characters of each class; every byte not listed is CLASS_OTHER. */
struct ClassRow {
    CharClass cls;
    const char* characters;
};

constexpr ClassRow kClassRows[] = {
    {CLASS_PERCENT, "%"},        {CLASS_DOT, "."},
    {CLASS_STAR, "*"},           {CLASS_ZERO, "0"},
    {CLASS_DIGIT, "123456789"},  {CLASS_FLAG, " #+-"},
    {CLASS_SIZE, "ILNZhjlqtwz"}, {CLASS_TYPE, "CEFGSXcdefgiopsux"},
};

/* The state a character of each class leads to, by the state before it. Inside a
 * specification anything out of order is INVALID; after a conversion (TYPE) or an
 * INVALID the next character is plain text again. */
// clang-format off
constexpr FormatState kTransitionRows[CLASS_COUNT][STATE_COUNT] = {
    /*              NORMAL        PERCENT       FLAG          WIDTH         DOT           PRECIS        SIZE          TYPE          INVALID */
    /* OTHER   */ {STAT_NORMAL,  STAT_INVALID, STAT_INVALID, STAT_INVALID, STAT_INVALID, STAT_INVALID, STAT_INVALID, STAT_NORMAL,  STAT_NORMAL},
    /* PERCENT */ {STAT_PERCENT, STAT_NORMAL,  STAT_INVALID, STAT_INVALID, STAT_INVALID, STAT_INVALID, STAT_INVALID, STAT_PERCENT, STAT_NORMAL},
    /* DOT     */ {STAT_NORMAL,  STAT_DOT,     STAT_DOT,     STAT_DOT,     STAT_INVALID, STAT_INVALID, STAT_INVALID, STAT_NORMAL,  STAT_NORMAL},
    /* STAR    */ {STAT_NORMAL,  STAT_WIDTH,   STAT_WIDTH,   STAT_INVALID, STAT_PRECIS,  STAT_INVALID, STAT_INVALID, STAT_NORMAL,  STAT_NORMAL},
    /* ZERO    */ {STAT_NORMAL,  STAT_FLAG,    STAT_FLAG,    STAT_WIDTH,   STAT_PRECIS,  STAT_PRECIS,  STAT_INVALID, STAT_NORMAL,  STAT_NORMAL},
    /* DIGIT   */ {STAT_NORMAL,  STAT_WIDTH,   STAT_WIDTH,   STAT_WIDTH,   STAT_PRECIS,  STAT_PRECIS,  STAT_INVALID, STAT_NORMAL,  STAT_NORMAL},
    /* FLAG    */ {STAT_NORMAL,  STAT_FLAG,    STAT_FLAG,    STAT_FLAG,    STAT_INVALID, STAT_INVALID, STAT_INVALID, STAT_NORMAL,  STAT_NORMAL},
    /* SIZE    */ {STAT_NORMAL,  STAT_SIZE,    STAT_SIZE,    STAT_SIZE,    STAT_SIZE,    STAT_SIZE,    STAT_SIZE,    STAT_NORMAL,  STAT_NORMAL},
    /* TYPE    */ {STAT_NORMAL,  STAT_TYPE,    STAT_TYPE,    STAT_TYPE,    STAT_TYPE,    STAT_TYPE,    STAT_TYPE,    STAT_NORMAL,  STAT_NORMAL},
};
// clang-format on

/* High nibbles behind the last transition (TYPE, INVALID) that no lookup reads, but that
 * the stored table has always carried beside the classes of q, t and z. */
struct UnreadNibble {
    int index;
    unsigned char value;
};

constexpr UnreadNibble kUnreadNibbles[] = {{81, 0x7}, {84, 0x7}, {90, 0x5}};

constexpr int FIRST_CLASSIFIED_CHAR = 0x20; /* blank */
constexpr int LAST_CLASSIFIED_CHAR = 0x7A;  /* z */
constexpr int STATE_TABLE_SIZE = 96;

/* Both lookups packed into 96 bytes: the byte at c - 0x20 holds the class of character c
 * (0x20 to 0x7A) in its low nibble; the byte at class * STATE_COUNT + state holds the
 * state that follows in its high nibble. */
struct StateTable {
    unsigned char bytes[STATE_TABLE_SIZE];
};

constexpr StateTable BuildStateTable() {
    StateTable table{};
    for (const ClassRow& row : kClassRows) {
        for (const char* c = row.characters; *c != '\0'; ++c) {
            table.bytes[*c - FIRST_CLASSIFIED_CHAR] |= static_cast<unsigned char>(row.cls);
        }
    }
    for (int cls = 0; cls < CLASS_COUNT; ++cls) {
        for (int state = 0; state < STATE_COUNT; ++state) {
            table.bytes[cls * STATE_COUNT + state] |=
                static_cast<unsigned char>(kTransitionRows[cls][state] << 4);
        }
    }
    for (const UnreadNibble& nibble : kUnreadNibbles) {
        table.bytes[nibble.index] |= static_cast<unsigned char>(nibble.value << 4);
    }
    return table;
}

constexpr StateTable format_state_table = BuildStateTable();

/* The table as every build of the engine has stored it: the rows above must make exactly
 * these bytes. */
// clang-format off
constexpr unsigned char kStateTableBytes[STATE_TABLE_SIZE] = {
    0x06, 0x80, 0x80, 0x86, 0x80, 0x81, 0x80, 0x00, 0x00, 0x10, 0x03, 0x86, 0x80, 0x86, 0x82, 0x80,
    0x14, 0x05, 0x05, 0x45, 0x45, 0x45, 0x85, 0x85, 0x85, 0x05, 0x00, 0x00, 0x30, 0x30, 0x80, 0x50,
    0x80, 0x80, 0x00, 0x08, 0x00, 0x28, 0x28, 0x38, 0x50, 0x57, 0x80, 0x00, 0x07, 0x00, 0x37, 0x30,
    0x30, 0x50, 0x50, 0x88, 0x00, 0x00, 0x00, 0x20, 0x28, 0x20, 0x87, 0x80, 0x80, 0x00, 0x00, 0x00,
    0x60, 0x60, 0x60, 0x68, 0x68, 0x68, 0x08, 0x08, 0x07, 0x78, 0x77, 0x70, 0x77, 0x70, 0x70, 0x08,
    0x08, 0x77, 0x00, 0x08, 0x77, 0x08, 0x00, 0x07, 0x08, 0x00, 0x57, 0x00, 0x00, 0x00, 0x00, 0x00,
};
// clang-format on

constexpr bool IsStoredTable(const StateTable& table) {
    for (int i = 0; i < STATE_TABLE_SIZE; ++i) {
        if (table.bytes[i] != kStateTableBytes[i]) {
            return false;
        }
    }
    return true;
}
static_assert(IsStoredTable(format_state_table), "the class and transition rows changed the state table");

/* The table unpacked at compile time: a class for every byte value, and the next state
 * indexed by state and class, so the parser does two plain loads per character. */
struct ClassMap {
    unsigned char of[256];
};

constexpr ClassMap DeriveClasses() {
    ClassMap map{};
    for (int c = FIRST_CLASSIFIED_CHAR; c <= LAST_CLASSIFIED_CHAR; ++c) {
        map.of[c] = format_state_table.bytes[c - FIRST_CLASSIFIED_CHAR] & 0x0F;
    }
    return map;
}

struct TransitionMap {
    unsigned char next[STATE_COUNT][CLASS_COUNT];
};

constexpr TransitionMap DeriveTransitions() {
    TransitionMap map{};
    for (int state = 0; state < STATE_COUNT; ++state) {
        for (int cls = 0; cls < CLASS_COUNT; ++cls) {
            map.next[state][cls] = format_state_table.bytes[cls * STATE_COUNT + state] >> 4;
        }
    }
    return map;
}

constexpr ClassMap formatClasses = DeriveClasses();
constexpr TransitionMap formatTransitions = DeriveTransitions();

/* Where plain text of a format ends: at a "%" or the terminator. One load per byte. */
struct TextEnds {
    bool at[256];
};

constexpr TextEnds DeriveTextEnds() {
    TextEnds ends{};
    ends.at[0] = true;
    ends.at[static_cast<unsigned char>('%')] = true;
    return ends;
}

constexpr TextEnds formatEndsText = DeriveTextEnds();

/* ---- Limits ------------------------------------------------------------------------- */

/* A width or precision above this takes no further digit: 214,748,369 is the largest. */
constexpr int MAX_VALUE_BEFORE_DIGIT = 21474836;
/* Integer precision beyond this is taken as this. */
constexpr int INTEGER_PRECISION_CAP = 512;
/* Digits filled up to the precision cap, plus the leading 0 of the alternate octal form. */
constexpr int INTEGER_TEXT_SIZE = INTEGER_PRECISION_CAP + 2;
/* Room a floating conversion needs beyond its precision (sign, integer digits, exponent). */
constexpr int FLOAT_EXTRA_ROOM = 349;
constexpr int LONG_DOUBLE_EXTRA_ROOM = 4972;
constexpr int FLOAT_MAX_PRECISION = INT_MAX - FLOAT_EXTRA_ROOM;
constexpr int LONG_DOUBLE_MAX_PRECISION = INT_MAX - LONG_DOUBLE_EXTRA_ROOM;
/* Floating text shorter than this is made on the stack, longer on the heap. */
constexpr int FLOAT_LOCAL_BUFFER_SIZE = 512;
/* Floating specifications (with terminator) up to this size are copied to the stack. */
constexpr int FLOAT_LOCAL_CONVERSION_SIZE = 16;
/* Pieces up to twice this long are stored by two overlapping copies of a fixed size, which
 * take no loop and no call; longer ones by the C library's block copy. */
constexpr int SHORT_PIECE_MAX = 16;

/* ---- Constant texts ----------------------------------------------------------------- */

const char _itoa_upper_digits[] = "0123456789ABCDEFX";
const char _itoa_lower_digits[] = "0123456789abcdefx";
constexpr int PREFIX_LETTER_INDEX = 16;
const char STR_NULL_STRING[] = "(null)";
const wchar_t WSTR_NULL_STRING[] = L"(null)";
const char NULL_POINTER_TEXT[] = "(nil)";

/* ---- Conversion flags --------------------------------------------------------------- */

enum : unsigned {
    FLAG_SIGN = 1u << 0,        /* + */
    FLAG_SIGN_SPACE = 1u << 1,  /* blank */
    FLAG_LEFT = 1u << 2,        /* - */
    FLAG_LEADZERO = 1u << 3,    /* 0 */
    FLAG_ALTERNATE = 1u << 4,   /* # */
    FLAG_SHORT = 1u << 5,       /* h */
    FLAG_CHAR = 1u << 6,        /* hh */
    FLAG_LONG = 1u << 7,        /* l */
    FLAG_LONGLONG = 1u << 8,    /* ll, L, q */
    FLAG_LONG_DOUBLE = 1u << 9, /* L, q */
    FLAG_INTMAX = 1u << 10,     /* j */
    FLAG_SIZE = 1u << 11,       /* z */
    FLAG_PTRDIFF = 1u << 12,    /* t */
    FLAG_WIDECHAR = 1u << 13,   /* w */
    FLAG_I64 = 1u << 14,        /* I, I64 */
    FLAG_SIGNED = 1u << 15,
    FLAG_NEGATIVE = 1u << 16,
    FLAG_POINTER = 1u << 17,
};

constexpr unsigned FLAGS_64BIT = FLAG_I64 | FLAG_LONG | FLAG_LONGLONG;
constexpr unsigned FLAGS_WORD_SIZED = FLAG_INTMAX | FLAG_SIZE | FLAG_PTRDIFF;

/* ---- Output ------------------------------------------------------------------------- */

/* The first write that finds no room fills the buffer to its last byte and leaves count at
 * -1, where it stays: every later write does nothing. */
struct OutputBuffer {
    int count; /* bytes still free; -1 once a write has been refused */
    char* cur; /* where the next byte goes */
};

inline bool Failed(const OutputBuffer& out) {
    return out.count < 0;
}

/* Stores a piece of len bytes through store(to, n), or as much of it as fits. */
template <typename StoreBytes> ALWAYS_INLINE void WritePiece(int len, OutputBuffer& out, StoreBytes store) {
    if (len <= 0) {
        return;
    }
    if (len <= out.count) {
        store(out.cur, len);
        out.cur += len;
        out.count -= len;
        return;
    }
    if (!Failed(out)) {
        store(out.cur, out.count);
        out.cur += out.count;
        out.count = -1;
    }
}

/* The writer of a conversion's text and prefix. */
ALWAYS_INLINE void write_string_a(const char* text, int len, OutputBuffer& out) {
    WritePiece(len, out, [text](char* to, int n) {
        const size_t size = static_cast<size_t>(n);
        if (n > 2 * SHORT_PIECE_MAX) {
            memcpy(to, text, size);
        } else if (n >= SHORT_PIECE_MAX) {
            memcpy(to, text, SHORT_PIECE_MAX);
            memcpy(to + size - SHORT_PIECE_MAX, text + size - SHORT_PIECE_MAX, SHORT_PIECE_MAX);
        } else if (n >= 8) {
            memcpy(to, text, 8);
            memcpy(to + size - 8, text + size - 8, 8);
        } else if (n >= 4) {
            memcpy(to, text, 4);
            memcpy(to + size - 4, text + size - 4, 4);
        } else {
            for (size_t i = 0; i < size; ++i) {
                to[i] = text[i];
            }
        }
    });
}

/* The writer of padding: num copies of ch. */
ALWAYS_INLINE void write_multi_char_a(char ch, int num, OutputBuffer& out) {
    WritePiece(num, out, [ch](char* to, int n) { memset(to, ch, static_cast<size_t>(n)); });
}

/* The writer of the format's own text: the first `literal` characters at text whatever
 * they are (the "%" of "%%", an I that starts no modifier), then the plain text up to the
 * next specification. Answers where the text stopped. */
ALWAYS_INLINE const char* WriteLiteralText(const char* text, int literal, OutputBuffer& out) {
    if ((literal == 0 && formatEndsText.at[static_cast<unsigned char>(*text)]) || Failed(out)) {
        return text; /* no text: a specification follows at once */
    }
    /* The format's runs of text are mostly short: copied as they are scanned, while the
     * buffer has room; what is left of a long one is measured by the C library and
     * written as one piece. */
    char* to = out.cur;
    char* const limit = out.cur + (out.count < SHORT_PIECE_MAX ? out.count : SHORT_PIECE_MAX);
    for (; literal > 0 && to < limit; --literal) {
        *to++ = *text++;
    }
    while (to < limit && !formatEndsText.at[static_cast<unsigned char>(*text)]) {
        *to++ = *text++;
    }
    out.count -= static_cast<int>(to - out.cur);
    out.cur = to;
    if (literal > 0 || !formatEndsText.at[static_cast<unsigned char>(*text)]) {
        const size_t rest = static_cast<size_t>(literal) + strcspn(text + literal, "%");
        write_string_a(text, rest < INT_MAX ? static_cast<int>(rest) : INT_MAX, out);
        text += rest;
    }
    return text;
}

/* ---- One conversion ----------------------------------------------------------------- */

/* The caller's arguments, in a form that can be passed on by reference on every ABI. */
struct ArgumentList {
    va_list ap;
};

struct Conversion {
    unsigned flags;
    int width;      /* 0 when not given */
    int precision;  /* -1 when not given */
    char prefix[2]; /* sign, or 0x / 0X */
    int prefixLen;
    const char* text; /* narrow text to print */
    const wchar_t* wideText;
    int textLen;   /* bytes of text; for wide text, bytes it converts to */
    bool isWide;   /* text is wideText, converted on writing */
    bool noOutput; /* the conversion prints nothing, not even padding */
};

/* The "*" values as read, which the platform formatter is handed again. */
struct StarArguments {
    bool widthFromArgs;
    bool precisionFromArgs;
    int width;
    int precision;
};

/* Every "%" starts from no flags, no width and no precision. */
inline void BeginConversion(Conversion& conv, StarArguments& stars) {
    conv.flags = 0;
    conv.width = 0;
    conv.precision = -1;
    conv.prefixLen = 0;
    conv.isWide = false;
    conv.noOutput = false;
    stars.widthFromArgs = false;
    stars.precisionFromArgs = false;
}

/* Bytes that at most maxChars characters of a wide text convert to, or -1 when a
 * character does not convert in the current locale. */
int WideTextBytes(const wchar_t* text, int maxChars) {
    char mb[MB_LEN_MAX];
    long total = 0;
    for (int i = 0; (maxChars < 0 || i < maxChars) && text[i] != L'\0'; ++i) {
        int n = wctomb(mb, text[i]);
        if (n < 0) {
            return -1;
        }
        total += n;
        if (total > INT_MAX) {
            return INT_MAX;
        }
    }
    return static_cast<int>(total);
}

void WriteWideText(const wchar_t* text, int bytes, OutputBuffer& out) {
    char mb[MB_LEN_MAX];
    for (int done = 0; done < bytes && !Failed(out); ++text) {
        const int n = wctomb(mb, *text); /* never more than MB_LEN_MAX: said for the compiler */
        write_string_a(mb, n < MB_LEN_MAX ? n : MB_LEN_MAX, out);
        done += n;
    }
}

/* Padding, prefix, text and padding, in the order the flags ask for. */
ALWAYS_INLINE void WriteConversion(const Conversion& conv, OutputBuffer& out) {
    long long padding = static_cast<long long>(conv.width) - conv.textLen - conv.prefixLen;
    int pad = padding > 0 ? static_cast<int>(padding) : 0;
    unsigned justify = conv.flags & (FLAG_LEFT | FLAG_LEADZERO);
    if (justify == 0) {
        write_multi_char_a(' ', pad, out);
    }
    write_string_a(conv.prefix, conv.prefixLen, out);
    if (justify == FLAG_LEADZERO) {
        write_multi_char_a('0', pad, out);
    }
    if (conv.isWide) {
        WriteWideText(conv.wideText, conv.textLen, out);
    } else {
        write_string_a(conv.text, conv.textLen, out);
    }
    if (conv.flags & FLAG_LEFT) {
        write_multi_char_a(' ', pad, out);
    }
}

/* "00" to "99", so that the decimal digit writer divides once for every two digits. */
struct DigitPairs {
    char text[200];
};

constexpr DigitPairs DeriveDigitPairs() {
    DigitPairs pairs{};
    for (int i = 0; i < 100; ++i) {
        pairs.text[2 * i] = static_cast<char>('0' + i / 10);
        pairs.text[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}

constexpr DigitPairs decimalPairs = DeriveDigitPairs();

/* The one decimal digit writer: the digits of value, right-aligned so they end at end;
 * none for 0. Values that fit 32 bits are divided in 32 bits, which is much cheaper. */
ALWAYS_INLINE char* FormatDecimal(uint64_t value, char* end) {
    while (value > UINT32_MAX) {
        const uint64_t rest = value / 100;
        end -= 2;
        memcpy(end, decimalPairs.text + 2 * (value - rest * 100), 2);
        value = rest;
    }
    uint32_t small = static_cast<uint32_t>(value);
    while (small >= 100) {
        const uint32_t rest = small / 100;
        end -= 2;
        memcpy(end, decimalPairs.text + 2 * (small - rest * 100), 2);
        small = rest;
    }
    if (small >= 10) {
        end -= 2;
        memcpy(end, decimalPairs.text + 2 * small, 2);
    } else if (small > 0) {
        *--end = static_cast<char>('0' + small);
    }
    return end;
}

/* Digits of value in radix 8 (3 bits a digit) or 16 (4 bits), ending at end; none for 0. */
char* FormatBinaryRadix(uint64_t value, int bitsPerDigit, const char* digits, char* end) {
    const uint64_t mask = (uint64_t{1} << bitsPerDigit) - 1;
    for (; value != 0; value >>= bitsPerDigit) {
        *--end = digits[value & mask];
    }
    return end;
}

/* Fetches the integer argument of d i u o x X p at its width: 64-bit with I, l, ll, L or q,
 * else char with hh, short with h, 64-bit with j, z or t, int otherwise. Signed conversions
 * answer the magnitude and set FLAG_NEGATIVE; a narrow magnitude is taken to 32 bits. */
ALWAYS_INLINE uint64_t FetchInteger(unsigned& flags, ArgumentList& argList) {
    const bool is64 = (flags & FLAGS_64BIT) != 0 ||
                      ((flags & FLAGS_WORD_SIZED) != 0 && (flags & (FLAG_CHAR | FLAG_SHORT)) == 0);
    if (!(flags & FLAG_SIGNED)) {
        if (is64) {
            return va_arg(argList.ap, uint64_t);
        }
        unsigned value = va_arg(argList.ap, unsigned);
        return (flags & FLAG_CHAR)    ? static_cast<unsigned char>(value)
               : (flags & FLAG_SHORT) ? static_cast<unsigned short>(value)
                                      : value;
    }
    int64_t value;
    if (is64) {
        value = va_arg(argList.ap, int64_t);
    } else {
        int narrow = va_arg(argList.ap, int);
        value = (flags & FLAG_CHAR)    ? static_cast<signed char>(narrow)
                : (flags & FLAG_SHORT) ? static_cast<short>(narrow)
                                       : narrow;
    }
    uint64_t magnitude = static_cast<uint64_t>(value);
    if (value < 0) {
        flags |= FLAG_NEGATIVE;
        magnitude = 0 - magnitude;
        if (!is64) {
            magnitude = static_cast<uint32_t>(magnitude);
        }
    }
    return magnitude;
}

/* Fetches the integer argument of d i u o x X p and makes its text in buffer. */
ALWAYS_INLINE void ConvertInteger(Conversion& conv, char type, ArgumentList& argList,
                                  char (&buffer)[INTEGER_TEXT_SIZE]) {
    unsigned& flags = conv.flags;
    if (type == 'p') {
        conv.precision = 0;
        flags |= FLAG_I64 | FLAG_ALTERNATE | FLAG_POINTER;
    } else if (type == 'd' || type == 'i') {
        flags |= FLAG_SIGNED;
    }
    const uint64_t value = FetchInteger(flags, argList);

    if (conv.precision < 0) {
        conv.precision = 1;
    } else {
        if (!(flags & FLAG_POINTER)) {
            flags &= ~FLAG_LEADZERO;
        }
        if (conv.precision > INTEGER_PRECISION_CAP) {
            conv.precision = INTEGER_PRECISION_CAP;
        }
    }

    char* end = buffer + INTEGER_TEXT_SIZE;
    const char* letters = type == 'X' ? _itoa_upper_digits : _itoa_lower_digits;
    char* text = type == 'o'                                 ? FormatBinaryRadix(value, 3, letters, end)
                 : type == 'x' || type == 'X' || type == 'p' ? FormatBinaryRadix(value, 4, letters, end)
                                                             : FormatDecimal(value, end);
    while (end - text < conv.precision) {
        *--text = '0';
    }
    switch (type) {
    case 'o':
        if ((flags & FLAG_ALTERNATE) && (text == end || *text != '0')) {
            *--text = '0';
        }
        break;
    case 'x':
    case 'X':
    case 'p':
        if ((flags & FLAG_ALTERNATE) && value != 0) {
            conv.prefix[0] = '0';
            conv.prefix[1] = letters[PREFIX_LETTER_INDEX];
            conv.prefixLen = 2;
        }
        if ((flags & FLAG_POINTER) && text == end) {
            text = const_cast<char*>(NULL_POINTER_TEXT);
            end = text + sizeof(NULL_POINTER_TEXT) - 1;
            flags &= ~FLAG_LEADZERO;
        }
        break;
    case 'd':
    case 'i':
        if (flags & FLAG_NEGATIVE) {
            conv.prefix[0] = '-';
            conv.prefixLen = 1;
        } else if (flags & FLAG_SIGN) {
            conv.prefix[0] = '+';
            conv.prefixLen = 1;
        } else if (flags & FLAG_SIGN_SPACE) {
            conv.prefix[0] = ' ';
            conv.prefixLen = 1;
        }
        break;
    default: /* u */
        break;
    }
    conv.text = text;
    conv.textLen = static_cast<int>(end - text);
}

/* Length of at most maxChars characters of text (all of it when maxChars is negative). */
ALWAYS_INLINE int NarrowTextLength(const char* text, int maxChars) {
    // A whole text is measured by strlen: a bound of INT_MAX bytes from text could run
    // past the end of a 32-bit address space.
    size_t len = maxChars < 0 ? strlen(text) : bounded::LengthWithin(text, static_cast<size_t>(maxChars));
    return len > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(len);
}

/* Calls the platform's formatter on one floating specification and the arguments that
 * follow it. The buffer's size bounds the call, so a specification the platform reads
 * differently from this engine can at worst produce a text that is then dropped. */
int indirectSprintf(char* buffer, size_t bufferSize, const char* specification, ...) {
    va_list args;
    va_start(args, specification);
    int result = vsnprintf(buffer, bufferSize, specification, args);
    va_end(args);
    return result;
}

/* The platform formatter reads a long double where its length modifier is exactly "ll",
 * which this engine takes as plain double: such a value is handed over widened. */
bool PlatformWantsLongDouble(const char* conversionText, size_t len) {
    return len >= 4 && conversionText[len - 2] == 'l' && conversionText[len - 3] == 'l' &&
           conversionText[len - 4] != 'l';
}

/* Formats one floating conversion through the platform formatter. On success conv.text
 * holds the text in localBuffer or in *heapBuffer (to be freed by the caller). */
void ConvertFloat(Conversion& conv, char type, const char* conversionText, size_t conversionLen,
                  const StarArguments& stars, ArgumentList& argList,
                  char (&localBuffer)[FLOAT_LOCAL_BUFFER_SIZE], char** heapBuffer) {
    bool isLongDouble = (conv.flags & FLAG_LONG_DOUBLE) != 0;
    /* The value leaves the argument list even when nothing is printed, so the
     * conversions after this one get their own arguments. */
    long double longValue = 0;
    double value = 0;
    if (isLongDouble) {
        longValue = va_arg(argList.ap, long double);
    } else {
        value = va_arg(argList.ap, double);
    }
    conv.noOutput = true;

    int sizingPrecision = conv.precision;
    if (sizingPrecision < 0) {
        sizingPrecision = 6;
    } else if (sizingPrecision == 0 && (type == 'g' || type == 'G')) {
        sizingPrecision = 1;
    }
    if (sizingPrecision > (isLongDouble ? LONG_DOUBLE_MAX_PRECISION : FLOAT_MAX_PRECISION)) {
        return;
    }
    int size = sizingPrecision + (isLongDouble ? LONG_DOUBLE_EXTRA_ROOM : FLOAT_EXTRA_ROOM);
    if (conv.width > size) {
        size = conv.width;
    }
    char* buffer = localBuffer;
    size_t bufferSize = sizeof(localBuffer);
    if (size >= FLOAT_LOCAL_BUFFER_SIZE) {
        bufferSize = static_cast<size_t>(size) + 2;
        buffer = static_cast<char*>(malloc(bufferSize));
        if (buffer == nullptr) {
            return;
        }
        *heapBuffer = buffer;
    }

    char localConversion[FLOAT_LOCAL_CONVERSION_SIZE];
    char* conversionCopy = localConversion;
    if (conversionLen + 1 > sizeof(localConversion)) {
        conversionCopy = static_cast<char*>(malloc(conversionLen + 1));
        if (conversionCopy == nullptr) {
            return;
        }
    }
    memcpy(conversionCopy, conversionText, conversionLen);
    conversionCopy[conversionLen] = '\0';

    if (!isLongDouble && PlatformWantsLongDouble(conversionCopy, conversionLen)) {
        isLongDouble = true;
        longValue = value;
    }
    int result;
    if (stars.widthFromArgs && stars.precisionFromArgs) {
        result =
            isLongDouble
                ? indirectSprintf(buffer, bufferSize, conversionCopy, stars.width, stars.precision, longValue)
                : indirectSprintf(buffer, bufferSize, conversionCopy, stars.width, stars.precision, value);
    } else if (stars.widthFromArgs) {
        result = isLongDouble ? indirectSprintf(buffer, bufferSize, conversionCopy, stars.width, longValue)
                              : indirectSprintf(buffer, bufferSize, conversionCopy, stars.width, value);
    } else if (stars.precisionFromArgs) {
        result = isLongDouble
                     ? indirectSprintf(buffer, bufferSize, conversionCopy, stars.precision, longValue)
                     : indirectSprintf(buffer, bufferSize, conversionCopy, stars.precision, value);
    } else {
        result = isLongDouble ? indirectSprintf(buffer, bufferSize, conversionCopy, longValue)
                              : indirectSprintf(buffer, bufferSize, conversionCopy, value);
    }
    if (conversionCopy != localConversion) {
        free(conversionCopy);
    }
    if (result < 0 || result > size) {
        return;
    }
    /* The platform's text stands as it is: no padding, no sign of the engine's own. */
    conv.noOutput = false;
    conv.text = buffer;
    conv.textLen = result;
    conv.width = 0;
    conv.prefixLen = 0;
}

/* Fetches the argument of s S c C and points the conversion at its text. */
ALWAYS_INLINE bool ConvertTextual(Conversion& conv, char type, ArgumentList& argList,
                                  char (&charBuffer)[MB_LEN_MAX]) {
    unsigned flags = conv.flags;
    bool wide;
    if (type == 's' || type == 'c') {
        wide = (flags & (FLAG_LONG | FLAG_WIDECHAR)) != 0;
    } else { /* S and C are wide unless h makes them narrow */
        wide = !(flags & FLAG_SHORT) || (flags & (FLAG_LONG | FLAG_WIDECHAR));
    }
    conv.flags &= ~FLAG_LEADZERO;

    if (type == 's' || type == 'S') {
        if (wide) {
            const wchar_t* text = va_arg(argList.ap, const wchar_t*);
            if (text == nullptr) {
                text = WSTR_NULL_STRING;
            }
            int bytes = WideTextBytes(text, conv.precision);
            if (bytes < 0) {
                return false;
            }
            conv.isWide = true;
            conv.wideText = text;
            conv.textLen = bytes;
        } else {
            const char* text = va_arg(argList.ap, const char*);
            if (text == nullptr) {
                text = STR_NULL_STRING;
            }
            conv.text = text;
            conv.textLen = NarrowTextLength(text, conv.precision);
        }
        return true;
    }

    if (wide) {
        wint_t wc = va_arg(argList.ap, wint_t);
        int n = wctomb(charBuffer, static_cast<wchar_t>(wc));
        if (n < 0) {
            conv.noOutput = true;
            return true;
        }
        conv.textLen = n;
    } else {
        charBuffer[0] = static_cast<char>(va_arg(argList.ap, int));
        conv.textLen = 1;
    }
    conv.text = charBuffer;
    return true;
}

/* Records one length modifier. format points behind it and moves past what is consumed
 * with it. Returns false for an I that begins no modifier: the I is then plain text. */
bool RecordSizeModifier(char ch, const char*& format, unsigned& flags) {
    switch (ch) {
    case 'h':
        /* hh: the second h is read again on its own, so both flags end up set. */
        flags |= FLAG_SHORT;
        if (*format == 'h') {
            flags |= FLAG_CHAR;
        }
        break;
    case 'l':
        if (*format == 'l') {
            ++format;
            flags |= FLAG_LONGLONG;
        } else {
            flags |= FLAG_LONG;
        }
        break;
    case 'L':
    case 'q':
        flags |= FLAG_LONGLONG | FLAG_LONG_DOUBLE;
        break;
    case 'j':
        flags |= FLAG_INTMAX;
        break;
    case 'z':
        flags |= FLAG_SIZE;
        break;
    case 't':
        flags |= FLAG_PTRDIFF;
        break;
    case 'w':
        flags |= FLAG_WIDECHAR;
        break;
    case 'I':
        if (format[0] == '6' && format[1] == '4') {
            format += 2;
            flags |= FLAG_I64;
        } else if (format[0] == '3' && format[1] == '2') {
            format += 2;
            flags &= ~FLAG_I64;
        } else if (format[0] != '\0' && strchr("dioxXu", format[0]) != nullptr) {
            flags |= FLAG_I64;
        } else {
            return false;
        }
        break;
    default: /* N, Z */
        break;
    }
    return true;
}

/* Appends a digit to a width or precision, wrapping rather than overflowing for the odd
 * negative value a "*" can leave behind. */
inline int AppendDigit(int value, char digit) {
    return static_cast<int>(static_cast<unsigned>(value) * 10u + static_cast<unsigned>(digit - '0'));
}

inline int Magnitude(int value) {
    return static_cast<int>(0u - static_cast<unsigned>(value));
}

/* How a specification ended. */
enum ParseOutcome {
    PARSED,   /* at its conversion character */
    LITERAL,  /* it turned out to be text: "%%", or an I that starts no modifier */
    REJECTED, /* the format is not accepted */
};

/* Reads one conversion specification, format pointing behind its "%", through the state
 * table, taking the "*" arguments as they come. format ends behind the last character
 * read, which on LITERAL is the character to write. */
inline ParseOutcome ParseSpecification(const char*& format, Conversion& conv, StarArguments& stars,
                                       ArgumentList& argList) {
    int state = STAT_PERCENT;
    for (;;) {
        /* A terminator is of class OTHER: inside a specification it leads to INVALID. */
        unsigned char ch = static_cast<unsigned char>(*format++);
        int previous = state;
        state = formatTransitions.next[state][formatClasses.of[ch]];
        switch (state) {
        case STAT_TYPE:
            return PARSED;

        case STAT_NORMAL: /* "%%" */
            return LITERAL;

        case STAT_FLAG:
            switch (ch) {
            case ' ':
                conv.flags |= FLAG_SIGN_SPACE;
                break;
            case '#':
                conv.flags |= FLAG_ALTERNATE;
                break;
            case '+':
                conv.flags |= FLAG_SIGN;
                break;
            case '-':
                conv.flags |= FLAG_LEFT;
                break;
            default: /* '0' */
                conv.flags |= FLAG_LEADZERO;
                break;
            }
            break;

        case STAT_WIDTH:
            if (ch == '*') {
                stars.widthFromArgs = true;
                stars.width = va_arg(argList.ap, int);
                conv.width = stars.width;
                if (conv.width < 0) {
                    conv.flags |= FLAG_LEFT;
                    conv.width = Magnitude(conv.width);
                }
            } else {
                if (previous != STAT_WIDTH) {
                    conv.width = 0;
                }
                if (conv.width > MAX_VALUE_BEFORE_DIGIT) {
                    return REJECTED;
                }
                conv.width = AppendDigit(conv.width, static_cast<char>(ch));
            }
            break;

        case STAT_DOT:
            conv.precision = 0;
            break;

        case STAT_PRECIS:
            if (ch == '*') {
                stars.precisionFromArgs = true;
                stars.precision = va_arg(argList.ap, int);
                conv.precision = stars.precision < -1 ? -1 : stars.precision;
            } else {
                if (conv.precision > MAX_VALUE_BEFORE_DIGIT) {
                    return REJECTED;
                }
                conv.precision = AppendDigit(conv.precision, static_cast<char>(ch));
            }
            break;

        case STAT_SIZE:
            if (!RecordSizeModifier(static_cast<char>(ch), format, conv.flags)) {
                return LITERAL;
            }
            break;

        default: /* STAT_INVALID */
            return REJECTED;
        }
    }
}

/* Where one conversion's text is made. */
struct ConversionText {
    char integer[INTEGER_TEXT_SIZE];
    char character[MB_LEN_MAX];
    char floating[FLOAT_LOCAL_BUFFER_SIZE];
};

/* Fetches the argument of a parsed conversion (its specification is the length bytes from
 * start, type its conversion character), makes its text and writes it. Returns false for a
 * wide text that does not convert, which fails the call. */
ALWAYS_INLINE bool ConvertAndWrite(Conversion& conv, char type, const char* start, size_t length,
                                   const StarArguments& stars, ArgumentList& argList, ConversionText& scratch,
                                   OutputBuffer& out) {
    char* heapText = nullptr;
    switch (type) {
    case 'd':
    case 'i':
    case 'u':
    case 'o':
    case 'x':
    case 'X':
    case 'p':
        ConvertInteger(conv, type, argList, scratch.integer);
        break;
    case 's':
    case 'S':
    case 'c':
    case 'C':
        if (!ConvertTextual(conv, type, argList, scratch.character)) {
            return false;
        }
        break;
    default: /* e E f F g G */
        ConvertFloat(conv, type, start, length, stars, argList, scratch.floating, &heapText);
        break;
    }
    if (!conv.noOutput) {
        WriteConversion(conv, out);
    }
    if (heapText != nullptr) {
        free(heapText);
    }
    return true;
}

} // namespace

/* ---- The engine ------------------------------------------------------------------------ */

/* Writes format with its arguments to stream. Returns the number of characters written,
 * or -1 when the format is rejected, a write found no room, or a wide text did not
 * convert; stream->count tells the caller which of the last two applies. */
static int format_output_s(OutputBuffer* stream, const char* format, va_list callerArgs) {
    if (*format == '\0') {
        return 0;
    }
    ArgumentList argList;
    va_copy(argList.ap, callerArgs);
    /* Field by field: one wide copy of what the caller has just stored one field at a time
     * would wait for those stores to drain. */
    OutputBuffer out;
    out.count = stream->count;
    out.cur = stream->cur;
    char* const start = out.cur;
    bool failed = false; /* the format was rejected or a wide text did not convert */
    Conversion conv;     /* each field is set before it is read */
    StarArguments stars{};
    ConversionText scratch;

    while (!Failed(out)) {
        format = WriteLiteralText(format, 0, out);
        if (*format == '\0' || Failed(out)) {
            break;
        }

        const char* conversionStart = format++;
        BeginConversion(conv, stars);
        const char bare = *format;
        if (formatClasses.of[static_cast<unsigned char>(bare)] == CLASS_TYPE) {
            /* A bare conversion character: nothing for the parser to collect. d and s make
             * most of every log line, so each gets its own copy of the converter with the
             * empty specification folded in. */
            ++format;
            if (bare == 'd') {
                ConvertAndWrite(conv, 'd', conversionStart, 2, stars, argList, scratch, out);
                continue;
            }
            if (bare == 's') {
                ConvertAndWrite(conv, 's', conversionStart, 2, stars, argList, scratch, out);
                continue;
            }
        } else {
            ParseOutcome parsed = ParseSpecification(format, conv, stars, argList);
            if (parsed == REJECTED) {
                failed = true;
                break;
            }
            if (parsed == LITERAL) {
                format = WriteLiteralText(format - 1, 1, out);
                continue;
            }
        }

        /* At this point the conversion from conversionStart to format is parsed:
         *   conv.flags      the flag characters and length modifiers seen;
         *   conv.width      0 when not given; never negative unless "*" gave INT_MIN;
         *   conv.precision  -1 when not given;
         *   stars           the "*" values as read, for the platform formatter;
         * and format[-1] is the conversion character. Now fetch its argument, make its
         * text, then write it. */
        if (!ConvertAndWrite(conv, format[-1], conversionStart, static_cast<size_t>(format - conversionStart),
                             stars, argList, scratch, out)) {
            failed = true;
            break;
        }
    }
    va_end(argList.ap);
    stream->count = out.count;
    stream->cur = out.cur;
    return failed || Failed(out) ? -1 : static_cast<int>(out.cur - start);
}

/* Runs the engine on a buffer of size bytes and terminates the text. Returns its length;
 * -2 when the buffer ran out (a text that leaves no byte for the terminator counts as
 * running out), -1 when the format was rejected with room to spare. */
static int vsnprintf_helper(char* string, size_t size, const char* format, va_list argList) {
    OutputBuffer buffer;
    buffer.count = static_cast<int>(size);
    buffer.cur = string;
    int result = format_output_s(&buffer, format, argList);
    if (result >= 0 && buffer.count > 0) {
        *buffer.cur = '\0';
        return result;
    }
    if (string != nullptr) {
        string[size - 1] = '\0';
    }
    return buffer.count <= 0 ? -2 : -1;
}

extern "C" int vsnprintf_s(char* dest, size_t destMax, size_t count, const char* format, va_list argList) {
    if (format == nullptr || dest == nullptr || destMax == 0 || destMax > BOUNDED_MAX_LEN ||
        (count >= BOUNDED_MAX_LEN && count != SIZE_MAX)) {
        if (dest != nullptr && destMax != 0) {
            dest[0] = '\0';
        }
        return -1;
    }
    if (count < destMax) {
        /* Truncating form: an overlong text is cut at count characters. */
        int result = vsnprintf_helper(dest, count + 1, format, argList);
        if (result == -1) {
            dest[0] = '\0';
        }
        return result < 0 ? -1 : result;
    }
    int result = vsnprintf_helper(dest, destMax, format, argList);
    dest[destMax - 1] = '\0';
    if (result < 0) {
        dest[0] = '\0';
        return -1;
    }
    return result;
}

extern "C" int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...) {
    va_list argList;
    va_start(argList, format);
    int result = vsnprintf_s(dest, destMax, count, format, argList);
    va_end(argList);
    return result;
}
