/* Bounded formatted output: snprintf_s, vsnprintf_s and their conversion engine.
 *
 * format_output_s is a state machine over the printf format language driven by
 * format_state_table. The parser collects one conversion specification at a time; at its
 * conversion character the argument is fetched, turned into a piece of text, and only
 * then written. All writes go through an OutputBuffer that refuses the first byte that
 * does not fit. Integer, character, string and pointer conversions are the engine's own;
 * floating conversions are handed to the platform's formatter.
 */
#include "bounded/bounded.h"
#include "bounded/scan.h"

#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

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

/* Low nibble of the byte at c - 0x20: the class of format character c (0x20 to 0x7A).
 * High nibble of the byte at class * STATE_COUNT + state: the state that follows. */
constexpr unsigned char format_state_table[96] = {
    0x06, 0x80, 0x80, 0x86, 0x80, 0x81, 0x80, 0x00, 0x00, 0x10, 0x03, 0x86, 0x80, 0x86, 0x82, 0x80,
    0x14, 0x05, 0x05, 0x45, 0x45, 0x45, 0x85, 0x85, 0x85, 0x05, 0x00, 0x00, 0x30, 0x30, 0x80, 0x50,
    0x80, 0x80, 0x00, 0x08, 0x00, 0x28, 0x28, 0x38, 0x50, 0x57, 0x80, 0x00, 0x07, 0x00, 0x37, 0x30,
    0x30, 0x50, 0x50, 0x88, 0x00, 0x00, 0x00, 0x20, 0x28, 0x20, 0x87, 0x80, 0x80, 0x00, 0x00, 0x00,
    0x60, 0x60, 0x60, 0x68, 0x68, 0x68, 0x08, 0x08, 0x07, 0x78, 0x77, 0x70, 0x77, 0x70, 0x70, 0x08,
    0x08, 0x77, 0x00, 0x08, 0x77, 0x08, 0x00, 0x07, 0x08, 0x00, 0x57, 0x00, 0x00, 0x00, 0x00, 0x00,
};

constexpr int FIRST_CLASSIFIED_CHAR = 0x20; /* blank */
constexpr int LAST_CLASSIFIED_CHAR = 0x7A;  /* z */

/* The table unpacked once at compile time: a class for every byte value, and the next
 * state indexed by state and class, so the parser does two plain loads per character. */
struct ClassMap {
    unsigned char of[256];
};

constexpr ClassMap DeriveClasses() {
    ClassMap map{};
    for (int c = FIRST_CLASSIFIED_CHAR; c <= LAST_CLASSIFIED_CHAR; ++c) {
        map.of[c] = format_state_table[c - FIRST_CLASSIFIED_CHAR] & 0x0F;
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
            map.next[state][cls] = format_state_table[cls * STATE_COUNT + state] >> 4;
        }
    }
    return map;
}

constexpr ClassMap formatClasses = DeriveClasses();
constexpr TransitionMap formatTransitions = DeriveTransitions();

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
/* Pieces longer than this go by block copy; shorter ones byte by byte. */
constexpr int BYTEWISE_COPY_MAX = 11;

/* ---- Constant texts ----------------------------------------------------------------- */

const char _itoa_upper_digits[] = "0123456789ABCDEFX";
const char _itoa_lower_digits[] = "0123456789abcdefx";
constexpr int PREFIX_LETTER_INDEX = 16;
const char STR_NULL_STRING[] = "(null)";
const wchar_t WSTR_NULL_STRING[] = L"(null)";
const char NULL_POINTER_TEXT[] = "(nil)";

/* "00" to "99": decimal digits two at a time, so the loop divides by 100 half as often. */
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
    FLAG_FORCE_OCTAL = 1u << 17,
    FLAG_POINTER = 1u << 18,
};

constexpr unsigned FLAGS_64BIT = FLAG_I64 | FLAG_LONG | FLAG_LONGLONG;
constexpr unsigned FLAGS_WORD_SIZED = FLAG_INTMAX | FLAG_SIZE | FLAG_PTRDIFF;

/* ---- Output ------------------------------------------------------------------------- */

struct OutputBuffer {
    int count; /* bytes still free; below zero once a write has been refused */
    char* cur; /* where the next byte goes */
};

