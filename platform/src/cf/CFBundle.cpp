/* Bundles: the folder that holds the running executable, its resources and its
 * localised string tables. */
#include "cf/PlatCF.h"

#include <dlfcn.h>

#include <PlatformTesting.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

struct __CFBundle {
    PlatCFBase base;
    std::string path;       /* bundle folder, no trailing "/" */
    std::string executable; /* absolute path of the executable */
    bool isApplication;     /* executable in <path>/Contents/MacOS or <path>/Contents/Linux */
};

namespace {

using BundleKind = PlatCFKind<__CFBundle>;

/* ---- The main bundle ---- */
std::mutex gBundleLock;
std::string gExecutableOverride; /* PlatSetExecutablePath; empty: /proc/self/exe */
__CFBundle* gMainBundle;         /* made on first use; never freed, callers hold it unretained */
/* Bundles replaced by PlatSetExecutablePath, still held by callers. */
auto* gFormerMainBundles = new std::vector<__CFBundle*>;

std::string RunningExecutablePath() {
    if (!gExecutableOverride.empty()) {
        return gExecutableOverride;
    }
    char path[4096];
    ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0) {
        return std::string();
    }
    std::string text(path, static_cast<size_t>(length));
    static const std::string kDeleted = " (deleted)";
    if (text.size() > kDeleted.size() &&
        text.compare(text.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0) {
        text.resize(text.size() - kDeleted.size());
    }
    return text;
}

std::string AbsolutePath(const std::string& path) {
    if (path.empty() || path[0] == '/') {
        return path;
    }
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) == nullptr) {
        return std::string();
    }
    return std::string(cwd) + "/" + path;
}

} // namespace

CFBundleRef CFBundleGetMainBundle(void) {
    std::lock_guard<std::mutex> guard(gBundleLock);
    if (gMainBundle != nullptr) {
        return reinterpret_cast<CFBundleRef>(gMainBundle);
    }
    std::string executable = AbsolutePath(RunningExecutablePath());
    size_t slash = executable.rfind('/');
    if (slash == std::string::npos || slash + 1 == executable.size()) {
        return nullptr;
    }
    std::string folder = executable.substr(0, slash);
    /* The Mac's program and the Linux one sit side by side in the same bundle. */
    bool isApplication = false;
    for (const std::string suffix : {"/Contents/MacOS", "/Contents/Linux"}) {
        if (folder.size() >= suffix.size() &&
            folder.compare(folder.size() - suffix.size(), suffix.size(), suffix) == 0) {
            isApplication = true;
            folder.resize(folder.size() - suffix.size());
            break;
        }
    }
    __CFBundle* bundle = BundleKind::New();
    bundle->base.immortal = true;
    bundle->executable = executable;
    bundle->isApplication = isApplication;
    bundle->path = folder;
    if (bundle->path.empty()) {
        bundle->path = "/";
    }
    gMainBundle = bundle;
    return reinterpret_cast<CFBundleRef>(bundle);
}

void PlatSetExecutablePath(const char* path) {
    std::lock_guard<std::mutex> guard(gBundleLock);
    gExecutableOverride = path == nullptr ? std::string() : std::string(path);
    /* The old bundle stays allocated: callers may still hold it under the Get rule. */
    if (gMainBundle != nullptr) {
        gFormerMainBundles->push_back(gMainBundle);
    }
    gMainBundle = nullptr;
}

CFURLRef CFBundleCopyBundleURL(CFBundleRef bundle) {
    const __CFBundle* object = BundleKind::Cast(bundle);
    return object == nullptr ? nullptr : PlatCFURLCreateWithPath(object->path, true);
}

CFURLRef CFBundleCopyExecutableURL(CFBundleRef bundle) {
    const __CFBundle* object = BundleKind::Cast(bundle);
    return object == nullptr ? nullptr : PlatCFURLCreateWithPath(object->executable, false);
}

namespace {

/* ---- Languages ---- */
std::string ResourcesFolder(const __CFBundle* bundle) {
    return bundle->isApplication ? bundle->path + "/Contents/Resources" : bundle->path;
}

} // namespace

std::string PlatCFUserLocale() {
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = getenv(variable);
        if (value != nullptr && value[0] != '\0') {
            std::string locale = value;
            return locale.substr(0, locale.find_first_of(".@"));
        }
    }
    return std::string();
}

