/* The main bundle: where it is, its URL texts, its resources and its localised
 * string tables. */
#include <CoreFoundation/CoreFoundation.h>
#include <PlatformTesting.h>

#include "core_testutil.h"

#include <gtest/gtest.h>

#include <climits>
#include <unistd.h>

namespace {

/* Sets the locale variables for one test and puts the old ones back. */
class LocaleEnvironment {
  public:
    LocaleEnvironment(const char* all, const char* messages, const char* lang) {
        for (int i = 0; i < 3; ++i) {
            const char* old = getenv(kNames[i]);
            saved_[i] = old == nullptr ? nullptr : strdup(old);
        }
        Set("LC_ALL", all);
        Set("LC_MESSAGES", messages);
        Set("LANG", lang);
    }
    ~LocaleEnvironment() {
        for (int i = 0; i < 3; ++i) {
            Set(kNames[i], saved_[i]);
            free(saved_[i]);
        }
    }

  private:
    static void Set(const char* name, const char* value) {
        if (value == nullptr)
            unsetenv(name);
        else
            setenv(name, value, 1);
    }
    static constexpr const char* kNames[3] = {"LC_ALL", "LC_MESSAGES", "LANG"};
    char* saved_[3];
};

/* Makes path the running executable for one test. */
class ExecutableOverride {
  public:
    explicit ExecutableOverride(const std::string& path) { PlatSetExecutablePath(path.c_str()); }
    ~ExecutableOverride() { PlatSetExecutablePath(nullptr); }
};

TEST(CFBundle, MainBundleFollowsTheExecutable) {
    struct {
        const char* executable;
        const char* bundleURL;
    } cases[] = {
        // The last /Contents/MacOS counts, also when an outer folder is called Contents.
        {"/Volumes/My Disc/Contents/Launcher.app/Contents/MacOS/Launcher",
         "file://localhost/Volumes/My%20Disc/Contents/Launcher.app/"},
        {"/tmp/100% sure/A.app/Contents/MacOS/A", "file://localhost/tmp/100%25%20sure/A.app/"},
        // Not in a bundle: the executable's folder.
        {"/opt/tools/bin/prog", "file://localhost/opt/tools/bin/"},
        {"/tmp/X.app/Contents/MacOS/sub/prog", "file://localhost/tmp/X.app/Contents/MacOS/sub/"},
    };
    for (const auto& c : cases) {
        ExecutableOverride running(c.executable);
        CFBundleRef bundle = CFBundleGetMainBundle();
        ASSERT_NE(bundle, nullptr) << c.executable;
        EXPECT_EQ(CFBundleGetMainBundle(), bundle) << "one main bundle";
        EXPECT_EQ(TakeURLText(CFBundleCopyBundleURL(bundle)), c.bundleURL);
        EXPECT_EQ(TakeURLPath(CFBundleCopyExecutableURL(bundle)), c.executable);
    }
}

TEST(CFBundle, BundleURLDecodesBackToEveryPathByte) {
    // Every byte but "/" and the terminator in a folder name: the upper-case
    // percent form must give the path back byte for byte.
    std::string name;
    for (int byte = 1; byte < 256; ++byte) {
        if (byte != '/')
            name.push_back(static_cast<char>(byte));
    }
    std::string bundle = "/tmp/" + name + "/Disc.app";
    ExecutableOverride running(bundle + "/Contents/MacOS/Launcher");
    std::string text = TakeURLText(CFBundleCopyBundleURL(CFBundleGetMainBundle()));
    ASSERT_EQ(text.rfind("file://localhost/", 0), 0u) << text;
    // Only unreserved characters, "/" and "%" with two upper-case digits.
    std::string encoded = text.substr(strlen("file://localhost")), decoded;
    for (size_t i = 0; i < encoded.size(); ++i) {
        if (encoded[i] != '%') {
            EXPECT_TRUE(isalnum(static_cast<unsigned char>(encoded[i])) || strchr("-._~/", encoded[i]))
                << encoded[i];
            decoded.push_back(encoded[i]);
            continue;
        }
        std::string digits = encoded.substr(i + 1, 2);
        ASSERT_TRUE(digits.size() == 2 && digits.find_first_not_of("0123456789ABCDEF") == std::string::npos)
            << digits;
        decoded.push_back(static_cast<char>(std::stoi(digits, nullptr, 16)));
        i += 2;
    }
    EXPECT_EQ(decoded, bundle + "/");
}

TEST(CFBundle, MainBundleOfTheRealExecutable) {
    char self[PATH_MAX] = {};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
    std::string executable = self;
    CFBundleRef bundle = CFBundleGetMainBundle();
    EXPECT_EQ(TakeURLPath(CFBundleCopyExecutableURL(bundle)), executable);
    EXPECT_EQ(TakeURLPath(CFBundleCopyBundleURL(bundle)), executable.substr(0, executable.rfind('/')));

    // The executable path does not fit a buffer one byte too small for it.
    CFURLRef url = CFBundleCopyExecutableURL(bundle);
    std::string buffer(executable.size() + 1, '\0');
    EXPECT_FALSE(CFURLGetFileSystemRepresentation(url, true, reinterpret_cast<UInt8*>(buffer.data()),
                                                  static_cast<CFIndex>(executable.size())));
    EXPECT_TRUE(CFURLGetFileSystemRepresentation(url, true, reinterpret_cast<UInt8*>(buffer.data()),
                                                 static_cast<CFIndex>(executable.size() + 1)));
    CFRelease(url);
}

/* A bundle in a scratch folder that is the main bundle while the object lives. */
class ScratchBundle {
  public:
    ScratchBundle() : running_(folder_.path() + "/Disc One/Launcher.app/Contents/MacOS/Launcher") {}
    std::string Resources() const { return folder_.path() + "/Disc One/Launcher.app/Contents/Resources"; }
    void Put(const std::string& relative, const std::string& bytes) const {
        WriteFile(Resources() + "/" + relative, bytes);
    }

