/* bundle-check BUNDLE: reads every language folder of an assembled Launcher.app with the
 * launcher's own nib and string-table readers, and says what a user of that language would
 * miss: the question boxes, the progress window, or the texts in them.
 *
 * Each folder is read alone, as if it were the only language of the bundle, so that the
 * English fallback of the readers hides nothing.
 *
 * Exit status: 0 nothing to report, 1 warnings, 2 errors (the disc would fail every user who
 * falls back to English), 3 usage. */
#include <Carbon/Carbon.h>
#include <CoreFoundation/CoreFoundation.h>
#include <PlatformTesting.h>

#include "CheckStatus.h"

#include <dirent.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

constexpr const char* kNibFile = "main.nib/objects.xib";
constexpr const char* kStringsFile = "custom.strings";
constexpr const char* kTextKeys[] = {"NEW_VERSION_CONFIRM", "DIFFERENT_VERSION_CONFIRM", "INSTALL_DRIVER"};

struct RequiredControl {
    OSType signature;
    const char* name;
};

struct RequiredWindow {
    const char* name;
    const char* withoutIt; // what a user of the language loses when the window cannot be made
    std::vector<RequiredControl> controls;
};

const std::vector<RequiredWindow>& RequiredWindows() {
    static const std::vector<RequiredWindow> windows = {
        {"MessageBox",
         "the \"newer version\" question is never asked",
         {{'YES1', "YES1"}, {'NO11', "NO11"}, {'MSG1', "MSG1"}}},
        {"MessageBox_Installed",
         "the \"different version\" question is never asked",
         {{'YES1', "YES1"}, {'NO11', "NO11"}, {'MSG1', "MSG1"}}},
        {"WarnningBox_Installed",
         "the \"already installed\" box is never shown",
         {{'YES2', "YES2"}, {'MSG1', "MSG1"}}},
        {"ProgressWindow", "no progress window is shown while the package is copied", {}},
    };
    return windows;
}

int gStatus = kClean;

void Report(bool isError, const std::string& text) {
    printf("%s: %s\n", isError ? "error" : "warning", text.c_str());
    gStatus = std::max(gStatus, isError ? kUnreadable : kWarnings);
}

