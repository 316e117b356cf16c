/* Reader of .strings tables: "key" = "value"; entries with C-style escapes,
 * comments, in UTF-8 or in UTF-16 with a byte-order mark. A table that does not
 * parse is refused whole, so that a broken file shows the keys' fallbacks rather
 * than half of its texts. */
#include "cf/PlatCF.h"

namespace {

/* The text of the file as UTF-16 units. No mark: UTF-8, else (older tables) Mac Roman. */
bool DecodeTableText(std::string_view bytes, std::u16string& text) {
    text.clear();
    auto unit = [&](size_t i, bool bigEndian) {
        unsigned char a = bytes[i], b = bytes[i + 1];
        return static_cast<char16_t>(bigEndian ? (a << 8) | b : (b << 8) | a);
    };
    if (bytes.size() >= 2 &&
        ((bytes[0] == '\xFF' && bytes[1] == '\xFE') || (bytes[0] == '\xFE' && bytes[1] == '\xFF'))) {
        bool bigEndian = bytes[0] == '\xFE';
        if (bytes.size() % 2 != 0) {
            return false;
        }
        for (size_t i = 2; i < bytes.size(); i += 2) {
            text.push_back(unit(i, bigEndian));
        }
        return true;
    }
    if (bytes.size() >= 3 && bytes.substr(0, 3) == "\xEF\xBB\xBF") {
        bytes.remove_prefix(3);
    }
    if (!PlatCFDecodeUTF8(bytes, text)) {
        PlatCFDecodeMacRoman(bytes, text);
    }
    return true;
}

/* Characters that may stand in an unquoted key or value, as in the old property lists. */
bool IsBareChar(char16_t c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '$' || c == '+' || c == '/' || c == ':' || c == '.' || c == '-';
}

int HexValue(char16_t c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

/* A NUL or a half of a surrogate pair without its other half (written with \U, or in a
 * UTF-16 file) would end or break the text where it is shown: it becomes U+FFFD, and the
 * rest of the text stays. */
void ReplaceUnshowable(std::u16string& text) {
    for (size_t i = 0; i < text.size(); i++) {
        bool high = text[i] >= 0xD800 && text[i] <= 0xDBFF;
        bool low = text[i] >= 0xDC00 && text[i] <= 0xDFFF;
        if (high && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            i++;
        } else if (text[i] == 0 || high || low) {
            text[i] = 0xFFFD;
        }
    }
}

struct Parser {
    const std::u16string& text;
    size_t pos = 0;

    bool AtEnd() const { return pos >= text.size(); }

    /* Skips blanks and comments. False for a comment that never ends. */
    bool SkipSpace() {
        while (!AtEnd()) {
            char16_t c = text[pos];
            if (c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v' || c == 0xFEFF ||
                c == 0x2028 || c == 0x2029) {
                ++pos;
            } else if (c == '/' && pos + 1 < text.size() && text[pos + 1] == '*') {
                size_t end = text.find(u"*/", pos + 2);
                if (end == std::u16string::npos) {
                    return false;
                }
                pos = end + 2;
            } else if (c == '/' && pos + 1 < text.size() && text[pos + 1] == '/') {
                while (!AtEnd() && text[pos] != '\n' && text[pos] != '\r') {
                    ++pos;
                }
            } else {
                break;
            }
        }
        return true;
    }

    /* A quoted or bare string at pos. */
    bool ReadString(std::u16string& out) {
        out.clear();
        if (AtEnd()) {
            return false;
        }
        if (text[pos] != '"') {
            while (!AtEnd() && IsBareChar(text[pos])) {
                out.push_back(text[pos++]);
            }
            return !out.empty();
        }
        ++pos;
        while (!AtEnd()) {
            char16_t c = text[pos++];
            if (c == '"') {
                return true;
            }
            if (c != '\\') {
                out.push_back(c);
                continue;
            }
            if (AtEnd()) {
                return false;
            }
            char16_t e = text[pos++];
            switch (e) {
            case 'n':
                out.push_back('\n');
                break;
            case 't':
                out.push_back('\t');
                break;
            case 'r':
                out.push_back('\r');
                break;
            case 'a':
                out.push_back('\a');
                break;
            case 'b':
                out.push_back('\b');
                break;
            case 'f':
                out.push_back('\f');
                break;
            case 'v':
                out.push_back('\v');
                break;
            case 'U':
            case 'u': {
                /* \U followed by up to four hexadecimal digits: one UTF-16 unit. */
                unsigned value = 0;
                int digits = 0;
                while (digits < 4 && !AtEnd() && HexValue(text[pos]) >= 0) {
                    value = value * 16 + HexValue(text[pos++]);
                    ++digits;
                }
                if (digits == 0) {
                    return false;
                }
                out.push_back(static_cast<char16_t>(value));
                break;
            }
            default:
                if (e >= '0' && e <= '7') {
                    unsigned value = e - '0';
                    for (int digits = 1; digits < 3 && !AtEnd() && text[pos] >= '0' && text[pos] <= '7';
                         ++digits) {
                        value = value * 8 + (text[pos++] - '0');
                    }
                    out.push_back(static_cast<char16_t>(value & 0xFF));
                } else {
                    out.push_back(e); /* \" \\ \' and any other character stand for themselves */
                }
            }
        }
        return false;
    }

    /* Entries up to the end of the text, or up to "}" when inside braces. */
    bool ReadEntries(PlatCFStringsTable& table, bool braced) {
        std::u16string key, value;
        for (;;) {
            if (!SkipSpace()) {
                return false;
            }
            if (AtEnd()) {
                return !braced;
            }
            if (braced && text[pos] == '}') {
                ++pos;
                return true;
            }
            if (!ReadString(key) || !SkipSpace() || AtEnd()) {
                return false;
            }
            if (text[pos] == ';') {
                /* "key"; alone maps the key to itself. */
                ++pos;
                table[key] = key;
                continue;
            }
            if (text[pos] != '=') {
                return false;
            }
            ++pos;
            if (!SkipSpace() || !ReadString(value) || !SkipSpace() || AtEnd() || text[pos] != ';') {
                return false;
            }
            ++pos;
            ReplaceUnshowable(value);
            table[key] = value;
        }
    }
};

} // namespace

bool PlatCFParseStringsTable(std::string_view bytes, PlatCFStringsTable& table) {
    table.clear();
    std::u16string text;
    if (!DecodeTableText(bytes, text)) {
        return false;
    }
    Parser parser{text};
    bool ok;
    if (!parser.SkipSpace()) {
        ok = false;
    } else if (!parser.AtEnd() && text[parser.pos] == '{') {
        ++parser.pos;
        ok = parser.ReadEntries(table, true) && parser.SkipSpace() && parser.AtEnd();
    } else {
        ok = parser.ReadEntries(table, false);
    }
    if (!ok) {
        table.clear();
    }
    return ok;
}
