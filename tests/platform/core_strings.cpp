/* Strings and their encodings, object lifetimes, and file URL texts. */
#include <CoreFoundation/CoreFoundation.h>

#include "core_testutil.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

/* Bytes 0x80 to 0xFF of Mac Roman in UTF-8, from an independent copy of the table. */
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

TEST(CFString, MacRomanDecodesEveryByteAndRoundTrips) {
    char all[256];
    for (int i = 1; i < 256; ++i)
        all[i - 1] = static_cast<char>(i);
    all[255] = '\0';
    CFStringRef string = CFStringCreateWithCString(nullptr, all, kCFStringEncodingMacRoman);
    ASSERT_NE(string, nullptr);
    ASSERT_EQ(CFStringGetLength(string), 255);
    EXPECT_EQ(CFStringGetCharacterAtIndex(string, 'A' - 1), 'A');
    // The high half, checked character by character against the reference text.
    std::string expected(all, 127);
    expected += kMacRomanHighUTF8;
    EXPECT_EQ(UTF8(string), expected);

    char back[256];
    memset(back, 'x', sizeof back);
    ASSERT_TRUE(CFStringGetCString(string, back, sizeof back, kCFStringEncodingMacRoman));
    EXPECT_EQ(memcmp(back, all, 256), 0);
    CFRelease(string);

    // The other way: Unicode text that Mac Roman has, and text it has not.
    CFStringRef euro = CFStringCreateWithCString(nullptr, "\xE2\x82\xAC \xC3\xA9", kCFStringEncodingUTF8);
    char roman[8] = {};
    ASSERT_TRUE(CFStringGetCString(euro, roman, sizeof roman, kCFStringEncodingMacRoman));
    EXPECT_STREQ(roman, "\xDB \x8E");
    EXPECT_FALSE(CFStringGetCString(euro, roman, sizeof roman, kCFStringEncodingASCII));
    CFRelease(euro);
    CFStringRef macron = CFStringCreateWithCString(nullptr, "A\xC4\x80", kCFStringEncodingUTF8);
    EXPECT_FALSE(CFStringGetCString(macron, roman, sizeof roman, kCFStringEncodingMacRoman));
    EXPECT_STREQ(roman, "") << "a failed conversion leaves an empty text, not a partial one";
    CFRelease(macron);
}

TEST(CFString, UTF8AcceptsValidTextOnly) {
    const char* invalid[] = {
        "\x80",             // continuation byte alone
        "\xC0\xAF",         // overlong "/"
        "\xE0\x80\xAF",     // overlong, three bytes
        "\xED\xA0\x80",     // a surrogate
        "\xF4\x90\x80\x80", // past U+10FFFF
        "ab\xE2\x82",       // cut at the end
        "\xE2(\xAC",        // broken in the middle
        "\xFF",
    };
    for (const char* text : invalid)
        EXPECT_EQ(CFStringCreateWithCString(nullptr, text, kCFStringEncodingUTF8), nullptr) << text;

    // A character outside the basic plane is two units and comes back whole.
    CFStringRef face = CFStringCreateWithCString(nullptr, "a\xF0\x9F\x98\x80", kCFStringEncodingUTF8);
    ASSERT_NE(face, nullptr);
    EXPECT_EQ(CFStringGetLength(face), 3);
    EXPECT_EQ(CFStringGetCharacterAtIndex(face, 1), 0xD83D);
    EXPECT_EQ(CFStringGetCharacterAtIndex(face, 2), 0xDE00);
    EXPECT_EQ(CFStringGetCharacterAtIndex(face, 3), 0) << "past the end";
    EXPECT_EQ(UTF8(face), "a\xF0\x9F\x98\x80");
    CFRelease(face);

    EXPECT_EQ(CFStringCreateWithCString(nullptr, nullptr, kCFStringEncodingUTF8), nullptr);
    EXPECT_EQ(CFStringCreateWithCString(nullptr, "abc", 0x12345678), nullptr) << "unknown encoding";
    EXPECT_EQ(CFStringCreateWithCString(nullptr, "caf\xE9", kCFStringEncodingASCII), nullptr);
}

