/* Shared by all tests: the diagnostic log read back and taken apart line by line. */
#ifndef TESTS_SUPPORT_LOGFILE_H
#define TESTS_SUPPORT_LOGFILE_H

#include "support/TempDir.h"

// GCC 12 sees an uninitialized std::function inside the regex compiler once sanitizers are on.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>

#include <string>
#include <vector>

namespace kestrun_test {

using Lines = std::vector<std::string>;

// "line N===Y-M-D h:m:s   tag:function --- message", taken apart. Lines that do not parse come
// back with number 0 and the raw text as their message.
struct LogLine {
    int number = 0;
    std::string stamp, tag, function, message;
    std::string Call() const { return function + " --- " + message; }
};

inline std::vector<LogLine> ParseLog(const std::string& text) {
    static const std::regex pattern(R"(^line ([0-9]+)===([-0-9]+ [:0-9]+)   ([^:]*):([^ ]*) --- (.*)$)");
    std::vector<LogLine> lines;
    std::istringstream in(text);
    std::string raw;
    std::smatch m;
    while (std::getline(in, raw)) {
        if (raw.empty() && !lines.empty()) { // a message ending in its own line feed
            lines.back().message += "\n";
        } else if (std::regex_match(raw, m, pattern)) {
            lines.push_back({std::stoi(m[1]), m[2], m[3], m[4], m[5]});
        } else {
            lines.push_back({0, "", "", "", raw});
        }
    }
    return lines;
}

inline std::vector<LogLine> ReadLog(const std::string& path) {
    return ParseLog(ReadFile(path));
}

// "function --- message" of every line, or only of the lines with the given tag.
inline Lines Calls(const std::vector<LogLine>& log, const std::string& tag = "") {
    Lines calls;
    for (const LogLine& line : log) {
        if (tag.empty() || line.tag == tag)
            calls.push_back(line.Call());
    }
    return calls;
}

// Index of the first line with this message at or after from; -1 when there is none.
inline int FindMessage(const std::vector<LogLine>& log, const std::string& message, int from = 0) {
    for (int i = from < 0 ? log.size() : from; i < static_cast<int>(log.size()); ++i) {
        if (log[i].message == message)
            return i;
    }
    return -1;
}

} // namespace kestrun_test

#endif
