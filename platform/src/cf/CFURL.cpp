/* File URLs: an absolute path and the URL text written for it. */
#include "cf/PlatCF.h"

#include <cstring>
#include <unistd.h>

struct __CFURL {
    PlatCFBase base;
    std::string path;             /* file-system form, no trailing "/" except the root */
    CFStringRef string = nullptr; /* "file://localhost" + encoded path (+ "/" for a directory) */
    ~__CFURL() { CFRelease(string); }
};

namespace {

using URLKind = PlatCFKind<__CFURL>;

/* Every byte outside the unreserved characters and "/" is written as %XX with
 * upper-case digits, the form the launcher decodes. */
std::string EncodePath(const std::string& path) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string text;
    for (unsigned char byte : path) {
        bool plain = (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
                     (byte >= '0' && byte <= '9') || byte == '-' || byte == '.' || byte == '_' ||
                     byte == '~' || byte == '/';
        if (plain) {
            text.push_back(static_cast<char>(byte));
        } else {
            text.push_back('%');
            text.push_back(kHex[byte >> 4]);
            text.push_back(kHex[byte & 0x0F]);
        }
    }
    return text;
}

} // namespace

CFURLRef PlatCFURLCreateWithPath(const std::string& path, bool isDirectory) {
    if (path.empty()) {
        return nullptr;
    }
    std::string absolute = path;
    if (absolute[0] != '/') {
        char cwd[4096];
        if (getcwd(cwd, sizeof cwd) == nullptr) {
            return nullptr;
        }
        absolute = std::string(cwd) + "/" + absolute;
    }
    while (absolute.size() > 1 && absolute.back() == '/') {
        absolute.pop_back();
    }

    std::string text = "file://localhost" + EncodePath(absolute);
    if (isDirectory && absolute != "/") {
        text.push_back('/');
    }
    /* Encoded text is plain ASCII, so this cannot fail. */
    CFStringRef string = PlatCFStringCreateWithUTF8(text);

    __CFURL* url = URLKind::New();
    url->path = std::move(absolute);
    url->string = string;
    return reinterpret_cast<CFURLRef>(url);
}

const std::string* PlatCFURLPath(CFURLRef url) {
    const __CFURL* object = URLKind::Cast(url);
    return object == nullptr ? nullptr : &object->path;
}

CFURLRef CFURLCreateWithFileSystemPath(CFAllocatorRef, CFStringRef filePath, CFURLPathStyle pathStyle,
                                       Boolean isDirectory) {
    if (pathStyle != kCFURLPOSIXPathStyle || PlatCFStringCharacters(filePath) == nullptr) {
        return nullptr;
    }
    std::string path = PlatCFStringToUTF8(filePath);
    if (path.find('\0') != std::string::npos) {
        return nullptr;
    }
    return PlatCFURLCreateWithPath(path, isDirectory);
}

CFStringRef CFURLGetString(CFURLRef anURL) {
    const __CFURL* object = URLKind::Cast(anURL);
    return object == nullptr ? nullptr : object->string;
}

Boolean CFURLGetFileSystemRepresentation(CFURLRef url, Boolean, UInt8* buffer, CFIndex maxBufLen) {
    const __CFURL* object = URLKind::Cast(url);
    if (object == nullptr || buffer == nullptr || maxBufLen <= 0) {
        return false;
    }
    if (static_cast<CFIndex>(object->path.size()) >= maxBufLen) {
        return false;
    }
    std::memcpy(buffer, object->path.c_str(), object->path.size() + 1);
    return true;
}
