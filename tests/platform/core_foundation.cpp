// Text encodings, the main bundle's paths and URL text, resources and localised strings.
#include "support.h"

#include <cstdlib>
#include <cstring>
#include <optional>

using namespace ptest;

namespace {

// Bytes 0x80 to 0xFF of Mac Roman in UTF-8, from an independent copy of the table.
const char kMacRomanHighUTF8[] =
    "\xC3\x84\xC3\x85\xC3\x87\xC3\x89\xC3\x91\xC3\x96\xC3\x9C\xC3\xA1"                             // 0x80
    "\xC3\xA0\xC3\xA2\xC3\xA4\xC3\xA3\xC3\xA5\xC3\xA7\xC3\xA9\xC3\xA8"                             // 0x88
    "\xC3\xAA\xC3\xAB\xC3\xAD\xC3\xAC\xC3\xAE\xC3\xAF\xC3\xB1\xC3\xB3"                             // 0x90
    "\xC3\xB2\xC3\xB4\xC3\xB6\xC3\xB5\xC3\xBA\xC3\xB9\xC3\xBB\xC3\xBC"                             // 0x98
    "\xE2\x80\xA0\xC2\xB0\xC2\xA2\xC2\xA3\xC2\xA7\xE2\x80\xA2\xC2\xB6\xC3\x9F"                     // 0xA0
    "\xC2\xAE\xC2\xA9\xE2\x84\xA2\xC2\xB4\xC2\xA8\xE2\x89\xA0\xC3\x86\xC3\x98"                     // 0xA8
    "\xE2\x88\x9E\xC2\xB1\xE2\x89\xA4\xE2\x89\xA5\xC2\xA5\xC2\xB5\xE2\x88\x82\xE2\x88\x91"         // 0xB0
    "\xE2\x88\x8F\xCF\x80\xE2\x88\xAB\xC2\xAA\xC2\xBA\xCE\xA9\xC3\xA6\xC3\xB8"                     // 0xB8
    "\xC2\xBF\xC2\xA1\xC2\xAC\xE2\x88\x9A\xC6\x92\xE2\x89\x88\xE2\x88\x86\xC2\xAB"                 // 0xC0
    "\xC2\xBB\xE2\x80\xA6\xC2\xA0\xC3\x80\xC3\x83\xC3\x95\xC5\x92\xC5\x93"                         // 0xC8
    "\xE2\x80\x93\xE2\x80\x94\xE2\x80\x9C\xE2\x80\x9D\xE2\x80\x98\xE2\x80\x99\xC3\xB7\xE2\x97\x8A" // 0xD0
    "\xC3\xBF\xC5\xB8\xE2\x81\x84\xE2\x82\xAC\xE2\x80\xB9\xE2\x80\xBA\xEF\xAC\x81\xEF\xAC\x82"     // 0xD8
    "\xE2\x80\xA1\xC2\xB7\xE2\x80\x9A\xE2\x80\x9E\xE2\x80\xB0\xC3\x82\xC3\x8A\xC3\x81"             // 0xE0
    "\xC3\x8B\xC3\x88\xC3\x8D\xC3\x8E\xC3\x8F\xC3\x8C\xC3\x93\xC3\x94"                             // 0xE8
    "\xEF\xA3\xBF\xC3\x92\xC3\x9A\xC3\x9B\xC3\x99\xC4\xB1\xCB\x86\xCB\x9C"                         // 0xF0
    "\xC2\xAF\xCB\x98\xCB\x99\xCB\x9A\xC2\xB8\xCB\x9D\xCB\x9B\xCB\x87"                             // 0xF8
    ;

TEST(CFString, MacRomanEveryByteBothWays) {
    char all[256];
    for (int i = 1; i < 256; ++i)
        all[i - 1] = static_cast<char>(i);
    all[255] = '\0';
    CFStringRef string = CFStringCreateWithCString(nullptr, all, kCFStringEncodingMacRoman);
    ASSERT_EQ(CFStringGetLength(string), 255);
    EXPECT_EQ(UTF8(string), std::string(all, 127) + kMacRomanHighUTF8);
    char back[256];
    ASSERT_TRUE(CFStringGetCString(string, back, sizeof back, kCFStringEncodingMacRoman));
    EXPECT_EQ(memcmp(back, all, 256), 0);
    CFRelease(string);

    // Text that Mac Roman lacks is refused whole, leaving an empty text.
    CFStringRef macron = CFStringCreateWithCString(nullptr, "A\xC4\x80", kCFStringEncodingUTF8);
    EXPECT_FALSE(CFStringGetCString(macron, back, sizeof back, kCFStringEncodingMacRoman));
    EXPECT_STREQ(back, "");
    CFRelease(macron);
}

TEST(CFString, UTF8ValidTextOnlyAndBufferSizes) {
    for (const char* invalid : {"\x80", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "ab\xE2\x82", "\xFF"})
        EXPECT_EQ(CFStringCreateWithCString(nullptr, invalid, kCFStringEncodingUTF8), nullptr) << invalid;
    EXPECT_EQ(CFStringCreateWithCString(nullptr, nullptr, kCFStringEncodingUTF8), nullptr);

    // "Große" and an emoji: 10 bytes of UTF-8; 11 fit exactly, 10 is one short.
    const char text[] = "Gro\xC3\x9F"
                        "e\xF0\x9F\x98\x80";
    CFStringRef string = CFStringCreateWithCString(nullptr, text, kCFStringEncodingUTF8);
    EXPECT_EQ(CFStringGetLength(string), 7) << "the emoji is two UTF-16 units";
    for (CFIndex size : {11, 10, 0}) {
        char buffer[16];
        memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(CFStringGetCString(string, buffer, size, kCFStringEncodingUTF8), size == 11) << size;
        EXPECT_EQ(buffer[size], '#') << "wrote past a buffer of " << size;
        if (size == 11) {
            EXPECT_STREQ(buffer, text);
        }
    }
    CFRelease(string);

    // Constant strings outlive any number of releases.
    CFStringRef constant = CFSTR("QV_EVENT");
    CFRelease(constant);
    CFRelease(constant);
    EXPECT_EQ(UTF8(CFSTR("QV_EVENT")), "QV_EVENT");
}

// The bundle is the folder above the last Contents/MacOS; its URL text as 10.4 wrote it.
TEST(CFBundle, MainBundlePathsAndURLText) {
    struct {
        const char *executable, *bundleURL;
    } cases[] = {
        {"/Volumes/My Disc/Contents/Launcher.app/Contents/MacOS/Launcher",
         "file://localhost/Volumes/My%20Disc/Contents/Launcher.app/"},
        {"/tmp/100% sure/a#b?c;\xC3\xA9~x/A.app/Contents/MacOS/A",
         "file://localhost/tmp/100%25%20sure/a%23b%3Fc%3B%C3%A9~x/A.app/"},
        {"/opt/tools/bin/prog", "file://localhost/opt/tools/bin/"},
        {"/tmp/X.app/Contents/MacOS/sub/prog", "file://localhost/tmp/X.app/Contents/MacOS/sub/"},
    };
    for (const auto& c : cases) {
        PlatSetExecutablePath(c.executable);
        CFBundleRef bundle = CFBundleGetMainBundle();
        CFURLRef url = CFBundleCopyBundleURL(bundle);
        EXPECT_EQ(UTF8(CFURLGetString(url)), c.bundleURL);
        CFRelease(url);
        EXPECT_EQ(TakePath(CFBundleCopyExecutableURL(bundle)), c.executable);
    }

    // Without an override: the running executable, which is in no bundle.
    PlatSetExecutablePath(nullptr);
    std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    CFURLRef url = CFBundleCopyExecutableURL(CFBundleGetMainBundle());
    std::string buffer(self.size() + 1, '\0');
    auto* bytes = reinterpret_cast<UInt8*>(buffer.data());
    EXPECT_FALSE(CFURLGetFileSystemRepresentation(url, true, bytes, static_cast<CFIndex>(self.size())));
    EXPECT_TRUE(CFURLGetFileSystemRepresentation(url, true, bytes, static_cast<CFIndex>(self.size() + 1)));
    EXPECT_EQ(buffer.c_str(), self);
    CFRelease(url);
    EXPECT_EQ(TakePath(CFBundleCopyBundleURL(CFBundleGetMainBundle())), self.substr(0, self.rfind('/')));
}

// Sets the locale variables for one scope and puts the old ones back.
class Locale {
  public:
    Locale(const char* all, const char* messages, const char* lang) {
        const char* values[] = {all, messages, lang};
        for (int i = 0; i < 3; ++i) {
            const char* old = getenv(kNames[i]);
            saved_[i] = old ? std::optional<std::string>(old) : std::nullopt;
            Set(kNames[i], values[i]);
        }
    }
    ~Locale() {
        for (int i = 0; i < 3; ++i)
            Set(kNames[i], saved_[i] ? saved_[i]->c_str() : nullptr);
    }

