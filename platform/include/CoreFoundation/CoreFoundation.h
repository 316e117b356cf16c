/* The CoreFoundation subset the launcher uses: reference-counted objects,
 * immutable strings, file URLs and the application bundle. */
#ifndef __COREFOUNDATION__
#define __COREFOUNDATION__

#include <MacTypes.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef const void* CFTypeRef;
typedef long CFIndex;
typedef UInt32 CFStringEncoding;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __CFString* CFStringRef;
typedef const struct __CFURL* CFURLRef;
typedef struct __CFBundle* CFBundleRef;

/* The default allocator: null. */
extern const CFAllocatorRef kCFAllocatorDefault;

enum { kCFStringEncodingMacRoman = 0, kCFStringEncodingASCII = 0x0600, kCFStringEncodingUTF8 = 0x08000100 };

CFTypeRef CFRetain(CFTypeRef cf);
void CFRelease(CFTypeRef cf);
/* Strings are equal by their characters, other objects only to themselves. */
Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2);

/* Strings: immutable sequences of UTF-16 units. */
CFStringRef __CFStringMakeConstantString(const char* cStr);
#define CFSTR(cStr) __CFStringMakeConstantString("" cStr "")
CFStringRef CFStringCreateWithCString(CFAllocatorRef alloc, const char* cStr, CFStringEncoding encoding);
Boolean CFStringGetCString(CFStringRef theString, char* buffer, CFIndex bufferSize,
                           CFStringEncoding encoding);
CFIndex CFStringGetLength(CFStringRef theString);
/* The most bytes length UTF-16 units can take in that encoding, terminator excluded. */
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding);

/* File URLs. */
typedef CFIndex CFURLPathStyle;
enum { kCFURLPOSIXPathStyle = 0 };
CFURLRef CFURLCreateWithFileSystemPath(CFAllocatorRef alloc, CFStringRef filePath, CFURLPathStyle pathStyle,
                                       Boolean isDirectory);
CFStringRef CFURLGetString(CFURLRef anURL);
Boolean CFURLGetFileSystemRepresentation(CFURLRef url, Boolean resolveAgainstBase, UInt8* buffer,
                                         CFIndex maxBufLen);

/* Bundles. The main bundle is the one holding the running executable. */
CFBundleRef CFBundleGetMainBundle(void);
CFURLRef CFBundleCopyBundleURL(CFBundleRef bundle);
CFURLRef CFBundleCopyExecutableURL(CFBundleRef bundle);
CFURLRef CFBundleCopyResourceURL(CFBundleRef bundle, CFStringRef resourceName, CFStringRef resourceType,
                                 CFStringRef subDirName);
CFStringRef CFBundleCopyLocalizedString(CFBundleRef bundle, CFStringRef key, CFStringRef value,
                                        CFStringRef tableName);

#ifdef __cplusplus
}
#endif

#endif
