// vsnprintf_s on fuzzed formats into small heap destinations of exactly destMax bytes.
//
// Every argument slot holds a value that is safe whatever conversion reads it: null, or an
// address in a region mapped here whose low 32 bits are a small positive or negative int
// (so "*" gives a modest width) and which points at a text that is both a terminated wide
// text and a terminated narrow one. The format is cut so that it cannot consume more slots
// than are passed. Checked: no byte written past destMax (AddressSanitizer), the text is
// always terminated, and result and text agree with the same format run on a roomy buffer.
#include "bounded/bounded.h"

#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <wchar.h>

#include <string>
#include <vector>

namespace {

// Where the argument region lies: above AddressSanitizer's shadow memory and below its
// allocator (0x600000000000), with the low 32 bits of the base zero. Set by MapRegion.
uintptr_t REGION = 0;
const size_t PAGE = 4096;
// A "%" can take two "*" values and a long double (two slots and one for alignment).
const int MAX_SPECIFICATIONS = 12;
const int SLOTS = 64;
const size_t MAX_FORMAT = 160;

// Two pages: one at REGION (ints 0 to 4095) and one just below REGION + 4 GiB (ints -4096
// to -1), each filled with short wide texts ("ab", "", "c", ...), which read as narrow
// texts are their first character.
bool MapRegion() {
    static bool mapped = [] {
        for (uintptr_t candidate = 0x520000000000ULL; candidate < 0x600000000000ULL;
             candidate += 0x10000000000ULL) {
            bool ok = true;
            for (uintptr_t base : {candidate, uintptr_t(candidate + 0x100000000ULL - PAGE)}) {
                void* p = mmap(reinterpret_cast<void*>(base), PAGE, PROT_READ | PROT_WRITE,
                               MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
                if (p != reinterpret_cast<void*>(base)) {
                    if (p != MAP_FAILED) {
                        munmap(p, PAGE);
                    }
                    ok = false;
                    break;
                }
                wchar_t* text = static_cast<wchar_t*>(p);
                const wchar_t pattern[] = {L'a', L'b', 0, L'c', 0, 0, L'x', L'y', L'z', 0xE9, 0, L'%', 0};
                size_t n = PAGE / sizeof(wchar_t);
                for (size_t i = 0; i < n; ++i) {
                    text[i] = pattern[i % (sizeof pattern / sizeof pattern[0])];
                }
                text[n - 1] = 0;
            }
            if (ok) {
                REGION = candidate;
                return true;
            }
        }
        return false;
    }();
    return mapped;
}

uintptr_t Slot(uint32_t choice) {
    switch (choice % 4) {
    case 0:
        return 0;
    case 1:
    case 2:
        return REGION + (choice >> 2) % 64 * sizeof(wchar_t);
    default:
        return REGION + 0x100000000ULL - (choice >> 2) % 64 * sizeof(wchar_t) - sizeof(wchar_t);
    }
}

int Run(char* dest, size_t destMax, size_t count, const char* format, const uintptr_t* s, ...) {
    va_list args;
    va_start(args, s);
    int result = vsnprintf_s(dest, destMax, count, format, args);
    va_end(args);
    return result;
}

// The doubles fill the vector registers; everything else reads the integer slots, in
// registers and then on the stack, where the doubles beyond eight find slot values too.
#define SLOTS_8(b) s[b], s[b + 1], s[b + 2], s[b + 3], s[b + 4], s[b + 5], s[b + 6], s[b + 7]
int Format(char* dest, size_t destMax, size_t count, const char* format, const uintptr_t* s) {
    return Run(dest, destMax, count, format, s, 1.5, -0.0, 1e300, 0.1, -2.5, 123.456, 5e-324, 7.0, SLOTS_8(0),
               SLOTS_8(8), SLOTS_8(16), SLOTS_8(24), SLOTS_8(32), SLOTS_8(40), SLOTS_8(48), SLOTS_8(56));
}

// A floating conversion with a width or precision of millions has the platform's formatter
// write millions of characters, seconds per input. Numbers the engine accepts are kept
// small; the ones it refuses for their size stay, so that refusal is still exercised.
const unsigned long MAX_FUZZED_NUMBER = 4096;
const unsigned long LARGEST_ACCEPTED_NUMBER = 214748369;

void CapNumbers(std::string& format) {
    for (size_t start = 0; start < format.size();) {
        size_t end = start;
        unsigned long value = 0;
        while (end < format.size() && format[end] >= '0' && format[end] <= '9') {
            if (value <= LARGEST_ACCEPTED_NUMBER) {
                value = value * 10 + static_cast<unsigned long>(format[end] - '0');
            }
            ++end;
        }
        if (value > MAX_FUZZED_NUMBER && value <= LARGEST_ACCEPTED_NUMBER) {
            format.erase(start + 3, end - start - 3); // three digits stay below the cap
            end = start + 3;
        }
        start = end > start ? end : start + 1;
    }
}

void Check(bool condition) {
    if (!condition) {
        abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (!MapRegion()) {
        abort(); // without the region no argument would be safe to read
    }
    if (size < 4) {
        return 0;
    }
    size_t destMax = 1 + data[0] % 48;
    size_t count;
    switch (data[1] & 7) {
    case 0:
    case 1:
    case 2:
        count = (data[1] >> 3) % destMax;
        break;
    case 3:
        count = destMax - 1;
        break;
    case 4:
        count = destMax;
        break;
    case 5:
        count = SIZE_MAX;
        break;
    case 6:
        count = destMax + (data[1] >> 3);
        break;
    default:
        count = BOUNDED_MAX_LEN; // not a valid limit
        break;
    }
    uintptr_t slots[SLOTS];
    uint32_t seed = data[2] | (static_cast<uint32_t>(data[3]) << 8);
    for (int i = 0; i < SLOTS; ++i) {
        seed = seed * 1103515245u + 12345u;
        slots[i] = Slot(seed >> 8);
    }

    // The format: the rest of the input up to a zero byte, with at most
    // MAX_SPECIFICATIONS per cent signs.
    std::string format;
    int percents = 0;
    for (size_t i = 4; i < size && data[i] != 0 && format.size() < MAX_FORMAT; ++i) {
        if (data[i] == '%' && ++percents > MAX_SPECIFICATIONS) {
            break;
        }
        format += static_cast<char>(data[i]);
    }
    CapNumbers(format);

    // The reference: the same format on a roomy buffer, cutting rather than refusing.
    const size_t roomy = 8192;
    std::vector<char> full(roomy);
    int fullResult = Format(full.data(), roomy, roomy - 1, format.c_str(), slots);

    char* dest = new char[destMax];
    memset(dest, '#', destMax);
    int result = Format(dest, destMax, count, format.c_str(), slots);

    Check(result >= -1);
    Check(memchr(dest, '\0', destMax) != nullptr); // always terminated
    bool truncating = count < destMax;
    if (count == BOUNDED_MAX_LEN) {
        Check(result == -1 && dest[0] == '\0');
    } else if (fullResult >= 0) {
        // The whole text is known: both forms must agree with it exactly.
        size_t len = static_cast<size_t>(fullResult);
        size_t limit = truncating ? count : destMax - 1;
        if (len <= limit) {
            Check(result == fullResult);
            Check(memcmp(dest, full.data(), len + 1) == 0);
        } else {
            Check(result == -1);
            if (truncating) {
                Check(memcmp(dest, full.data(), count) == 0 && dest[count] == '\0');
            } else {
                Check(dest[0] == '\0');
            }
        }
    } else if (full[0] != '\0') {
        // Longer than the roomy buffer: cut the same way, or refused as a whole.
        Check(result == -1);
        if (truncating) {
            Check(memcmp(dest, full.data(), count) == 0 && dest[count] == '\0');
        } else {
            Check(dest[0] == '\0');
        }
    } else {
        // Rejected (or a text that begins with a zero character and then ran out).
        Check(result == -1);
    }
    delete[] dest;
    return 0;
}
