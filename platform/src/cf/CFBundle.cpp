/* Bundles: the folder that holds the running executable, its resources and its
 * localised string tables. */
#include "cf/CFInternal.h"

#include <dlfcn.h>

#include <PlatformTesting.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>
#include <vector>

struct __CFBundle {
    CFInternalBase base;
    std::string path;       /* bundle folder, no trailing "/" */
    std::string executable; /* absolute path of the executable */
    bool isApplication;     /* executable in <path>/Contents/MacOS or <path>/Contents/Linux */
};
static_assert(std::is_standard_layout_v<__CFBundle>, "the base must sit at the object's address");

static void FinalizeBundle(CFInternalBase* object) {
    delete reinterpret_cast<__CFBundle*>(object);
}

static const CFInternalClass kBundleClass = {kCFInternalBundleTypeID, "CFBundle", FinalizeBundle, nullptr};

static const __CFBundle* AsBundle(CFBundleRef bundle) {
    return reinterpret_cast<const __CFBundle*>(CFInternalCast(bundle, &kBundleClass));
}

CFTypeID CFBundleGetTypeID(void) {
    return kCFInternalBundleTypeID;
}

/* ---- The main bundle ---- */
static std::mutex gBundleLock;
static std::string gExecutableOverride; /* PlatSetExecutablePath; empty: /proc/self/exe */
static __CFBundle* gMainBundle;         /* made on first use; never freed, callers hold it unretained */
static auto* gFormerMainBundles =
    new std::vector<__CFBundle*>; /* replaced by PlatSetExecutablePath, still held */

static std::string RunningExecutablePath() {
    if (!gExecutableOverride.empty())
        return gExecutableOverride;
    char path[4096];
    ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0)
        return std::string();
    std::string text(path, static_cast<size_t>(length));
    static const std::string kDeleted = " (deleted)";
    if (text.size() > kDeleted.size() &&
        text.compare(text.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0)
        text.resize(text.size() - kDeleted.size());
    return text;
}

static std::string AbsolutePath(const std::string& path) {
    if (path.empty() || path[0] == '/')
        return path;
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) == nullptr)
        return std::string();
    return std::string(cwd) + "/" + path;
}

CFBundleRef CFBundleGetMainBundle(void) {
    std::lock_guard<std::mutex> guard(gBundleLock);
    if (gMainBundle != nullptr)
        return reinterpret_cast<CFBundleRef>(gMainBundle);
    std::string executable = AbsolutePath(RunningExecutablePath());
    size_t slash = executable.rfind('/');
    if (slash == std::string::npos || slash + 1 == executable.size())
        return nullptr;
    std::string folder = executable.substr(0, slash);
    /* One bundle carries the Mac program and the Linux one side by side. */
    static const std::string kProgramFolders[] = {"/Contents/MacOS", "/Contents/Linux"};
    auto* bundle = new __CFBundle;
    CFInternalInit(&bundle->base, &kBundleClass);
    bundle->base.immortal = true;
    bundle->executable = executable;
    bundle->isApplication = false;
    bundle->path = folder;
    for (const std::string& programs : kProgramFolders) {
        if (folder.size() >= programs.size() &&
            folder.compare(folder.size() - programs.size(), programs.size(), programs) == 0) {
            bundle->isApplication = true;
            bundle->path = folder.substr(0, folder.size() - programs.size());
        }
    }
    if (bundle->path.empty())
        bundle->path = "/";
    gMainBundle = bundle;
    return reinterpret_cast<CFBundleRef>(bundle);
}

void PlatSetExecutablePath(const char* path) {
    std::lock_guard<std::mutex> guard(gBundleLock);
    gExecutableOverride = path == nullptr ? std::string() : std::string(path);
    /* The old bundle stays allocated: callers may still hold it under the Get rule. */
    if (gMainBundle != nullptr)
        gFormerMainBundles->push_back(gMainBundle);
    gMainBundle = nullptr;
}

CFURLRef CFBundleCopyBundleURL(CFBundleRef bundle) {
    const __CFBundle* object = AsBundle(bundle);
    return object == nullptr ? nullptr : CFInternalURLCreateWithPath(object->path, true);
}

CFURLRef CFBundleCopyExecutableURL(CFBundleRef bundle) {
    const __CFBundle* object = AsBundle(bundle);
    return object == nullptr ? nullptr : CFInternalURLCreateWithPath(object->executable, false);
}

/* ---- Plug-ins ---- */
void* CFInternalOpenPlugIn(const char* fileName, const char* fallbackPath, const char* entryName,
                           std::string* error) {
    std::string inBundle;
    if (const __CFBundle* bundle = AsBundle(CFBundleGetMainBundle())) {
        inBundle = bundle->path + "/" + kCFInternalPlugInsFolder + "/" + fileName;
    }
    for (const std::string& path : {inBundle, std::string(fallbackPath)}) {
        if (path.empty()) {
            continue;
        }
        void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (module == nullptr) {
            const char* reason = dlerror();
            *error = reason != nullptr ? reason : path;
            continue;
        }
        if (void* entry = dlsym(module, entryName)) {
            return entry;
        }
        dlclose(module);
        *error = path + ": no " + entryName;
    }
    return nullptr;
}