namespace {

/* The .lproj folder names to search, best first: the user's language (with its
 * region, then alone, then its old English name), then English. */
std::vector<std::string> LocalizationFolders() {
    static const struct {
        const char* code;
        const char* name;
    } kOldNames[] = {{"en", "English"}, {"de", "German"},  {"fr", "French"}, {"ja", "Japanese"},
                     {"es", "Spanish"}, {"it", "Italian"}, {"nl", "Dutch"}};
    std::string locale = PlatCFUserLocale();
    std::vector<std::string> folders;
    auto add = [&folders](const std::string& name) {
        if (name.empty()) {
            return;
        }
        for (const std::string& folder : folders) {
            if (folder == name + ".lproj") {
                return;
            }
        }
        folders.push_back(name + ".lproj");
    };
    std::string language = locale.substr(0, locale.find('_'));
    if (language != "C" && language != "POSIX" && language.find('/') == std::string::npos) {
        if (locale != language) {
            add(locale);
        }
        add(language);
        for (const auto& entry : kOldNames) {
            if (language == entry.code) {
                add(entry.name);
            }
        }
        /* Chinese folders go by script, or by the region that stands for it. */
        if (language == "zh") {
            std::string region = locale.substr(std::min(locale.size(), language.size() + 1));
            bool traditional = region == "TW" || region == "HK" || region == "MO" || region == "Hant";
            add(traditional ? "zh-Hant" : "zh-Hans");
            add(traditional ? "zh_TW" : "zh_CN");
        }
    }
    add("en");
    add("English");
    return folders;
}

bool PathExists(const std::string& path, bool* isDirectory) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
        return false;
    }
    *isDirectory = S_ISDIR(info.st_mode);
    return true;
}

} // namespace

CFURLRef CFBundleCopyResourceURL(CFBundleRef bundle, CFStringRef resourceName, CFStringRef resourceType,
                                 CFStringRef subDirName) {
    const __CFBundle* object = BundleKind::Cast(bundle);
    if (object == nullptr || PlatCFStringCharacters(resourceName) == nullptr) {
        return nullptr;
    }
    std::string name = PlatCFStringToUTF8(resourceName);
    std::string type = PlatCFStringToUTF8(resourceType);
    std::string subfolder = PlatCFStringToUTF8(subDirName);
    if (name.empty() || name.find('\0') != std::string::npos || type.find('\0') != std::string::npos ||
        subfolder.find('\0') != std::string::npos) {
        return nullptr;
    }
    if (!type.empty()) {
        name += type[0] == '.' ? type : "." + type;
    }
    std::string relative = subfolder.empty() ? name : subfolder + "/" + name;

    std::string resources = ResourcesFolder(object);
    std::vector<std::string> candidates = {resources + "/" + relative};
    for (const std::string& folder : LocalizationFolders()) {
        candidates.push_back(resources + "/" + folder + "/" + relative);
    }
    for (const std::string& path : candidates) {
        bool isDirectory;
        if (PathExists(path, &isDirectory)) {
            return PlatCFURLCreateWithPath(path, isDirectory);
        }
    }
    return nullptr;
}

/* ---- Localised strings ---- */
namespace {

/* A string table is a few kilobytes; anything near this is not one. */
constexpr size_t kMaxTableBytes = 4u << 20;

bool ReadWholeFile(const std::string& path, std::string& bytes) {
    return PlatCFReadRegularFile(path, kMaxTableBytes, bytes);
}

} // namespace

CFStringRef CFBundleCopyLocalizedString(CFBundleRef bundle, CFStringRef key, CFStringRef value,
                                        CFStringRef tableName) {
    /* Neither a key found nor a value to fall back on: the key itself. */
    auto fallback = [&]() -> CFStringRef {
        CFStringRef answer = CFStringGetLength(value) > 0 || key == nullptr ? value : key;
        return answer == nullptr ? nullptr : static_cast<CFStringRef>(CFRetain(answer));
    };
    const __CFBundle* object = BundleKind::Cast(bundle);
    const std::u16string* keyCharacters = PlatCFStringCharacters(key);
    if (object == nullptr || keyCharacters == nullptr) {
        return fallback();
    }
    std::string table = tableName == nullptr ? "Localizable" : PlatCFStringToUTF8(tableName);
    if (table.empty() || table.find('/') != std::string::npos || table.find('\0') != std::string::npos) {
        return fallback();
    }

    std::string resources = ResourcesFolder(object);
    std::vector<std::string> files;
    for (const std::string& folder : LocalizationFolders()) {
        files.push_back(resources + "/" + folder + "/" + table + ".strings");
    }
    files.push_back(resources + "/" + table + ".strings");

    std::string bytes;
    PlatCFStringsTable entries;
    for (const std::string& path : files) {
        if (!ReadWholeFile(path, bytes) || !PlatCFParseStringsTable(bytes, entries)) {
            continue;
        }
        auto found = entries.find(*keyCharacters);
        if (found != entries.end()) {
            return PlatCFStringCreateWithCharacters(found->second);
        }
    }
    return fallback();
}