  private:
    static void Set(const char* name, const char* value) { value ? setenv(name, value, 1) : unsetenv(name); }
    static constexpr const char* kNames[3] = {"LC_ALL", "LC_MESSAGES", "LANG"};
    std::optional<std::string> saved_[3];
};

TEST(CFBundle, ResourcesBeforeLocalisationFolders) {
    Locale locale(nullptr, nullptr, "de_DE.UTF-8");
    TempBundle bundle;
    for (const char* file :
         {"main.nib", "Installer.png", "both.txt", "de.lproj/both.txt", "de.lproj/german.txt",
          "English.lproj/english.txt", "fr.lproj/french.txt", "Help/index.html"})
        bundle.Put(file, "x");
    struct {
        const char *name, *type, *folder, *found;
    } cases[] = {
        {"main", "nib", nullptr, "/main.nib"},
        {"Installer.png", nullptr, nullptr, "/Installer.png"},
        {"both", "txt", nullptr, "/both.txt"},
        {"german", "txt", nullptr, "/de.lproj/german.txt"},
        {"english.txt", nullptr, nullptr, "/English.lproj/english.txt"},
        {"index", "html", "Help", "/Help/index.html"},
        {"french", "txt", nullptr, nullptr},
        {"main", "png", nullptr, nullptr},
    };
    for (const auto& c : cases) {
        auto make = [](const char* text) {
            return text ? CFStringCreateWithCString(nullptr, text, kCFStringEncodingUTF8) : nullptr;
        };
        CFStringRef name = make(c.name), type = make(c.type), folder = make(c.folder);
        std::string path = TakePath(CFBundleCopyResourceURL(CFBundleGetMainBundle(), name, type, folder));
        EXPECT_EQ(path, c.found ? bundle.Resources() + c.found : "<null>") << c.name;
        for (CFStringRef s : {name, type, folder})
            if (s)
                CFRelease(s);
    }
}

// The text of key in table "custom", with value (else the key) as the fallback.
std::string Localized(const char* key, const char* value = nullptr) {
    CFStringRef keyString = CFStringCreateWithCString(nullptr, key, kCFStringEncodingUTF8);
    CFStringRef valueString =
        value ? CFStringCreateWithCString(nullptr, value, kCFStringEncodingUTF8) : nullptr;
    CFStringRef text =
        CFBundleCopyLocalizedString(CFBundleGetMainBundle(), keyString, valueString, CFSTR("custom"));
    std::string result = UTF8(text);
    for (CFStringRef s : {text, keyString, valueString})
        if (s)
            CFRelease(s);
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
        Locale locale(c.all, c.messages, c.lang);
        std::string texts;
        for (const char* key : {"A", "B", "C", "D", "E"})
            texts += (texts.empty() ? "" : " ") + Localized(key);
        EXPECT_EQ(texts, c.expected) << (c.all ? c.all : "-") << " " << (c.messages ? c.messages : "-") << " "
                                     << (c.lang ? c.lang : "-");
    }
    Locale locale(nullptr, nullptr, "en_US.UTF-8");
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
    Locale locale(nullptr, nullptr, "de_DE.UTF-8");
    TempBundle bundle;
    bundle.Put("de.lproj/custom.strings", "/* Dialog texts.\n   \"NOT\" = \"a key\"; */\n"
                                          "\"quote\" = \"say \\\"yes\\\"\";\n"
                                          "// \"LINE\" = \"commented out\";\n"
                                          "\"slash\"=\"a\\\\b\"; // trailing comment\n"
                                          "\"lines\" = \"one\\ntwo\\tthree\";\n"
                                          "\"unicode\" = \"\\U00e9\\U20AC \\UD83D\\UDE00\";\n"
                                          "\"url\" = \"http://x//y /* not a comment */\";\n"
                                          "bare_key = bare.value;\n"
                                          "\"twice\" = \"first\";\n\"twice\" = \"second\";\n");
    struct {
        const char *key, *text;
    } cases[] = {
        {"quote", "say \"yes\""},
        {"slash", "a\\b"},
        {"lines", "one\ntwo\tthree"},
        {"unicode", "\xC3\xA9\xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"url", "http://x//y /* not a comment */"},
        {"bare_key", "bare.value"},
        {"twice", "second"},
        {"NOT", "NOT"},
        {"LINE", "LINE"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Localized(c.key), c.text) << c.key;

    // UTF-16 either way round, by its byte-order mark.
    bundle.Put("de.lproj/custom.strings", UTF16(u"/* \u6CE8 */\n\"k\" = \"\u30C9\\\"\";\n", true));
    EXPECT_EQ(Localized("k"), "\xE3\x83\x89\"");
    bundle.Put("de.lproj/custom.strings", UTF16(u"\"k\" = \"little \u00E9\";\n", false));
    EXPECT_EQ(Localized("k"), "little \xC3\xA9");

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