  private:
    ScratchFolder folder_;
    ExecutableOverride running_;
};

std::string ResourcePath(const char* name, const char* type, const char* folder = nullptr) {
    CFStringRef nameString = CFStringCreateWithCString(nullptr, name, kCFStringEncodingUTF8);
    CFStringRef typeString = type ? CFStringCreateWithCString(nullptr, type, kCFStringEncodingUTF8) : nullptr;
    CFStringRef folderString =
        folder ? CFStringCreateWithCString(nullptr, folder, kCFStringEncodingUTF8) : nullptr;
    std::string path =
        TakeURLPath(CFBundleCopyResourceURL(CFBundleGetMainBundle(), nameString, typeString, folderString));
    CFRelease(nameString);
    if (typeString)
        CFRelease(typeString);
    if (folderString)
        CFRelease(folderString);
    return path;
}

TEST(CFBundle, ResourcesBeforeLocalisationFolders) {
    LocaleEnvironment locale(nullptr, nullptr, "de_DE.UTF-8");
    ScratchBundle bundle;
    bundle.Put("main.nib", "<nib/>");
    bundle.Put("Installer.png", "png");
    bundle.Put("both.txt", "plain");
    bundle.Put("de.lproj/both.txt", "localised");
    bundle.Put("German.lproj/german.txt", "x");
    bundle.Put("de.lproj/german.txt", "x");
    bundle.Put("English.lproj/english.txt", "x");
    bundle.Put("fr.lproj/french.txt", "x");
    bundle.Put("Help/index.html", "x");
    std::string resources = bundle.Resources();

    EXPECT_EQ(ResourcePath("main", "nib"), resources + "/main.nib");
    EXPECT_EQ(ResourcePath("Installer.png", nullptr), resources + "/Installer.png");
    EXPECT_EQ(ResourcePath("Installer", "png"), resources + "/Installer.png");
    EXPECT_EQ(ResourcePath("both", "txt"), resources + "/both.txt");
    EXPECT_EQ(ResourcePath("german", "txt"), resources + "/de.lproj/german.txt");
    EXPECT_EQ(ResourcePath("english.txt", nullptr), resources + "/English.lproj/english.txt");
    EXPECT_EQ(ResourcePath("index", "html", "Help"), resources + "/Help/index.html");
    EXPECT_EQ(ResourcePath("french", "txt"), "<null>") << "not the user's language, not English";
    EXPECT_EQ(ResourcePath("absent", "png"), "<null>");
    EXPECT_EQ(ResourcePath("main", "png"), "<null>");
    EXPECT_EQ(CFBundleCopyResourceURL(CFBundleGetMainBundle(), nullptr, CFSTR("nib"), nullptr), nullptr);
}

/* The localised text of key in table "custom", with the key as the fallback. */
std::string Localized(const char* key) {
    CFStringRef keyString = CFStringCreateWithCString(nullptr, key, kCFStringEncodingMacRoman);
    CFStringRef text =
        CFBundleCopyLocalizedString(CFBundleGetMainBundle(), keyString, keyString, CFSTR("custom"));
    std::string result = UTF8(text);
    if (text != nullptr)
        CFRelease(text);
    CFRelease(keyString);
    return result;
}

TEST(CFBundle, LocalizedStringsFollowTheLanguageThenEnglish) {
    ScratchBundle bundle;
    bundle.Put("de.lproj/custom.strings", "\"A\" = \"de\";\n");
    bundle.Put("German.lproj/custom.strings", "\"A\" = \"German\";\n\"B\" = \"German\";\n");
    bundle.Put("fr.lproj/custom.strings", "\"A\" = \"fr\";\n");
    bundle.Put("en.lproj/custom.strings", "\"A\" = \"en\";\n\"B\" = \"en\";\n\"C\" = \"en\";\n");
    bundle.Put("English.lproj/custom.strings", "\"A\" = \"English\";\n\"D\" = \"English\";\n");
    struct {
        const char *all, *messages, *lang;
        const char* expected[5]; // keys A, B, C, D, E
    } cases[] = {
        {nullptr, nullptr, "de_DE.UTF-8", {"de", "German", "en", "English", "E"}},
        {nullptr, "fr_FR", "de_DE.UTF-8", {"fr", "en", "en", "English", "E"}},
        {"de", "fr_FR", "fr_FR", {"de", "German", "en", "English", "E"}},
        {"C", nullptr, "de_DE.UTF-8", {"en", "en", "en", "English", "E"}},
        {nullptr, nullptr, nullptr, {"en", "en", "en", "English", "E"}},
        {"", "", "ja_JP.eucJP", {"en", "en", "en", "English", "E"}},
    };
    for (const auto& c : cases) {
        LocaleEnvironment locale(c.all, c.messages, c.lang);
        const char* keys[] = {"A", "B", "C", "D", "E"};
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(Localized(keys[i]), c.expected[i])
                << "key " << keys[i] << " with LC_ALL=" << (c.all ? c.all : "-")
                << " LC_MESSAGES=" << (c.messages ? c.messages : "-") << " LANG=" << (c.lang ? c.lang : "-");
        }
    }
}

