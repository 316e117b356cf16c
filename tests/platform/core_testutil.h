/* Helpers of the foundation tests: scratch folders and files, and CF text. */
#ifndef TESTS_PLATFORM_CORE_TESTUTIL_H
#define TESTS_PLATFORM_CORE_TESTUTIL_H

#include <CoreFoundation/CoreFoundation.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

/* A fresh folder under the temporary directory, removed with everything in it. */
class ScratchFolder {
  public:
    ScratchFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kestrun-core-XXXXXX").string();
        if (mkdtemp(pattern.data()) != nullptr)
            path_ = pattern;
    }
    ~ScratchFolder() {
        std::error_code ignored;
        if (!path_.empty())
            std::filesystem::remove_all(path_, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

/* Writes bytes to path, creating the folders on the way. */
inline void WriteFile(const std::string& path, const std::string& bytes) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

/* The string as UTF-8, or "<null>" / "<unencodable>" so failures print readably. */
inline std::string UTF8(CFStringRef string) {
    if (string == nullptr)
        return "<null>";
    std::string buffer(static_cast<size_t>(CFStringGetLength(string)) * 3 + 1, '\0');
    if (!CFStringGetCString(string, buffer.data(), static_cast<CFIndex>(buffer.size()),
                            kCFStringEncodingUTF8))
        return "<unencodable>";
    buffer.resize(buffer.find('\0'));
    return buffer;
}

/* The text of a URL, "<null>" for none; the URL is released. */
inline std::string TakeURLText(CFURLRef url) {
    if (url == nullptr)
        return "<null>";
    std::string text = UTF8(CFURLGetString(url));
    CFRelease(url);
    return text;
}

/* The file-system path of a URL, "<null>" for none; the URL is released. */
inline std::string TakeURLPath(CFURLRef url) {
    if (url == nullptr)
        return "<null>";
    UInt8 buffer[4096] = {};
    bool ok = CFURLGetFileSystemRepresentation(url, true, buffer, sizeof buffer);
    CFRelease(url);
    return ok ? std::string(reinterpret_cast<char*>(buffer)) : "<too long>";
}

inline CFURLRef MakeFileURL(const std::string& path) {
    CFStringRef text = CFStringCreateWithCString(nullptr, path.c_str(), kCFStringEncodingUTF8);
    CFURLRef url = CFURLCreateWithFileSystemPath(nullptr, text, kCFURLPOSIXPathStyle, false);
    CFRelease(text);
    return url;
}

#endif
