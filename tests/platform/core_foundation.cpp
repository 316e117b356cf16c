// Text encodings and localised strings. (The launcher's windows find its nib and picture.)
#include "support.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

using namespace ptest;

namespace {

// High Mac Roman bytes both ways; a buffer one byte short of text and terminator is refused
// and not overrun.
TEST(CFString, MacRomanBothWaysAndShortBuffers) {
    const char roman[] = "\x80\xA5\xC9\xCA\xD2\xDB\xF0\xFF", utf8[] = "Ä•…\u00A0“€\uF8FFˇ";
    CFStringRef string = CFStringCreateWithCString(nullptr, roman, kCFStringEncodingMacRoman);
    EXPECT_EQ(UTF8(string), utf8);
    std::string buffer(sizeof utf8, '#');
    EXPECT_FALSE(CFStringGetCString(string, buffer.data(), sizeof roman - 1, kCFStringEncodingMacRoman));
    EXPECT_EQ(buffer[sizeof roman - 1], '#');
    EXPECT_FALSE(CFStringGetCString(string, buffer.data(), sizeof utf8 - 1, kCFStringEncodingUTF8));
    EXPECT_EQ(buffer[sizeof utf8 - 1], '#');
    ASSERT_TRUE(CFStringGetCString(string, buffer.data(), sizeof roman, kCFStringEncodingMacRoman));
    EXPECT_STREQ(buffer.c_str(), roman);
    // Equal by the characters, whatever the encoding they came in.
    CFStringRef same = Str(utf8), other = Str("Ä•…");
    EXPECT_TRUE(CFEqual(string, same));
    EXPECT_FALSE(CFEqual(string, other));
    EXPECT_FALSE(CFEqual(string, nullptr));
    Release({string, same, other});
}

// The language comes from LC_ALL, LC_MESSAGES or LANG; each test sets all three.
void SetLocale(const char* all, const char* messages, const char* lang) {
    const char* names[] = {"LC_ALL", "LC_MESSAGES", "LANG"};
    const char* values[] = {all, messages, lang};
    for (int i = 0; i < 3; ++i)
        values[i] ? setenv(names[i], values[i], 1) : unsetenv(names[i]);
}

// The text of key in table "custom", with value (else the key) as the fallback.
std::string Localized(const char* key, const char* value = nullptr) {
    CFStringRef keyString = Str(key), valueString = Str(value);
    CFStringRef text =
        CFBundleCopyLocalizedString(CFBundleGetMainBundle(), keyString, valueString, CFSTR("custom"));
    std::string result = UTF8(text);
    Release({text, keyString, valueString});
    return result;
}

TEST(CFBundle, LocalizedStringsFollowTheLanguageThenEnglish) {
    TempBundle bundle;
    bundle.Put("de.lproj/custom.strings", "\"A\" = \"de\";\n");
    bundle.Put("German.lproj/custom.strings", "\"A\" = \"German\";\n\"B\" = \"German\";\n");
    bundle.Put("fr.lproj/custom.strings", "\"A\" = \"fr\";\n");
    bundle.Put("en.lproj/custom.strings", "\"A\" = \"en\";\n\"B\" = \"en\";\n\"C\" = \"en\";\n");
    bundle.Put("English.lproj/custom.strings", "\"A\" = \"English\";\n\"D\" = \"English\";\n");
    struct {
        const char *all, *messages, *lang, *expected; // keys A, B, C, D, E
    } cases[] = {
        {nullptr, nullptr, "de_DE.UTF-8", "de German en English E"},
        {nullptr, "fr_FR", "de_DE.UTF-8", "fr en en English E"},
        {"de", "fr_FR", "fr_FR", "de German en English E"},
        {"C", nullptr, "de_DE.UTF-8", "en en en English E"},
        {"", "", "ja_JP.eucJP", "en en en English E"},
    };
    for (const auto& c : cases) {
        SetLocale(c.all, c.messages, c.lang);
        std::string texts;
        for (const char* key : {"A", "B", "C", "D", "E"})
            texts += (texts.empty() ? "" : " ") + Localized(key);
        EXPECT_EQ(texts, c.expected) << (c.all ? c.all : "-") << " " << (c.messages ? c.messages : "-") << " "
                                     << (c.lang ? c.lang : "-");
    }
    // A pipe or a device in a table's place reads as no table, at once.
    std::string pipe = bundle.Resources() + "/de.lproj/custom.strings";
    std::remove(pipe.c_str());
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::string device = bundle.Resources() + "/English.lproj/custom.strings";
    std::remove(device.c_str());
    ASSERT_EQ(symlink("/dev/zero", device.c_str()), 0);
    SetLocale(nullptr, nullptr, "de_DE.UTF-8");
    EXPECT_EQ(Localized("A") + " " + Localized("D"), "German D");
    SetLocale(nullptr, nullptr, "en_US.UTF-8");
    EXPECT_EQ(Localized("INSTALL_DRIVER", "fallback"), "fallback");
}

std::string UTF16(const std::u16string& text, bool bigEndian) {
    std::string bytes = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (char16_t unit : text) {
        char high = static_cast<char>(unit >> 8), low = static_cast<char>(unit & 0xFF);
        bytes += bigEndian ? std::string{high, low} : std::string{low, high};
    }
    return bytes;
}

TEST(StringsFile, EscapesCommentsAndEncodings) {
    SetLocale(nullptr, nullptr, "de_DE.UTF-8");
    TempBundle bundle;
    struct {
        const char *line, *key, *text;
    } cases[] = {
        {"/* Dialog texts.\n   \"NOT\" = \"a key\"; */", "NOT", "NOT"},
        {"// \"LINE\" = \"commented out\";", "LINE", "LINE"},
        {"\"quote\" = \"say \\\"yes\\\"\";", "quote", "say \"yes\""},
        {"\"slash\"=\"a\\\\b\"; // trailing comment", "slash", "a\\b"},
        {"\"lines\" = \"one\\ntwo\\tthree\";", "lines", "one\ntwo\tthree"},
        {"\"unicode\" = \"\\U00e9\\U20AC \\UD83D\\UDE00\";", "unicode",
         "\xC3\xA9\xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"\"url\" = \"http://x//y /* not a comment */\";", "url", "http://x//y /* not a comment */"},
        {"bare_key = bare.value;", "bare_key", "bare.value"},
        {"\"twice\" = \"first\";\n\"twice\" = \"second\";", "twice", "second"},
        // What cannot be shown becomes U+FFFD and the rest of the text stays.
        {"\"lone\" = \"a\\UD83Db \\UDE00c\";", "lone",
         "a\xEF\xBF\xBD"
         "b \xEF\xBF\xBD"
         "c"},
        {"\"nul\" = \"before\\U0000after\";", "nul",
         "before\xEF\xBF\xBD"
         "after"},
    };
    std::string table;
    for (const auto& c : cases)
        table += std::string(c.line) + "\n";
    bundle.Put("de.lproj/custom.strings", table);
    for (const auto& c : cases)
        EXPECT_EQ(Localized(c.key), c.text) << c.line;

    // UTF-16 either way round, by its byte-order mark.
    bundle.Put("de.lproj/custom.strings", UTF16(u"/* \u6CE8 */\n\"k\" = \"\u30C9\\\"\";\n", true));
    EXPECT_EQ(Localized("k"), "\xE3\x83\x89\"");
    bundle.Put("de.lproj/custom.strings", UTF16(u"\"k\" = \"little \u00E9\";\n", false));
    EXPECT_EQ(Localized("k"), "little \xC3\xA9");
    bundle.Put("de.lproj/custom.strings", UTF16(std::u16string(u"\"k\" = \"x\xD800y\0z\";\n", 15), false));
    EXPECT_EQ(Localized("k"), "x\xEF\xBF\xBDy\xEF\xBF\xBDz");

    // A broken table is left out whole: every key falls back to English.
    bundle.Put("en.lproj/custom.strings", "\"A\" = \"en\";\n");
    for (const char* broken :
         {"\"A\" = \"de\";\n\"B\" = \"unterminated;\n", "\"A\" = \"de\";\n\"B\" = \"x\"\n",
          "\"A\" = \"de\";\n/* never ends\n", "\xFF\xFE\x22\x00\x41"}) {
        bundle.Put("de.lproj/custom.strings", broken);
        EXPECT_EQ(Localized("A"), "en") << broken;
    }
}

} // namespace
