/* Immutable strings of UTF-16 units, and the Mac Roman and UTF-8 encodings. */
#include "cf/PlatCF.h"

#include <cstring>
#include <mutex>
#include <unordered_map>

struct __CFString {
    PlatCFBase base;
    std::u16string characters;
};

namespace {

using StringKind = PlatCFKind<__CFString>;

/* ---- Mac Roman: bytes 0x80-0xFF (0x00-0x7F are ASCII) ---- */
const UniChar kMacRomanHigh[128] = {
    0x00C4, 0x00C5, 0x00C7, 0x00C9, 0x00D1, 0x00D6, 0x00DC, 0x00E1, 0x00E0, 0x00E2, 0x00E4, 0x00E3, 0x00E5,
    0x00E7, 0x00E9, 0x00E8, 0x00EA, 0x00EB, 0x00ED, 0x00EC, 0x00EE, 0x00EF, 0x00F1, 0x00F3, 0x00F2, 0x00F4,
    0x00F6, 0x00F5, 0x00FA, 0x00F9, 0x00FB, 0x00FC, 0x2020, 0x00B0, 0x00A2, 0x00A3, 0x00A7, 0x2022, 0x00B6,
    0x00DF, 0x00AE, 0x00A9, 0x2122, 0x00B4, 0x00A8, 0x2260, 0x00C6, 0x00D8, 0x221E, 0x00B1, 0x2264, 0x2265,
    0x00A5, 0x00B5, 0x2202, 0x2211, 0x220F, 0x03C0, 0x222B, 0x00AA, 0x00BA, 0x03A9, 0x00E6, 0x00F8, 0x00BF,
    0x00A1, 0x00AC, 0x221A, 0x0192, 0x2248, 0x2206, 0x00AB, 0x00BB, 0x2026, 0x00A0, 0x00C0, 0x00C3, 0x00D5,
    0x0152, 0x0153, 0x2013, 0x2014, 0x201C, 0x201D, 0x2018, 0x2019, 0x00F7, 0x25CA, 0x00FF, 0x0178, 0x2044,
    0x20AC, 0x2039, 0x203A, 0xFB01, 0xFB02, 0x2021, 0x00B7, 0x201A, 0x201E, 0x2030, 0x00C2, 0x00CA, 0x00C1,
    0x00CB, 0x00C8, 0x00CD, 0x00CE, 0x00CF, 0x00CC, 0x00D3, 0x00D4, 0xF8FF, 0x00D2, 0x00DA, 0x00DB, 0x00D9,
    0x0131, 0x02C6, 0x02DC, 0x00AF, 0x02D8, 0x02D9, 0x02DA, 0x00B8, 0x02DD, 0x02DB, 0x02C7};

} // namespace

void PlatCFDecodeMacRoman(std::string_view bytes, std::u16string& out) {
    out.clear();
    out.reserve(bytes.size());
    for (unsigned char byte : bytes) {
        out.push_back(byte < 0x80 ? byte : kMacRomanHigh[byte - 0x80]);
    }
}

namespace {

/* The Mac Roman byte for a UTF-16 unit, or -1 when Mac Roman has none. */
int EncodeMacRoman(char16_t unit) {
    if (unit < 0x80) {
        return unit;
    }
    for (int i = 0; i < 128; ++i) {
        if (kMacRomanHigh[i] == unit) {
            return 0x80 + i;
        }
    }
    return -1;
}

} // namespace

/* ---- UTF-8 ---- */
bool PlatCFDecodeUTF8(std::string_view bytes, std::u16string& out) {
    out.clear();
    out.reserve(bytes.size());
    size_t i = 0;
    while (i < bytes.size()) {
        unsigned char lead = bytes[i];
        if (lead < 0x80) {
            out.push_back(lead);
            ++i;
            continue;
        }
        size_t extra;
        char32_t value, minimum;
        if ((lead & 0xE0) == 0xC0) {
            extra = 1, value = lead & 0x1F, minimum = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            extra = 2, value = lead & 0x0F, minimum = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            extra = 3, value = lead & 0x07, minimum = 0x10000;
        } else {
            return false;
        }
        if (bytes.size() - i <= extra) {
            return false;
        }
        for (size_t k = 1; k <= extra; ++k) {
            unsigned char next = bytes[i + k];
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            value = (value << 6) | (next & 0x3F);
        }
        if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
            return false;
        }
        if (value >= 0x10000) {
            value -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (value >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (value & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(value));
        }
        i += extra + 1;
    }
    return true;
}

