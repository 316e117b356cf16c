/* Shared pieces of the launcher core's tests: temporary folders, files, the log file
 * read back line by line, and child processes under chosen names. */
#ifndef TESTS_LAUNCHER_CORE_SUPPORT_H
#define TESTS_LAUNCHER_CORE_SUPPORT_H

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace core_test {

namespace fs = std::filesystem;

// A folder under /tmp removed with everything in it when the object goes.
class TempDir {
  public:
    TempDir() {
        char pattern[] = "/tmp/kestrun-core-XXXXXX";
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

inline void WriteFile(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

inline bool ReadFile(const std::string& path, std::string* text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream content;
    content << in.rdbuf();
    *text = content.str();
    return true;
}

inline std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

// A "SysConfig.dat" text with the six version keys in section "System".
inline std::string VersionSection(int vr, int build, int debug, int sp, int customize, int major) {
    std::ostringstream text;
    text << "[System]\nVRVersion=" << vr << "\nBuildVersion=" << build << "\nDebugVersion=" << debug
         << "\nSPVersion=" << sp << "\nCustomizeVersion=" << customize << "\nMajorVersion=" << major << "\n";
    return text.str();
}

// One line of the log file, taken apart.
struct LogLine {
    int number = 0;
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    std::string tag, function, message;
};

// Parses "line N===Y-M-D h:m:s   tag:function --- message"; false when the line has
// another form.
inline bool ParseLogLine(const std::string& text, LogLine* line) {
    static const std::regex pattern(
        R"(^line ([0-9]+)===([0-9]+)-([0-9]+)-([0-9]+) ([0-9]+):([0-9]+):([0-9]+)   ([^:]*):([^ ]*) --- (.*)$)");
    std::smatch match;
    if (!std::regex_match(text, match, pattern)) {
        return false;
    }
    line->number = std::stoi(match[1]);
    line->year = std::stoi(match[2]);
    line->month = std::stoi(match[3]);
    line->day = std::stoi(match[4]);
    line->hour = std::stoi(match[5]);
    line->minute = std::stoi(match[6]);
    line->second = std::stoi(match[7]);
    line->tag = match[8];
    line->function = match[9];
    line->message = match[10];
    return true;
}

// The time of a log line as a calendar time, local time like the log's.
inline time_t LogLineTime(const LogLine& line) {
    struct tm fields = {};
    fields.tm_year = line.year - 1900;
    fields.tm_mon = line.month - 1;
    fields.tm_mday = line.day;
    fields.tm_hour = line.hour;
    fields.tm_min = line.minute;
    fields.tm_sec = line.second;
    fields.tm_isdst = -1;
    return mktime(&fields);
}

// "function --- message" for each line, the form most tests compare.
inline std::vector<std::string> FunctionsAndMessages(const std::vector<LogLine>& lines) {
    std::vector<std::string> result;
    for (const LogLine& line : lines) {
        result.push_back(line.function + " --- " + line.message);
    }
    return result;
}

// Reads a log file; lines that do not parse come back with number 0 and the raw
// text as their message, so that a comparison shows them.
inline std::vector<LogLine> ReadLog(const std::string& path) {
    std::vector<LogLine> lines;
    std::string text;
    if (!ReadFile(path, &text)) {
        return lines;
    }
    for (const std::string& raw : SplitLines(text)) {
        // A message that ends in a line feed of its own leaves an empty text line.
        if (raw.empty() && !lines.empty()) {
            lines.back().message += "\n";
            continue;
        }
        LogLine line;
        if (!ParseLogLine(raw, &line)) {
            line = LogLine();
            line.message = raw;
        }
        lines.push_back(line);
    }
    return lines;
}

// A copy of /bin/sleep running under the given command name, ended with the object.
class NamedProcess {
  public:
    NamedProcess(const std::string& folder, const std::string& name) {
        std::string program = folder + "/" + name;
        std::error_code error;
        fs::create_directories(folder, error);
        fs::copy_file("/bin/sleep", program, fs::copy_options::overwrite_existing, error);
        char* argv[] = {const_cast<char*>(program.c_str()), const_cast<char*>("60"), nullptr};
        if (posix_spawn(&pid_, program.c_str(), nullptr, nullptr, argv, environ) != 0) {
            pid_ = -1;
            return;
        }
        // The name shows only once the new program has replaced the spawned copy.
        std::string expected = name.substr(0, 15);
        for (int i = 0; i < 400 && Comm() != expected; i++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    ~NamedProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    NamedProcess(const NamedProcess&) = delete;
    NamedProcess& operator=(const NamedProcess&) = delete;
    pid_t pid() const { return pid_; }
    bool running() const { return pid_ > 0; }

  private:
    std::string Comm() const {
        std::string text;
        ReadFile("/proc/" + std::to_string(pid_) + "/comm", &text);
        while (!text.empty() && text.back() == '\n') {
            text.pop_back();
        }
        return text;
    }
    pid_t pid_ = -1;
};

} // namespace core_test

#endif