bool IsFile(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool IsFolder(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool IsEnglish(const std::string& folder) {
    return folder == "en.lproj" || folder == "English.lproj";
}

// A scratch bundle whose only language is the given folder (as en.lproj, the readers' last
// resort), made the main bundle of this process.
class LoneLanguage {
  public:
    LoneLanguage(const std::string& scratch, int index, const std::string& folder) {
        root_ = scratch + "/" + std::to_string(index);
        std::string resources = root_ + "/Contents/Resources";
        made_ = mkdir(root_.c_str(), 0700) == 0 && mkdir((root_ + "/Contents").c_str(), 0700) == 0 &&
                mkdir(resources.c_str(), 0700) == 0 &&
                symlink(folder.c_str(), (resources + "/en.lproj").c_str()) == 0;
        PlatSetExecutablePath((root_ + "/Contents/MacOS/Launcher").c_str());
    }
    ~LoneLanguage() {
        PlatSetExecutablePath(nullptr);
        std::string resources = root_ + "/Contents/Resources";
        unlink((resources + "/en.lproj").c_str());
        rmdir(resources.c_str());
        rmdir((root_ + "/Contents").c_str());
        rmdir(root_.c_str());
    }
    bool made() const { return made_; }

  private:
    std::string root_;
    bool made_ = false;
};

// The windows of the folder's nib and the controls the launcher looks up in them; the
// problems found, each naming what the user loses.
std::vector<std::string> CheckNib() {
    std::vector<std::string> problems;
    IBNibRef nib = nullptr;
    OSStatus status = CreateNibReference(CFSTR("main"), &nib);
    if (status != noErr || nib == nullptr) {
        problems.push_back(std::string(kNibFile) + " cannot be read (error " + std::to_string(status) +
                           "): no question box and no progress window");
        return problems;
    }
    for (const RequiredWindow& required : RequiredWindows()) {
        CFStringRef name = CFStringCreateWithCString(nullptr, required.name, kCFStringEncodingUTF8);
        WindowRef window = nullptr;
        status = CreateWindowFromNib(nib, name, &window);
        CFRelease(name);
        if (status != noErr || window == nullptr) {
            problems.push_back("window \"" + std::string(required.name) + "\" cannot be made (error " +
                               std::to_string(status) + "): " + required.withoutIt);
            continue;
        }
        for (const RequiredControl& control : required.controls) {
            ControlID id = {control.signature, 1};
            ControlRef found = nullptr;
            if (GetControlByID(window, &id, &found) != noErr || found == nullptr) {
                problems.push_back("window \"" + std::string(required.name) + "\" has no control \"" +
                                   control.name + "\" with id 1: " + required.withoutIt);
            }
        }
        DisposeWindow(window);
    }
    DisposeNibReference(nib);
    return problems;
}

// The keys missing from the folder's string table; all of them when it cannot be read.
std::vector<std::string> MissingTexts() {
    const CFStringRef kNoText = CFSTR("\x01");
    std::vector<std::string> missing;
    CFBundleRef bundle = CFBundleGetMainBundle();
    for (const char* key : kTextKeys) {
        CFStringRef keyString = CFStringCreateWithCString(nullptr, key, kCFStringEncodingUTF8);
        // A key the table lacks comes back as the value given, which no table holds.
        CFStringRef text = CFBundleCopyLocalizedString(bundle, keyString, kNoText, CFSTR("custom"));
        if (text == nullptr || CFEqual(text, kNoText) || CFStringGetLength(text) == 0) {
            missing.push_back(key);
        }
        if (text != nullptr) {
            CFRelease(text);
        }
        CFRelease(keyString);
    }
    return missing;
}

std::string Joined(const std::vector<std::string>& items) {
    std::string text;
    for (const std::string& item : items) {
        text += (text.empty() ? "" : ", ") + item;
    }
    return text;
}

// Reports what the users of one language folder would miss; *englishNib is set when it is an
// English folder with a nib (whose problems are errors).
void CheckLanguage(const std::string& resources, const std::string& folder, int index,
                   const std::string& scratch, bool* englishNib) {
    const std::string path = resources + "/" + folder;
    const bool hasNib = IsFile(path + "/" + kNibFile);
    const bool hasTexts = IsFile(path + "/" + kStringsFile);
    const std::string users =
        IsEnglish(folder) ? "users of English and of every language without a nib" : "users of " + folder;
    if (!hasNib && !hasTexts) {
        Report(false, folder + " holds neither " + kNibFile + " nor " + kStringsFile +
                          ": it changes nothing for its users");
        return;
    }
    if (!hasNib) {
        Report(false, folder + " has texts but no " + kNibFile + ": " + users +
                          " see these texts in the English windows (English buttons and titles); "
                          "add a translated copy of en.lproj/" +
                          kNibFile);
    }
    if (!hasTexts) {
        Report(false, folder + " has a nib but no " + kStringsFile + ": " + users +
                          " see the English texts in these windows; add a translated " + kStringsFile);
    }

    LoneLanguage alone(scratch, index, path);
    if (!alone.made()) {
        Report(true, folder + ": cannot make a scratch bundle to read it in " + scratch);
        return;
    }
    if (hasNib) {
        // Without the English nib, everyone who falls back to English gets no box.
        for (const std::string& problem : CheckNib()) {
            Report(IsEnglish(folder), folder + ": " + problem + " for " + users);
        }
        *englishNib = *englishNib || IsEnglish(folder);
    }
    if (hasTexts) {
        // A text no table has is shown as its key.
        const std::string instead =
            IsEnglish(folder) ? " see the key's name instead" : " see the English text";
        std::vector<std::string> missing = MissingTexts();
        if (missing.size() == std::size(kTextKeys)) {
            Report(false, folder + ": " + kStringsFile +
                              " cannot be read (it must be \"KEY\" = \"text\"; lines in UTF-8, or UTF-16 "
                              "with a byte-order mark): " +
                              users + instead);
        } else if (!missing.empty()) {
            Report(false,
                   folder + ": " + kStringsFile + " lacks " + Joined(missing) + ": " + users + instead);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2 || argv[1][0] == '-') {
        fputs("usage: bundle-check Launcher.app\n", stderr);
        return kUsage;
    }
    // The readers take the user's language from the environment: only English is wanted here.
    setenv("LC_ALL", "C", 1);
    unsetenv("LC_MESSAGES");
    unsetenv("LANG");
    PlatSetBackend("scripted"); // windows are made and never shown

    // The scratch bundles link to the folders, so the path must not depend on the current folder.
    char bundle[PATH_MAX];
    if (realpath(argv[1], bundle) == nullptr) {
        fprintf(stderr, "bundle-check: %s: no such bundle\n", argv[1]);
        return kUnreadable;
    }
    const std::string resources = std::string(bundle) + "/Contents/Resources";
    DIR* listing = opendir(resources.c_str());
    if (listing == nullptr) {
        fprintf(stderr, "bundle-check: %s: no such folder\n", resources.c_str());
        return kUnreadable;
    }
    std::vector<std::string> folders;
    while (const dirent* entry = readdir(listing)) {
        std::string name = entry->d_name;
        if (name.size() > 6 && name.compare(name.size() - 6, 6, ".lproj") == 0 &&
            IsFolder(resources + "/" + name)) {
            folders.push_back(name);
        }
    }
    closedir(listing);
    std::sort(folders.begin(), folders.end());

    const char* tmp = getenv("TMPDIR");
    std::string scratch =
        std::string(tmp != nullptr && tmp[0] == '/' ? tmp : "/tmp") + "/bundle-check.XXXXXX";
    if (mkdtemp(&scratch[0]) == nullptr) {
        fprintf(stderr, "bundle-check: cannot make a scratch folder in %s\n", scratch.c_str());
        return kUnreadable;
    }
    bool englishNib = false;
    for (size_t i = 0; i < folders.size(); i++) {
        CheckLanguage(resources, folders[i], static_cast<int>(i), scratch, &englishNib);
    }
    rmdir(scratch.c_str());
    if (!englishNib) {
        Report(true, "no readable English nib (en.lproj/" + std::string(kNibFile) +
                         "): users whose language has no nib of its own get no question box, and the "
                         "installed copy starts without one");
    }
    printf("bundle-check: %zu language folder(s) read\n", folders.size());
    return gStatus;
}