namespace {

/* Appends the UTF-8 form of the units; an unpaired surrogate is written as
 * U+FFFD when lenient, else the conversion fails. */
bool EncodeUTF8(const std::u16string& units, std::string& out, bool lenient) {
    for (size_t i = 0; i < units.size(); ++i) {
        char32_t value = units[i];
        if (value >= 0xD800 && value <= 0xDFFF) {
            bool paired =
                value < 0xDC00 && i + 1 < units.size() && units[i + 1] >= 0xDC00 && units[i + 1] <= 0xDFFF;
            if (paired) {
                value = 0x10000 + ((value - 0xD800) << 10) + (units[i + 1] - 0xDC00);
                ++i;
            } else if (lenient) {
                value = 0xFFFD;
            } else {
                return false;
            }
        }
        if (value < 0x80) {
            out.push_back(static_cast<char>(value));
        } else if (value < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (value >> 6)));
            out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
        } else if (value < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (value >> 12)));
            out.push_back(static_cast<char>(0x80 | ((value >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (value >> 18)));
            out.push_back(static_cast<char>(0x80 | ((value >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((value >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
        }
    }
    return true;
}

/* ---- Creation ---- */
__CFString* NewString(std::u16string characters) {
    __CFString* string = StringKind::New();
    string->characters = std::move(characters);
    return string;
}

} // namespace

CFStringRef PlatCFStringCreateWithCharacters(std::u16string characters) {
    return NewString(std::move(characters));
}

CFStringRef PlatCFStringCreateWithUTF8(std::string_view utf8) {
    std::u16string characters;
    if (!PlatCFDecodeUTF8(utf8, characters)) {
        return nullptr;
    }
    return NewString(std::move(characters));
}

CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char* cStr, CFStringEncoding encoding) {
    if (cStr == nullptr) {
        return nullptr;
    }
    std::string_view bytes(cStr);
    std::u16string characters;
    switch (encoding) {
    case kCFStringEncodingMacRoman:
        PlatCFDecodeMacRoman(bytes, characters);
        break;
    case kCFStringEncodingASCII:
        for (unsigned char byte : bytes) {
            if (byte >= 0x80) {
                return nullptr;
            }
            characters.push_back(byte);
        }
        break;
    case kCFStringEncodingUTF8:
        if (!PlatCFDecodeUTF8(bytes, characters)) {
            return nullptr;
        }
        break;
    default:
        return nullptr;
    }
    return NewString(std::move(characters));
}

/* Constant strings live as long as the process and are shared by text, so that
 * the same CFSTR in two places is one object. */
CFStringRef __CFStringMakeConstantString(const char* cStr) {
    static std::mutex lock;
    static auto* constants = new std::unordered_map<std::string, __CFString*>;
    if (cStr == nullptr) {
        return nullptr;
    }
    std::lock_guard<std::mutex> guard(lock);
    auto found = constants->find(cStr);
    if (found != constants->end()) {
        return found->second;
    }
    std::u16string characters;
    if (!PlatCFDecodeUTF8(cStr, characters)) {
        PlatCFDecodeMacRoman(cStr, characters);
    }
    __CFString* string = NewString(std::move(characters));
    string->base.immortal = true;
    constants->emplace(cStr, string);
    return string;
}

/* ---- Access ---- */
const std::u16string* PlatCFStringCharacters(CFStringRef string) {
    const __CFString* object = StringKind::Cast(string);
    return object == nullptr ? nullptr : &object->characters;
}

std::string PlatCFStringToUTF8(CFStringRef string) {
    std::string text;
    if (const __CFString* object = StringKind::Cast(string)) {
        EncodeUTF8(object->characters, text, true);
    }
    return text;
}

Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2) {
    if (cf1 == nullptr || cf2 == nullptr) {
        return false;
    }
    const __CFString* a = StringKind::Cast(cf1);
    const __CFString* b = StringKind::Cast(cf2);
    return cf1 == cf2 || (a != nullptr && b != nullptr && a->characters == b->characters);
}

CFIndex CFStringGetLength(CFStringRef theString) {
    const __CFString* object = StringKind::Cast(theString);
    return object == nullptr ? 0 : static_cast<CFIndex>(object->characters.size());
}

CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding) {
    if (length < 0) {
        return 0;
    }
    switch (encoding) {
    case kCFStringEncodingMacRoman:
    case kCFStringEncodingASCII:
        return length;
    case kCFStringEncodingUTF8:
        return length * 3; /* a surrogate pair, two units, takes four bytes */
    default:
        return 0;
    }
}

Boolean CFStringGetCString(CFStringRef theString, char* buffer, CFIndex bufferSize,
                           CFStringEncoding encoding) {
    const __CFString* object = StringKind::Cast(theString);
    if (buffer == nullptr || bufferSize <= 0) {
        return false;
    }
    buffer[0] = '\0';
    if (object == nullptr) {
        return false;
    }
    std::string bytes;
    switch (encoding) {
    case kCFStringEncodingMacRoman:
    case kCFStringEncodingASCII:
        for (char16_t unit : object->characters) {
            int byte = encoding == kCFStringEncodingASCII ? (unit < 0x80 ? unit : -1) : EncodeMacRoman(unit);
            if (byte < 0) {
                return false;
            }
            bytes.push_back(static_cast<char>(byte));
        }
        break;
    case kCFStringEncodingUTF8:
        if (!EncodeUTF8(object->characters, bytes, false)) {
            return false;
        }
        break;
    default:
        return false;
    }
    /* A zero unit would cut the C text short; such a string has no C form. */
    if (bytes.find('\0') != std::string::npos) {
        return false;
    }
    if (static_cast<CFIndex>(bytes.size()) >= bufferSize) {
        return false;
    }
    std::memcpy(buffer, bytes.c_str(), bytes.size() + 1);
    return true;
}