/* Guarded writes: one byte at a time while a byte is free. The first byte that finds no
 * room sets the running number to -1 and ends that write. */
inline void write_char_a(char ch, OutputBuffer* f, int* pnumwritten) {
    if (f->count-- > 0) {
        *f->cur++ = ch;
        ++*pnumwritten;
    } else {
        *pnumwritten = -1;
    }
}

inline void write_multi_char_a(char ch, int num, OutputBuffer* f, int* pnumwritten) {
    for (; num > 0; --num) {
        write_char_a(ch, f, pnumwritten);
        if (*pnumwritten == -1) {
            break;
        }
    }
}

inline void write_string_a(const char* string, int len, OutputBuffer* f, int* pnumwritten) {
    for (; len > 0; --len) {
        write_char_a(*string++, f, pnumwritten);
        if (*pnumwritten == -1) {
            break;
        }
    }
}

/* Away from the buffer's end a piece is stored directly; the guarded writes run only for
 * a piece that reaches the last free byte or beyond. */
inline void WritePadding(char ch, int num, OutputBuffer* f, int* pnumwritten) {
    if (num <= 0) {
        return;
    }
    if (num < f->count) {
        memset(f->cur, ch, static_cast<size_t>(num));
        f->cur += num;
        f->count -= num;
        *pnumwritten += num;
    } else {
        write_multi_char_a(ch, num, f, pnumwritten);
    }
}