TEST(CFBundle, MissingKeyGivesTheValueArgument) {
    LocaleEnvironment locale(nullptr, nullptr, "en_US.UTF-8");
    ScratchBundle bundle;
    bundle.Put("en.lproj/custom.strings", "\"A\" = \"en\";\n");
    CFStringRef key = CFStringCreateWithCString(nullptr, "INSTALL_DRIVER", kCFStringEncodingMacRoman);
    CFStringRef value = CFStringCreateWithCString(nullptr, "fallback", kCFStringEncodingMacRoman);
    CFStringRef text = CFBundleCopyLocalizedString(CFBundleGetMainBundle(), key, value, CFSTR("custom"));
    EXPECT_EQ(text, value);
    EXPECT_EQ(CFGetRetainCount(value), 2) << "the caller owns the answer";
    CFRelease(text);
    // No value to fall back on: the key. A table that does not exist: likewise.
    text = CFBundleCopyLocalizedString(CFBundleGetMainBundle(), key, nullptr, CFSTR("custom"));
    EXPECT_EQ(UTF8(text), "INSTALL_DRIVER");
    CFRelease(text);
    text = CFBundleCopyLocalizedString(CFBundleGetMainBundle(), key, value, CFSTR("nosuchtable"));
    EXPECT_EQ(UTF8(text), "fallback");
    CFRelease(text);
    text = CFBundleCopyLocalizedString(nullptr, key, value, CFSTR("custom"));
    EXPECT_EQ(UTF8(text), "fallback");
    CFRelease(text);
    CFRelease(value);
    CFRelease(key);
}

std::string UTF16(const std::u16string& text, bool bigEndian) {
    std::string bytes = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (char16_t unit : text) {
        char high = static_cast<char>(unit >> 8), low = static_cast<char>(unit & 0xFF);
        bytes.push_back(bigEndian ? high : low);
        bytes.push_back(bigEndian ? low : high);
    }
    return bytes;
}

