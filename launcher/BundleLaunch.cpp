/* Where the launcher's bundle lies, and the start of the installed application. */

#include <stdlib.h>
#include <string.h>

#include "Common/Log.h"
#include "Launcher.h"
#include "bounded/bounded.h"

namespace {
constexpr char kContentsMarker[] = "/Contents";
constexpr char kOpenCommand[] = "open -a \"";
constexpr size_t kExecutablePathSize = 256;

int HexDigitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// The path part of a URL's text: what follows its scheme and host.
const char* URLPathPart(const char* text) {
    const char* afterScheme = strstr(text, "://");
    if (afterScheme == nullptr) {
        return text;
    }
    const char* path = strchr(afterScheme + 3, '/');
    return path != nullptr ? path : "";
}

// Systems before 10.5: the percent-decoded path of the bundle's own URL. The URL's text is
// taken whole, however long; a path too long for the caller's buffer is cut there.
bool GetBundlePathFromURL(CFBundleRef bundle, char* buffer, int32_t size) {
    CFURLRef bundleURL = CFBundleCopyBundleURL(bundle);
    if (bundleURL == nullptr) {
        return false;
    }
    CFStringRef text = CFURLGetString(bundleURL);
    size_t textSize =
        text == nullptr
            ? 1
            : CFStringGetMaximumSizeForEncoding(CFStringGetLength(text), kCFStringEncodingUTF8) + 1;
    // Zero-filled: URLToString writes no terminator, and decodes to no more than it reads.
    char* urlText = static_cast<char*>(calloc(textSize, 1));
    char* decoded = static_cast<char*>(calloc(textSize, 1));
    // A URL without text leaves the buffer as it is.
    bool read = urlText != nullptr && decoded != nullptr &&
                (text == nullptr || CFStringGetCString(text, urlText, textSize, kCFStringEncodingUTF8));
    CFRelease(bundleURL);
    if (read) {
        URLToString(URLPathPart(urlText), decoded);
        // The URL of a directory ends in "/"; the bundle path is given without it, as on
        // later systems.
        size_t length = strlen(decoded);
        if (length > 1 && decoded[length - 1] == '/') {
            decoded[length - 1] = '\0';
        }
        if (decoded[0] != '\0') {
            strncpy_s(buffer, size, decoded, size - 1);
        }
    }
    free(urlText);
    free(decoded);
    return read;
}
} // namespace

bool GetModulePath(char* buffer, int32_t size) {
    if (buffer == nullptr || size < 1) {
        Log(kMainSource, "GetModulePath", "param error");
        return false;
    }
    CFBundleRef bundle = CFBundleGetMainBundle();

    if (IsOldThanMacOS105()) {
        return GetBundlePathFromURL(bundle, buffer, size);
    }

    char executablePath[kExecutablePathSize] = {};
    CFURLRef executableURL = CFBundleCopyExecutableURL(bundle);
    bool havePath =
        executableURL != nullptr &&
        CFURLGetFileSystemRepresentation(executableURL, TRUE, reinterpret_cast<UInt8*>(executablePath),
                                         sizeof(executablePath));
    if (executableURL != nullptr) {
        CFRelease(executableURL);
    }
    if (!havePath) {
        Log(kMainSource, "GetModulePath", "Get app path failed.");
        return false;
    }

    char* contents = strrstr(executablePath, kContentsMarker);
    if (contents == nullptr) {
        Log(kMainSource, "GetModulePath", "strrstr error.");
        return false;
    }
    *contents = '\0';
    strncpy_s(buffer, size, executablePath, size - 1);
    return true;
}

char* strrstr(const char* haystack, const char* needle) {
    if (haystack == nullptr || needle == nullptr || needle[0] == '\0') {
        return nullptr;
    }
    const char* last = nullptr;
    // Each search starts one character after the previous match, so overlapping
    // occurrences count.
    for (const char* match = strstr(haystack, needle); match != nullptr; match = strstr(match + 1, needle)) {
        last = match;
    }
    return const_cast<char*>(last);
}

bool URLToString(const char* source, char* destination) {
    if (source == nullptr || destination == nullptr) {
        return false;
    }
    size_t length = strlen(source);
    size_t out = 0;
    for (size_t i = 0; i < length; i++) {
        int high = -1;
        int low = -1;
        if (source[i] == '%' && i + 2 < length) {
            high = HexDigitValue(source[i + 1]);
            low = HexDigitValue(source[i + 2]);
        }
        if (high >= 0 && low >= 0) {
            destination[out++] = static_cast<char>(high << 4 | low);
            i += 2;
        } else {
            // A malformed escape, or one cut short by the end of the text, stays as it is.
            destination[out++] = source[i];
        }
    }
    return true;
}

void AutoRunApplication() {
    char command[kPathSize] = {};
    QuitApplicationEventLoop();

    strncpy_s(command, sizeof(command), kOpenCommand, sizeof(command) - 1);
    strncat_s(command, sizeof(command), szAppPath, sizeof(command) - 1 - strlen(command));
    strncat_s(command, sizeof(command), "\"", sizeof(command) - 1 - strlen(command));
    system(command);

    Log(kMainSource, "AutoRunApplication", "AutoRunApplication end......");
}