inline void WriteText(const char* text, int len, OutputBuffer* f, int* pnumwritten) {
    if (len < f->count) {
        if (len > BYTEWISE_COPY_MAX) {
            memcpy(f->cur, text, static_cast<size_t>(len));
        } else {
            for (int i = 0; i < len; ++i) {
                f->cur[i] = text[i];
            }
        }
        f->cur += len;
        f->count -= len;
        *pnumwritten += len;
    } else {
        write_string_a(text, len, f, pnumwritten);
    }
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

void WriteWideText(const wchar_t* text, int bytes, OutputBuffer* f, int* pnumwritten) {
    char mb[MB_LEN_MAX];
    for (int done = 0; done < bytes && *pnumwritten != -1; ++text) {
        int n = wctomb(mb, *text);
        WriteText(mb, n, f, pnumwritten);
        done += n;
    }
}

/* Padding, prefix, text and padding, in the order the flags ask for. */
void WriteConversion(const Conversion& conv, OutputBuffer* f, int* pnumwritten) {
    long long padding = static_cast<long long>(conv.width) - conv.textLen - conv.prefixLen;
    int pad = padding > 0 ? static_cast<int>(padding) : 0;
    unsigned justify = conv.flags & (FLAG_LEFT | FLAG_LEADZERO);
    if (justify == 0) {
        WritePadding(' ', pad, f, pnumwritten);
    }
    WriteText(conv.prefix, conv.prefixLen, f, pnumwritten);
    if (justify == FLAG_LEADZERO) {
        WritePadding('0', pad, f, pnumwritten);
    }
    if (conv.isWide) {
        WriteWideText(conv.wideText, conv.textLen, f, pnumwritten);
    } else {
        WriteText(conv.text, conv.textLen, f, pnumwritten);
    }
    if ((conv.flags & FLAG_LEFT) && *pnumwritten != -1) {
        WritePadding(' ', pad, f, pnumwritten);
    }
}

/* Digits of value in the radix, right-aligned so they end at end; none for 0. */
char* FormatDecimal(uint64_t value, char* end) {
    while (value > UINT32_MAX) {
        uint64_t rest = value / 100;
        unsigned pair = static_cast<unsigned>(value - rest * 100);
        end -= 2;
        memcpy(end, decimalPairs.text + 2 * pair, 2);
        value = rest;
    }
    uint32_t small = static_cast<uint32_t>(value);
    while (small >= 100) {
        uint32_t rest = small / 100;
        unsigned pair = small - rest * 100;
        end -= 2;
        memcpy(end, decimalPairs.text + 2 * pair, 2);
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

char* FormatHex(uint64_t value, const char* digits, char* end) {
    for (; value != 0; value >>= 4) {
        *--end = digits[value & 15];
    }
    return end;
}

char* FormatOctal(uint64_t value, char* end) {
    for (; value != 0; value >>= 3) {
        *--end = static_cast<char>('0' + (value & 7));
    }
    return end;
}

/* Fetches the integer argument of d i u o x X p and makes its text in buffer. */
void ConvertInteger(Conversion& conv, char type, ArgumentList& argList, char (&buffer)[INTEGER_TEXT_SIZE]) {
    unsigned& flags = conv.flags;
    if (type == 'p') {
        conv.precision = 0;
        flags |= FLAG_I64 | FLAG_ALTERNATE | FLAG_POINTER;
    } else if (type == 'd' || type == 'i') {
        flags |= FLAG_SIGNED;
    }

    uint64_t value;
    bool is64 = (flags & FLAGS_64BIT) != 0;
    if (flags & FLAG_SIGNED) {
        int64_t signedValue;
        if (is64) {
            signedValue = va_arg(argList.ap, int64_t);
        } else if (flags & FLAG_CHAR) {
            signedValue = static_cast<signed char>(va_arg(argList.ap, int));
        } else if (flags & FLAG_SHORT) {
            signedValue = static_cast<short>(va_arg(argList.ap, int));
        } else if (flags & FLAGS_WORD_SIZED) {
            signedValue = va_arg(argList.ap, int64_t);
            is64 = true;
        } else {
            signedValue = va_arg(argList.ap, int);
        }
        value = static_cast<uint64_t>(signedValue);
        if (signedValue < 0) {
            flags |= FLAG_NEGATIVE;
            value = 0 - value;
            if (!is64) {
                value = static_cast<uint32_t>(value);
            }
        }
    } else if (is64) {
        value = va_arg(argList.ap, uint64_t);
    } else if (flags & FLAG_CHAR) {
        value = static_cast<unsigned char>(va_arg(argList.ap, unsigned));
    } else if (flags & FLAG_SHORT) {
        value = static_cast<unsigned short>(va_arg(argList.ap, unsigned));
    } else if (flags & FLAGS_WORD_SIZED) {
        value = va_arg(argList.ap, uint64_t);
    } else {
        value = va_arg(argList.ap, unsigned);
    }

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
    char* text;
    const char* letters = _itoa_lower_digits;
    switch (type) {
    case 'o':
        text = FormatOctal(value, end);
        if (flags & FLAG_ALTERNATE) {
            flags |= FLAG_FORCE_OCTAL;
        }
        break;
    case 'x':
    case 'p':
        text = FormatHex(value, letters, end);
        break;
    case 'X':
        letters = _itoa_upper_digits;
        text = FormatHex(value, letters, end);
        break;
    default:
        text = FormatDecimal(value, end);
        break;
    }
    while (end - text < conv.precision) {
        *--text = '0';
    }
    if ((flags & FLAG_FORCE_OCTAL) && (text == end || *text != '0')) {
        *--text = '0';
    }

    if ((type == 'x' || type == 'X' || type == 'p') && (flags & FLAG_ALTERNATE) && value != 0) {
        conv.prefix[0] = '0';
        conv.prefix[1] = letters[PREFIX_LETTER_INDEX];
        conv.prefixLen = 2;
    }
    if ((flags & FLAG_POINTER) && text == end) {
        text = const_cast<char*>(NULL_POINTER_TEXT);
        end = text + sizeof(NULL_POINTER_TEXT) - 1;
        flags &= ~FLAG_LEADZERO;
    }
    if (flags & FLAG_SIGNED) {
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
    }
    conv.text = text;
    conv.textLen = static_cast<int>(end - text);
}

/* Length of at most maxChars characters of text (all of it when maxChars is negative). */
int NarrowTextLength(const char* text, int maxChars) {
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

struct StarArguments {
    bool widthFromArgs;
    bool precisionFromArgs;
    int width;     /* as read */
    int precision; /* as read */
};

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
        if (buffer == NULL) {
            return;
        }
        *heapBuffer = buffer;
    }

    char localConversion[FLOAT_LOCAL_CONVERSION_SIZE];
    char* conversionCopy = localConversion;
    if (conversionLen + 1 > sizeof(localConversion)) {
        conversionCopy = static_cast<char*>(malloc(conversionLen + 1));
        if (conversionCopy == NULL) {
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
bool ConvertTextual(Conversion& conv, char type, ArgumentList& argList, char (&charBuffer)[MB_LEN_MAX]) {
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
            if (text == NULL) {
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
            if (text == NULL) {
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
        } else if (format[0] != '\0' && strchr("dioxXu", format[0]) != NULL) {
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
 * table, taking the "*" arguments as they come. On LITERAL, *literal is the character to
 * write. format ends behind the last character read. */
inline ParseOutcome ParseSpecification(const char*& format, Conversion& conv, StarArguments& stars,
                                       ArgumentList& argList, char* literal) {
    conv.flags = 0;
    conv.width = 0;
    conv.precision = -1;
    conv.prefixLen = 0;
    conv.isWide = false;
    conv.noOutput = false;
    stars.widthFromArgs = false;
    stars.precisionFromArgs = false;

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
            *literal = static_cast<char>(ch);
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
                *literal = 'I';
                return LITERAL;
            }
            break;

        default: /* STAT_INVALID */
            return REJECTED;
        }
    }
}

/* Texts up to this length are copied byte by byte as they are scanned. */
constexpr int SHORT_TEXT = 16;
/* Characters of the longest int, "-2147483648". */
constexpr int MAX_INT_TEXT = 11;

inline int DecimalDigitCount(uint32_t value) {
    int n = 1;
    for (;;) {
        if (value < 10) {
            return n;
        }
        if (value < 100) {
            return n + 1;
        }
        if (value < 1000) {
            return n + 2;
        }
        if (value < 10000) {
            return n + 3;
        }
        value /= 10000;
        n += 4;
    }
}

/* All digits of value, at least one, ending at end. */
inline void WriteDecimalDigits(uint32_t value, char* end) {
    while (value >= 100) {
        uint32_t rest = value / 100;
        unsigned pair = value - rest * 100;
        end -= 2;
        memcpy(end, decimalPairs.text + 2 * pair, 2);
        value = rest;
    }
    if (value >= 10) {
        memcpy(end - 2, decimalPairs.text + 2 * value, 2);
    } else {
        end[-1] = static_cast<char>('0' + value);
    }
}

/* Writes the conversion of a specification that is only its conversion character, for
 * d i u x X s c; returns false, taking nothing, for the others. */
inline bool WriteBareConversion(char type, ArgumentList& argList, OutputBuffer* f, int* pnumwritten) {
    char digits[24];
    char* end = digits + sizeof digits;
    char* text;
    switch (type) {
    case 'd':
    case 'i': {
        int value = va_arg(argList.ap, int);
        uint32_t magnitude = value < 0 ? 0u - static_cast<uint32_t>(value) : static_cast<uint32_t>(value);
        if (f->count > MAX_INT_TEXT) {
            /* Room for any int: the digits go straight into place. */
            char* cur = f->cur;
            if (value < 0) {
                *cur++ = '-';
            }
            cur += DecimalDigitCount(magnitude);
            WriteDecimalDigits(magnitude, cur);
            int len = static_cast<int>(cur - f->cur);
            f->cur = cur;
            f->count -= len;
            *pnumwritten += len;
            return true;
        }
        text = value == 0 ? end - 1 : FormatDecimal(magnitude, end);
        if (value == 0) {
            *text = '0';
        }
        if (value < 0) {
            *--text = '-';
        }
        break;
    }
    case 'u': {
        unsigned value = va_arg(argList.ap, unsigned);
        text = value == 0 ? end - 1 : FormatDecimal(value, end);
        if (value == 0) {
            *text = '0';
        }
        break;
    }
    case 'x':
    case 'X': {
        unsigned value = va_arg(argList.ap, unsigned);
        text = value == 0 ? end - 1
                          : FormatHex(value, type == 'x' ? _itoa_lower_digits : _itoa_upper_digits, end);
        if (value == 0) {
            *text = '0';
        }
        break;
    }
    case 's': {
        const char* string = va_arg(argList.ap, const char*);
        if (string == NULL) {
            string = STR_NULL_STRING;
        }
        if (f->count > SHORT_TEXT) {
            /* Short texts are copied while they are scanned; a longer one goes on by
             * length and block copy. */
            int i = 0;
            while (i < SHORT_TEXT && string[i] != '\0') {
                f->cur[i] = string[i];
                ++i;
            }
            f->cur += i;
            f->count -= i;
            *pnumwritten += i;
            if (string[i] == '\0') {
                return true;
            }
            string += i;
        }
        size_t len = strlen(string);
        WriteText(string, len < INT_MAX ? static_cast<int>(len) : INT_MAX, f, pnumwritten);
        return true;
    }
    case 'c':
        write_char_a(static_cast<char>(va_arg(argList.ap, int)), f, pnumwritten);
        return true;
    default:
        return false;
    }
    WriteText(text, static_cast<int>(end - text), f, pnumwritten);
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
    OutputBuffer out = *stream;
    int written = 0;
    int result = -1;
    Conversion conv{};
    StarArguments stars{};
    char integerText[INTEGER_TEXT_SIZE];
    char charText[MB_LEN_MAX];
    char floatText[FLOAT_LOCAL_BUFFER_SIZE];

    for (;;) {
        /* Plain text up to the next specification: its first bytes are copied as they
         * are scanned, while a byte stays free behind them; a longer run is measured and
         * written as one piece. */
        if (*format != '\0' && *format != '%') {
            const int room = out.count - 1;
            int i = 0;
            while (i < SHORT_TEXT && i < room && format[i] != '\0' && format[i] != '%') {
                out.cur[i] = format[i];
                ++i;
            }
            out.cur += i;
            out.count -= i;
            written += i;
            format += i;
            if (*format != '\0' && *format != '%') {
                const char* end = bounded::FindOrEnd(format, '%');
                WriteText(format, static_cast<int>(end - format), &out, &written);
                format = end;
                if (written == -1) {
                    break;
                }
            }
        }
        if (*format == '\0') {
            result = written;
            break;
        }

        const char* conversionStart = format++;
        /* A conversion character straight after the "%" is the common case: no flags,
         * width, precision or size. Its text is made and written without the general
         * machinery; the result is the same. */
        const unsigned char bare = static_cast<unsigned char>(*format);
        if (formatTransitions.next[STAT_PERCENT][formatClasses.of[bare]] == STAT_TYPE &&
            WriteBareConversion(static_cast<char>(bare), argList, &out, &written)) {
            ++format;
            if (written == -1) {
                break;
            }
            continue;
        }
        char literal;
        ParseOutcome parsed = ParseSpecification(format, conv, stars, argList, &literal);
        if (parsed == REJECTED) {
            break;
        }
        if (parsed == LITERAL) {
            write_char_a(literal, &out, &written);
            if (written == -1) {
                break;
            }
            continue;
        }

        /* At this point the conversion from conversionStart to format is parsed:
         *   conv.flags      the flag characters and length modifiers seen;
         *   conv.width      0 when not given; never negative unless "*" gave INT_MIN;
         *   conv.precision  -1 when not given;
         *   stars           the "*" values as read, for the platform formatter;
         * and format[-1] is the conversion character. Now fetch its argument, make its
         * text, then write it. */
        const char type = format[-1];
        char* heapText = NULL;
        switch (type) {
        case 'd':
        case 'i':
        case 'u':
        case 'o':
        case 'x':
        case 'X':
        case 'p':
            ConvertInteger(conv, type, argList, integerText);
            break;
        case 's':
        case 'S':
        case 'c':
        case 'C':
            if (!ConvertTextual(conv, type, argList, charText)) {
                written = -1; /* a wide text that does not convert fails the call */
                conv.noOutput = true;
            }
            break;
        default: /* e E f F g G */
            ConvertFloat(conv, type, conversionStart, static_cast<size_t>(format - conversionStart), stars,
                         argList, floatText, &heapText);
            break;
        }
        if (!conv.noOutput) {
            WriteConversion(conv, &out, &written);
        }
        if (heapText != NULL) {
            free(heapText);
        }
        if (written == -1) {
            break;
        }
    }
    va_end(argList.ap);
    *stream = out;
    return result;
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
    if (string != NULL) {
        string[size - 1] = '\0';
    }
    return buffer.count <= 0 ? -2 : -1;
}

extern "C" int vsnprintf_s(char* dest, size_t destMax, size_t count, const char* format, va_list argList) {
    if (format == NULL || dest == NULL || destMax == 0 || destMax > BOUNDED_MAX_LEN ||
        (count >= BOUNDED_MAX_LEN && count != SIZE_MAX)) {
        if (dest != NULL && destMax != 0) {
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