TEST(StringsFile, EscapesCommentsAndForms) {
    LocaleEnvironment locale(nullptr, nullptr, "en_US.UTF-8");
    ScratchBundle bundle;
    bundle.Put("en.lproj/custom.strings", "/* Dialog texts.\n   \"NOT\" = \"a key\"; */\n"
                                          "\"quote\" = \"say \\\"yes\\\"\";\n"
                                          "// \"LINE\" = \"commented out\";\n"
                                          "\"slash\"=\"a\\\\b\"; // trailing comment\n"
                                          "\"lines\" = \"one\\ntwo\\tthree\";\n"
                                          "\"unicode\" = \"\\U00e9\\U20AC \\UD83D\\UDE00\";\n"
                                          "\"url\" = \"http://x//y /* not a comment */\";\n"
                                          "\"utf8\" = \"Gr\xC3\xBC\xC3\x9F"
                                          "e\";\n"
                                          "bare_key = bare.value;\n"
                                          "\"self\";\n"
                                          "\"twice\" = \"first\";\n\"twice\" = \"second\";\n");
    EXPECT_EQ(Localized("quote"), "say \"yes\"");
    EXPECT_EQ(Localized("slash"), "a\\b");
    EXPECT_EQ(Localized("lines"), "one\ntwo\tthree");
    EXPECT_EQ(Localized("unicode"), "\xC3\xA9\xE2\x82\xAC \xF0\x9F\x98\x80");
    EXPECT_EQ(Localized("url"), "http://x//y /* not a comment */");
    EXPECT_EQ(Localized("utf8"), "Gr\xC3\xBC\xC3\x9F"
                                 "e");
    EXPECT_EQ(Localized("bare_key"), "bare.value");
    EXPECT_EQ(Localized("self"), "self");
    EXPECT_EQ(Localized("twice"), "second") << "the later entry wins";
    EXPECT_EQ(Localized("NOT"), "NOT") << "inside a block comment";
    EXPECT_EQ(Localized("LINE"), "LINE") << "inside a line comment";
}

TEST(StringsFile, UTF16WithByteOrderMarkEitherWay) {
    LocaleEnvironment locale(nullptr, nullptr, "ja_JP.UTF-8");
    ScratchBundle bundle;
    std::u16string table =
        u"/* \u6CE8 */\n\"INSTALL_DRIVER\" = \"\u30C9\u30E9\u30A4\u30D0\";\n\"k\" = \"a\\\"b\";\n";
    bundle.Put("Japanese.lproj/custom.strings", UTF16(table, true));
    bundle.Put("en.lproj/custom.strings", UTF16(u"\"LE\" = \"little \u00E9\";\n\"k\" = \"en\";\n", false));
    EXPECT_EQ(Localized("INSTALL_DRIVER"), "\xE3\x83\x89\xE3\x83\xA9\xE3\x82\xA4\xE3\x83\x90");
    EXPECT_EQ(Localized("k"), "a\"b");
    EXPECT_EQ(Localized("LE"), "little \xC3\xA9");
}

TEST(StringsFile, BrokenTableFallsBackWhole) {
    LocaleEnvironment locale(nullptr, nullptr, "de_DE.UTF-8");
    ScratchBundle bundle;
    // Each broken German table leaves every key to English.
    const char* broken[] = {
        "\"A\" = \"de\";\n\"B\" = \"unterminated;\n",
        "\"A\" = \"de\";\n\"B\" = \"missing semicolon\"\n",
        "\"A\" = \"de\";\n/* comment never ends\n",
        "\"A\" = \"de\";\n\"B\" \"no equals\";\n",
        "\"A\" = \"de\" ;\n\"B\" = \"bad escape at the end\\",
        "\xFF\xFE\x22\x00\x41", // UTF-16 cut inside a unit
        "\"A\" = ;",
    };
    bundle.Put("en.lproj/custom.strings", "\"A\" = \"en\";\n");
    for (const char* text : broken) {
        bundle.Put("de.lproj/custom.strings", text);
        EXPECT_EQ(Localized("A"), "en") << text;
    }
    // A UTF-8 byte-order mark and an empty table are fine.
    bundle.Put("de.lproj/custom.strings", "\xEF\xBB\xBF\"A\" = \"de\";");
    EXPECT_EQ(Localized("A"), "de");
    bundle.Put("de.lproj/custom.strings", "");
    EXPECT_EQ(Localized("A"), "en");
}

} // namespace
