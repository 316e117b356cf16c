/* The CoreFoundation object base, shared by every reference-counted object of
 * the layer (strings, URLs, bundles, CoreGraphics objects).
 *
 * A kind of object is a standard-layout struct whose first member is a PlatCFBase; its
 * PlatCFKind makes one and finds it behind a reference. CFRelease deletes it when the last
 * reference goes, so what it holds is freed by its destructor. */
#ifndef PLATFORM_PLATCF_H
#define PLATFORM_PLATCF_H

#include <CoreFoundation/CoreFoundation.h>

#include <atomic>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>

struct PlatCFBase;

struct PlatCFClass {
    /* Frees the object; called once, when its retain count reaches zero. */
    void (*finalize)(PlatCFBase* object);
};

/* Marks memory as one of our objects, so that CFRelease of a foreign pointer is
 * ignored instead of freeing something it does not own. */
constexpr UInt32 kPlatCFMagic = 0x43466f62; /* "CFob" */

struct PlatCFBase {
    UInt32 magic;
    bool immortal; /* constant strings and the main bundle: never freed */
    const PlatCFClass* cls;
    std::atomic<long> retainCount;
};

/* Starts an object's life with one reference (the Create and Copy rule). */
void PlatCFInit(PlatCFBase* object, const PlatCFClass* cls);

/* The object behind a CFTypeRef when it is of that class, else null. */
const PlatCFBase* PlatCFCast(CFTypeRef cf, const PlatCFClass* cls);

/* The kind of object T: New() makes one with one reference, Cast() finds one behind a
 * reference (null for null, a foreign pointer or another kind). */
template <typename T> struct PlatCFKind {
    static_assert(std::is_standard_layout_v<T>, "the base must sit at the object's address");
    static void Delete(PlatCFBase* object) { delete reinterpret_cast<T*>(object); }
    static inline const PlatCFClass kClass = {Delete};
    static T* New() {
        auto* object = new T;
        PlatCFInit(&object->base, &kClass);
        return object;
    }
    static const T* Cast(CFTypeRef cf) { return reinterpret_cast<const T*>(PlatCFCast(cf, &kClass)); }
};

/* ---- Strings ---- */
/* A new string from UTF-8 text; invalid sequences give null. */
CFStringRef PlatCFStringCreateWithUTF8(std::string_view utf8);
/* A new string from UTF-16 units, taken as they are. */
CFStringRef PlatCFStringCreateWithCharacters(std::u16string characters);
/* The string's text as UTF-8 (unpaired surrogates become U+FFFD); "" for null. */
std::string PlatCFStringToUTF8(CFStringRef string);
const std::u16string* PlatCFStringCharacters(CFStringRef string);

/* Text decoding shared by strings and the .strings reader. False for invalid UTF-8
 * (overlong forms, surrogates, values past U+10FFFF, cut sequences). */
bool PlatCFDecodeUTF8(std::string_view bytes, std::u16string& out);
void PlatCFDecodeMacRoman(std::string_view bytes, std::u16string& out);

/* ---- URLs ---- */
/* A file URL for an absolute path (a relative one is taken from the working
 * directory). Directory URLs end in "/". */
CFURLRef PlatCFURLCreateWithPath(const std::string& path, bool isDirectory);
/* The URL's file-system path, without a trailing "/" except for the root. */
const std::string* PlatCFURLPath(CFURLRef url);

/* ---- Files of the bundle ---- */
/* The whole of a regular file of at most limit bytes, opened without waiting (a pipe or a
 * device reads as absent); false and no bytes otherwise. */
bool PlatCFReadRegularFile(const std::string& path, size_t limit, std::string& bytes);

/* The entry point of the plug-in fileName of the main bundle's <bundle>/Contents/Linux/PlugIns, opened with
 * dlopen once it is seen to be a whole shared object of this machine. Null when it is not there, is no such
 * object, does not load or lacks the entry: one line on standard error then names it and says why. A plug-in
 * once opened stays open. */
void* PlatCFOpenPlugIn(const char* fileName, const char* entryName);

/* The user's locale as bundles read it (LC_ALL, LC_MESSAGES, LANG: the first set), without
 * its encoding or modifier: "de_DE" for "de_DE.UTF-8"; empty when none is set. */
std::string PlatCFUserLocale();

/* ---- .strings tables ---- */
typedef std::map<std::u16string, std::u16string> PlatCFStringsTable;
/* Parses the contents of a .strings file (UTF-8, or UTF-16 with a byte-order
 * mark). False, with the table emptied, for text that is not a valid table. */
bool PlatCFParseStringsTable(std::string_view bytes, PlatCFStringsTable& table);

#endif