TEST(CFString, GetCStringNeedsRoomForTheTerminator) {
    CFStringRef string = CFStringCreateWithCString(nullptr,
                                                   "Gr\xC3\xBC\xC3\x9F"
                                                   "e",
                                                   kCFStringEncodingUTF8);
    ASSERT_NE(string, nullptr);
    // Seven bytes of UTF-8: a buffer of 8 fits exactly, 7 is one short.
    for (CFIndex size : {8, 7, 1}) {
        char buffer[16];
        memset(buffer, '#', sizeof buffer);
        Boolean ok = CFStringGetCString(string, buffer, size, kCFStringEncodingUTF8);
        EXPECT_EQ(ok, size == 8) << size;
        if (ok) {
            EXPECT_STREQ(buffer, "Gr\xC3\xBC\xC3\x9F"
                                 "e");
        }
        EXPECT_EQ(buffer[size], '#') << "wrote past the buffer of " << size;
    }
    char buffer[8];
    // Mac Roman needs only six.
    EXPECT_TRUE(CFStringGetCString(string, buffer, 6, kCFStringEncodingMacRoman));
    EXPECT_STREQ(buffer, "Gr\x9F\xA7"
                         "e");
    EXPECT_FALSE(CFStringGetCString(string, buffer, 0, kCFStringEncodingUTF8));
    EXPECT_FALSE(CFStringGetCString(nullptr, buffer, sizeof buffer, kCFStringEncodingUTF8));
    CFRelease(string);
}

TEST(CFString, ConstantStringsAreSharedAndImmortal) {
    CFStringRef first = CFSTR("QV_EVENT");
    EXPECT_EQ(first, CFSTR("QV_EVENT"));
    for (int i = 0; i < 5; ++i)
        CFRelease(first);
    EXPECT_EQ(UTF8(first), "QV_EVENT") << "still there after more releases than retains";
    CFStringRef made = CFStringCreateWithCString(nullptr, "QV_EVENT", kCFStringEncodingMacRoman);
    EXPECT_TRUE(CFEqual(first, made));
    EXPECT_FALSE(CFEqual(first, CFSTR("QV_EVENT2")));
    CFRelease(made);
}

TEST(CFURL, FileURLTextsAndPaths) {
    struct {
        const char* path;
        bool directory;
        const char* text;
        const char* fileSystemPath;
    } cases[] = {
        {"/Volumes/My Disc/Launcher.app", true, "file://localhost/Volumes/My%20Disc/Launcher.app/",
         "/Volumes/My Disc/Launcher.app"},
        {"/Volumes/My Disc/Launcher.app/", true, "file://localhost/Volumes/My%20Disc/Launcher.app/",
         "/Volumes/My Disc/Launcher.app"},
        {"/tmp/100%/a#b?c", false, "file://localhost/tmp/100%25/a%23b%3Fc", "/tmp/100%/a#b?c"},
        {"/tmp/Gr\xC3\xBC\xC3\x9F"
         "e",
         false, "file://localhost/tmp/Gr%C3%BC%C3%9Fe",
         "/tmp/Gr\xC3\xBC\xC3\x9F"
         "e"},
        {"/a-b_c.d~e", false, "file://localhost/a-b_c.d~e", "/a-b_c.d~e"},
        {"/", true, "file://localhost/", "/"},
    };
    for (const auto& c : cases) {
        CFStringRef path = CFStringCreateWithCString(nullptr, c.path, kCFStringEncodingUTF8);
        CFURLRef url = CFURLCreateWithFileSystemPath(nullptr, path, kCFURLPOSIXPathStyle, c.directory);
        CFRelease(path);
        ASSERT_NE(url, nullptr) << c.path;
        EXPECT_EQ(UTF8(CFURLGetString(url)), c.text) << c.path;
        EXPECT_EQ(TakeURLPath(url), c.fileSystemPath) << c.path;
    }
}

} // namespace