/* ---- Languages ---- */
static std::string ResourcesFolder(const __CFBundle* bundle) {
    return bundle->isApplication ? bundle->path + "/Contents/Resources" : bundle->path;
}

std::string CFInternalUserLocale() {
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = getenv(variable);
        if (value != nullptr && value[0] != '\0') {
            std::string locale = value;
            return locale.substr(0, locale.find_first_of(".@"));
        }
    }
    return std::string();
}

/* The .lproj folder names to search, best first: the user's language (with its
 * region, then alone, then its old English name), then English. */
static std::vector<std::string> LocalizationFolders() {
    static const struct {
        const char* code;
        const char* name;
    } kOldNames[] = {{"en", "English"}, {"de", "German"},  {"fr", "French"}, {"ja", "Japanese"},
                     {"es", "Spanish"}, {"it", "Italian"}, {"nl", "Dutch"}};
    std::string locale = CFInternalUserLocale();
    std::vector<std::string> folders;
    auto add = [&folders](const std::string& name) {
        if (name.empty())
            return;
        for (const std::string& folder : folders) {
            if (folder == name + ".lproj")
                return;
        }
        folders.push_back(name + ".lproj");
    };
    std::string language = locale.substr(0, locale.find('_'));
    if (language != "C" && language != "POSIX" && language.find('/') == std::string::npos) {
        if (locale != language)
            add(locale);
        add(language);
        for (const auto& entry : kOldNames) {
            if (language == entry.code)
                add(entry.name);
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

static bool PathExists(const std::string& path, bool* isDirectory) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0)
        return false;
    *isDirectory = S_ISDIR(info.st_mode);
    return true;
}

CFURLRef CFBundleCopyResourceURL(CFBundleRef bundle, CFStringRef resourceName, CFStringRef resourceType,
                                 CFStringRef subDirName) {
    const __CFBundle* object = AsBundle(bundle);
    if (object == nullptr || CFInternalStringCharacters(resourceName) == nullptr)
        return nullptr;
    std::string name = CFInternalStringToUTF8(resourceName);
    std::string type = CFInternalStringToUTF8(resourceType);
    std::string subfolder = CFInternalStringToUTF8(subDirName);
    if (name.empty() || name.find('\0') != std::string::npos || type.find('\0') != std::string::npos ||
        subfolder.find('\0') != std::string::npos)
        return nullptr;
    if (!type.empty())
        name += type[0] == '.' ? type : "." + type;
    std::string relative = subfolder.empty() ? name : subfolder + "/" + name;

    std::string resources = ResourcesFolder(object);
    std::vector<std::string> candidates = {resources + "/" + relative};
    for (const std::string& folder : LocalizationFolders())
        candidates.push_back(resources + "/" + folder + "/" + relative);
    for (const std::string& path : candidates) {
        bool isDirectory;
        if (PathExists(path, &isDirectory))
            return CFInternalURLCreateWithPath(path, isDirectory);
    }
    return nullptr;
}

/* ---- Localised strings ---- */
/* A string table is a few kilobytes; anything near this is not one. */
static constexpr size_t kMaxTableBytes = 4u << 20;

static bool ReadWholeFile(const std::string& path, std::string& bytes) {
    return CFInternalReadRegularFile(path, kMaxTableBytes, bytes);
}

CFStringRef CFBundleCopyLocalizedString(CFBundleRef bundle, CFStringRef key, CFStringRef value,
                                        CFStringRef tableName) {
    /* Neither a key found nor a value to fall back on: the key itself. */
    auto fallback = [&]() -> CFStringRef {
        CFStringRef answer = CFStringGetLength(value) > 0 || key == nullptr ? value : key;
        return answer == nullptr ? nullptr : static_cast<CFStringRef>(CFRetain(answer));
    };
    const __CFBundle* object = AsBundle(bundle);
    const std::u16string* keyCharacters = CFInternalStringCharacters(key);
    if (object == nullptr || keyCharacters == nullptr)
        return fallback();
    std::string table = tableName == nullptr ? "Localizable" : CFInternalStringToUTF8(tableName);
    if (table.empty() || table.find('/') != std::string::npos || table.find('\0') != std::string::npos)
        return fallback();

    std::string resources = ResourcesFolder(object);
    std::vector<std::string> files;
    for (const std::string& folder : LocalizationFolders())
        files.push_back(resources + "/" + folder + "/" + table + ".strings");
    files.push_back(resources + "/" + table + ".strings");

    std::string bytes;
    CFInternalStringsTable entries;
    for (const std::string& path : files) {
        if (!ReadWholeFile(path, bytes) || !CFInternalParseStringsTable(bytes, entries))
            continue;
        auto found = entries.find(*keyCharacters);
        if (found != entries.end())
            return CFInternalStringCreateWithCharacters(found->second);
    }
    return fallback();
}
