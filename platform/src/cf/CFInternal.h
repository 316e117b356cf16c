/* The CoreFoundation object base, shared by every reference-counted object of
 * the layer (strings, URLs, bundles, CoreGraphics objects, and any other kind a
 * part of the layer wants CFRetain and CFRelease to work on).
 *
 * A kind of object is a standard-layout struct whose first member is a
 * CFInternalBase, described by one static CFInternalClass. Create it with new, call CFInternalInit, and give
 * it a finalize that deletes it: CFRelease calls finalize when the last
 * reference goes. Type identifiers 1 to 15 belong to the kinds defined here;
 * other parts of the layer take 16 and up. */
#ifndef PLATFORM_CFINTERNAL_H
#define PLATFORM_CFINTERNAL_H

#include <CoreFoundation/CoreFoundation.h>

#include <atomic>
#include <map>
#include <string>
#include <string_view>

struct CFInternalBase;

struct CFInternalClass {
    CFTypeID typeID;
    const char* name;
    /* Frees the object; called once, when its retain count reaches zero. */
    void (*finalize)(CFInternalBase* object);
    /* Value equality with another object of the same class; null: identity only. */
    bool (*equal)(const CFInternalBase* a, const CFInternalBase* b);
};

enum : CFTypeID {
    kCFInternalStringTypeID = 1,
    kCFInternalURLTypeID = 2,
    kCFInternalBundleTypeID = 3,
    kCFInternalDataProviderTypeID = 4,
    kCFInternalImageTypeID = 5,
    kCFInternalFirstFreeTypeID = 16
};

/* Marks memory as one of our objects, so that CFRelease of a foreign pointer is
 * ignored instead of freeing something it does not own. */
constexpr UInt32 kCFInternalMagic = 0x43466f62; /* "CFob" */

struct CFInternalBase {
    UInt32 magic;
    bool immortal; /* constant strings and the main bundle: never freed */
    const CFInternalClass* cls;
    std::atomic<long> retainCount;
};

/* Starts an object's life with one reference (the Create and Copy rule). */
void CFInternalInit(CFInternalBase* object, const CFInternalClass* cls);

/* The object behind a CFTypeRef when it is of that class, else null. */
const CFInternalBase* CFInternalCast(CFTypeRef cf, const CFInternalClass* cls);

/* ---- Strings ---- */
/* A new string from UTF-8 text; invalid sequences give null. */
CFStringRef CFInternalStringCreateWithUTF8(std::string_view utf8);
/* A new string from UTF-16 units, taken as they are. */
CFStringRef CFInternalStringCreateWithCharacters(std::u16string characters);
/* The string's text as UTF-8 (unpaired surrogates become U+FFFD); "" for null. */
std::string CFInternalStringToUTF8(CFStringRef string);
const std::u16string* CFInternalStringCharacters(CFStringRef string);

/* Text decoding shared by strings and the .strings reader. False for invalid UTF-8
 * (overlong forms, surrogates, values past U+10FFFF, cut sequences). */
bool CFInternalDecodeUTF8(std::string_view bytes, std::u16string& out);
void CFInternalDecodeMacRoman(std::string_view bytes, std::u16string& out);

/* ---- URLs ---- */
/* A file URL for an absolute path (a relative one is taken from the working
 * directory). Directory URLs end in "/". */
/* The whole of a regular file of at most limit bytes, opened without waiting (a pipe or a
 * device reads as absent); false and no bytes otherwise. */
bool CFInternalReadRegularFile(const std::string& path, size_t limit, std::string& bytes);

/* The folder of the Linux program's modules in a bundle, beside the program: Contents/MacOS
 * holds only the Mac program. */
constexpr char kCFInternalPlugInsFolder[] = "Contents/Linux/PlugIns";

/* The entry point of a plug-in of the main bundle: <bundle>/Contents/Linux/PlugIns/<fileName>
 * opened with dlopen, else the copy at fallbackPath; null when neither opens or has the
 * entry (error then says why). A plug-in once opened stays open. */
void* CFInternalOpenPlugIn(const char* fileName, const char* fallbackPath, const char* entryName,
                           std::string* error);

/* The user's locale as bundles read it (LC_ALL, LC_MESSAGES, LANG: the first set), without
 * its encoding or modifier: "de_DE" for "de_DE.UTF-8"; empty when none is set. */
std::string CFInternalUserLocale();

CFURLRef CFInternalURLCreateWithPath(const std::string& path, bool isDirectory);
/* The URL's file-system path, without a trailing "/" except for the root. */
const std::string* CFInternalURLPath(CFURLRef url);

/* ---- .strings tables ---- */
typedef std::map<std::u16string, std::u16string> CFInternalStringsTable;
/* Parses the contents of a .strings file (UTF-8, or UTF-16 with a byte-order
 * mark). False, with the table emptied, for text that is not a valid table. */
bool CFInternalParseStringsTable(std::string_view bytes, CFInternalStringsTable& table);

#endif
