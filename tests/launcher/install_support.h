/* Shared pieces of the installation tests: temporary folders, a launcher bundle laid out
 * on disk with the real resources, and the log file read back. */
#ifndef TESTS_LAUNCHER_INSTALL_SUPPORT_H
#define TESTS_LAUNCHER_INSTALL_SUPPORT_H

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace install_test {

namespace fs = std::filesystem;

// A folder under /tmp, removed with everything in it when the object goes.
class TempDir {
  public:
    TempDir() {
        char pattern[] = "/tmp/kestrun-install-XXXXXX";
        const char* made = mkdtemp(pattern);
        path_ = made != nullptr ? made : "";
    }
    ~TempDir() {
        std::error_code ignored;
        if (!path_.empty()) {
            fs::remove_all(path_, ignored);
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

  private:
    std::string path_;
};

inline void WriteFile(const std::string& path, const std::string& text, bool executable = false) {
    fs::create_directories(fs::path(path).parent_path());
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << text;
    }
    if (executable) {
        chmod(path.c_str(), 0755);
    }
}

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

// One log line: "line N===date time   source:function --- message".
struct LogEntry {
    std::string source, function, message;
};

inline std::vector<LogEntry> ReadLog(const std::string& path) {
    std::vector<LogEntry> entries;
    std::istringstream in(ReadFile(path));
    std::string line;
    while (std::getline(in, line)) {
        size_t head = line.find("   ");
        size_t separator = line.find(" --- ");
        if (head == std::string::npos || separator == std::string::npos || separator < head) {
            continue;
        }
        std::string origin = line.substr(head + 3, separator - head - 3);
        size_t colon = origin.rfind(':');
        LogEntry entry;
        entry.source = colon == std::string::npos ? origin : origin.substr(0, colon);
        entry.function = colon == std::string::npos ? "" : origin.substr(colon + 1);
        entry.message = line.substr(separator + 5);
        entries.push_back(entry);
    }
    return entries;
}

inline std::vector<std::string> Messages(const std::vector<LogEntry>& entries) {
    std::vector<std::string> messages;
    for (const LogEntry& entry : entries) {
        messages.push_back(entry.message);
    }
    return messages;
}

// Index of the first message equal to text at or after from; -1 when there is none.
inline int FindMessage(const std::vector<LogEntry>& entries, const std::string& text, int from = 0) {
    for (size_t i = from < 0 ? 0 : from; i < entries.size(); ++i) {
        if (entries[i].message == text) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

// A "SysConfig.dat" of a package or an installed application.
inline std::string SysConfig(int vr, int build, int debug, int sp, int customize, int major,
                             const std::string& appPath = "", const std::string& showProgress = "") {
    std::ostringstream text;
    text << "[System]\nVRVersion=" << vr << "\nBuildVersion=" << build << "\nDebugVersion=" << debug
         << "\nSPVersion=" << sp << "\nCustomizeVersion=" << customize << "\nMajorVersion=" << major << "\n";
    if (!appPath.empty()) {
        text << "[APP_PATH]\nVALUE=" << appPath << "\nRUN_PROCESS_DLG=" << showProgress << "\n";
    }
    return text.str();
}

// Copies the bundle's resources from the source tree into bundle/Contents/Resources.
inline void CopySourceResources(const std::string& bundle, bool withPicture = true) {
    const std::string source = std::string(KESTRUN_SOURCE_DIR) + "/resources/";
    const std::string resources = bundle + "/Contents/Resources/";
    std::vector<std::string> files = {"main.nib", "en.lproj/custom.strings", "de.lproj/custom.strings"};
    if (withPicture) {
        files.push_back("Installer.png");
    }
    for (const std::string& file : files) {
        fs::create_directories(fs::path(resources + file).parent_path());
        fs::copy_file(source + file, resources + file, fs::copy_options::overwrite_existing);
    }
}

// A minimal launcher bundle at path: an executable placeholder and its Info.plist.
inline void MakeBundleSkeleton(const std::string& bundle) {
    WriteFile(bundle + "/Contents/MacOS/Launcher", "#!/bin/sh\n", true);
    WriteFile(bundle + "/Contents/Info.plist",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
              "<key>CFBundleExecutable</key><string>Launcher</string>"
              "<key>CFBundleName</key><string>Launcher</string></dict></plist>\n");
}

// Keeps one of the fixed paths of the system out of the way for a test: whatever is there
// is moved aside, and put back when the object goes.
class FixedPathGuard {
  public:
    explicit FixedPathGuard(const std::string& path) : path_(path), aside_(path + ".kestrun-test-aside") {
        std::error_code ignored;
        fs::remove_all(aside_, ignored);
        moved_ = fs::exists(fs::symlink_status(path_)) && (fs::rename(path_, aside_, ignored), !ignored);
    }
    ~FixedPathGuard() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
        if (moved_) {
            fs::rename(aside_, path_, ignored);
        }
    }
    FixedPathGuard(const FixedPathGuard&) = delete;
    FixedPathGuard& operator=(const FixedPathGuard&) = delete;

  private:
    std::string path_, aside_;
    bool moved_ = false;
};

// The command lines given to system since the last clear (in-process tests, where
// system is wrapped and runs nothing).
std::vector<std::string> RecordedCommands();
void ClearRecordedCommands();

} // namespace install_test

#endif
