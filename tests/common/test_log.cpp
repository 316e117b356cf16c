// The diagnostic log: line format, numbering, emptying and concurrent writers.
// The line counter belongs to the process and never resets, so numbers are checked
// relative to the first number a test sees.
#include "Common/Log.h"

#include "TempDir.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

struct LogLine {
    int number;
    std::string stamp; // date and time as written
    std::string tag;
    std::string func;
    std::string message;
};

const std::regex kLinePattern(R"(line (-?\d+)===(\d+-\d+-\d+ \d+:\d+:\d+)   ([^:]*):(.*) --- (.*))");

// Every text line of the file; a line that does not parse fails the test.
std::vector<LogLine> ReadLog(const std::string& path) {
    std::vector<LogLine> lines;
    std::string content = ReadWholeFile(path);
    size_t start = 0;
    while (start < content.size()) {
        size_t end = content.find('\n', start);
        EXPECT_NE(end, std::string::npos) << "unterminated last line";
        if (end == std::string::npos) {
            end = content.size();
        }
        std::string text = content.substr(start, end - start);
        std::smatch m;
        if (std::regex_match(text, m, kLinePattern)) {
            lines.push_back({std::stoi(m[1]), m[2], m[3], m[4], m[5]});
        } else {
            ADD_FAILURE() << "torn or malformed line: " << text;
        }
        start = end + 1;
    }
    return lines;
}

std::string Stamp(time_t when) {
    struct tm t = {};
    localtime_r(&when, &t);
    return std::to_string(t.tm_year + 1900) + "-" + std::to_string(t.tm_mon + 1) + "-" +
           std::to_string(t.tm_mday) + " " + std::to_string(t.tm_hour) + ":" + std::to_string(t.tm_min) +
           ":" + std::to_string(t.tm_sec);
}

// Makes the local time of day read about 9:05:03 now, so that unpadded fields show.
class ShiftedClock {
  public:
    ShiftedClock() {
        const char* old = getenv("TZ");
        hadTz_ = old != nullptr;
        oldTz_ = hadTz_ ? old : "";
        long offset = static_cast<long>(time(nullptr) % 86400) - (9 * 3600 + 5 * 60 + 3);
        char tz[64];
        snprintf(tz, sizeof tz, "KST%c%ld:%02ld:%02ld", offset < 0 ? '-' : '+', labs(offset) / 3600,
                 labs(offset) / 60 % 60, labs(offset) % 60);
        setenv("TZ", tz, 1);
        tzset();
    }
    ~ShiftedClock() {
        if (hadTz_) {
            setenv("TZ", oldTz_.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }

  private:
    bool hadTz_;
    std::string oldTz_;
};

} // namespace

TEST(Log, LineFieldsMatchTheClockUnpadded) {
    TempDir dir;
    std::string path = dir.File("Kestrun.log");
    ShiftedClock clock;

    time_t before = time(nullptr);
    InitLogSystem(path.c_str());
    Log("Common/INI", "ReadString", "value %d of %s", 7, "x");
    Log("main", "main", "plain");
    Log("a/b/", "f", "empty tag");
    CloseLogSystem();
    time_t after = time(nullptr);

    std::vector<LogLine> lines = ReadLog(path);
    ASSERT_EQ(lines.size(), 3u);
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].number, lines[0].number + static_cast<int>(i));
        std::set<std::string> possible;
        for (time_t t = before; t <= after; ++t) {
            possible.insert(Stamp(t));
        }
        EXPECT_TRUE(possible.count(lines[i].stamp)) << lines[i].stamp;
        EXPECT_NE(lines[i].stamp.find(" 9:5:"), std::string::npos) << lines[i].stamp;
    }
    // The exact bytes of one line: separators, tag after the last "/", message formatted.
    std::string first = ReadWholeFile(path).substr(0, ReadWholeFile(path).find('\n') + 1);
    EXPECT_EQ(first, "line " + std::to_string(lines[0].number) + "===" + lines[0].stamp +
                         "   INI:ReadString --- value 7 of x\n");
    EXPECT_EQ(lines[1].tag, "main");
    EXPECT_EQ(lines[1].message, "plain");
    EXPECT_EQ(lines[2].tag, "");
}

TEST(Log, NumberingAcrossInitCloseAndLostLines) {
    TempDir dir;
    std::string first = dir.File("first.log");
    std::string second = dir.File("second.log");
    std::string missing = dir.File("no-such-dir/Kestrun.log");

    InitLogSystem(first.c_str());
    Log("main", "f", "one");
    Log(nullptr, "f", "no source");
    Log("main", nullptr, "no function");
    Log("main", "f", nullptr);
    CloseLogSystem();
    Log("main", "f", "while off");
    InitLogSystem(missing.c_str());
    Log("main", "f", "lost");
    Log("main", "f", "lost too");
    InitLogSystem(nullptr);
    Log("main", "f", "off again");
    InitLogSystem(first.c_str());
    Log("main", "f", "two");
    InitLogSystem(second.c_str()); // only the next opening uses the new name
    Log("main", "f", "three");
    CloseLogSystem();
    InitLogSystem(second.c_str());
    Log("main", "f", "four");
    CloseLogSystem();

    std::vector<LogLine> a = ReadLog(first);
    std::vector<LogLine> b = ReadLog(second);
    ASSERT_EQ(a.size(), 3u);
    ASSERT_EQ(b.size(), 1u);
    int n = a[0].number;
    EXPECT_EQ(a[0].message, "one");
    EXPECT_EQ(a[1].message, "two");
    EXPECT_EQ(a[1].number, n + 3) << "lines lost to a missing directory still spend their numbers";
    EXPECT_EQ(a[2].message, "three");
    EXPECT_EQ(a[2].number, n + 4);
    EXPECT_EQ(b[0].message, "four");
    EXPECT_EQ(b[0].number, n + 5);
    EXPECT_FALSE(std::filesystem::exists(dir.File("no-such-dir")));
}

TEST(Log, PathOf1023CharactersIsUsedAnd1024TurnsLoggingOff) {
    TempDir dir;
    std::string base = dir.path();
    while (1022 - base.size() > 255) {
        base += "/" + std::string(std::min<size_t>(200, 1022 - base.size() - 2), 'd');
        ASSERT_TRUE(std::filesystem::create_directory(base));
    }
    std::string longest = base + "/" + std::string(1022 - base.size(), 'f');
    ASSERT_EQ(longest.size(), 1023u);
    std::string tooLong = longest + "g";
    std::string plain = dir.File("plain.log");

    InitLogSystem(longest.c_str());
    Log("main", "f", "deep");
    InitLogSystem(tooLong.c_str());
    Log("main", "f", "refused");
    CloseLogSystem();
    InitLogSystem(plain.c_str());
    Log("main", "f", "after");
    CloseLogSystem();

    std::vector<LogLine> deep = ReadLog(longest);
    std::vector<LogLine> after = ReadLog(plain);
    ASSERT_EQ(deep.size(), 1u);
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(after[0].number, deep[0].number + 1) << "a refused path must not spend a number";
    EXPECT_FALSE(std::filesystem::exists(tooLong));
}

TEST(Log, FirstLineOfAProcessIsOneAfterOldContent) {
    // A fresh process of its own, whatever ran before in this one.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto firstRun = [] {
        TempDir dir;
        std::string path = dir.Write("Kestrun.log", "old content\n");
        Log("main", "f", "before init");
        InitLogSystem(path.c_str());
        Log("main", "f", nullptr);
        Log("main", "f", "first");
        CloseLogSystem();
        std::string content = ReadWholeFile(path);
        bool ok = content.rfind("old content\nline 1===", 0) == 0 &&
                  content.find("main:f --- first\n") != std::string::npos;
        if (!ok) {
            fprintf(stderr, "got: %s", content.c_str());
        }
        return ok;
    };
    EXPECT_EXIT(_exit(firstRun() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

TEST(Log, FileIsEmptiedOnlyPastTenMillionBytes) {
    TempDir dir;
    std::string path = dir.File("Kestrun.log");
    dir.Write("Kestrun.log", "");
    ASSERT_EQ(truncate(path.c_str(), 10000000), 0);

    InitLogSystem(path.c_str());
    Log("main", "f", "at the limit");
    CloseLogSystem();
    std::string content = ReadWholeFile(path);
    ASSERT_GT(content.size(), 10000000u);
    std::string kept = content.substr(10000000);
    EXPECT_EQ(kept.rfind("line ", 0), 0u);
    EXPECT_NE(kept.find("--- at the limit\n"), std::string::npos);
    int n = std::stoi(kept.substr(5));

    ASSERT_EQ(truncate(path.c_str(), 10000001), 0);
    InitLogSystem(path.c_str());
    Log("main", "f", "past the limit");
    Log("main", "f", "next");
    CloseLogSystem();
    std::vector<LogLine> lines = ReadLog(path);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].message, "past the limit");
    EXPECT_EQ(lines[0].number, n + 1);
    EXPECT_EQ(lines[1].number, n + 2);
}

TEST(Log, LongMessagesAreCutAndPercentSignsWrittenAsTheyStand) {
    TempDir dir;
    std::string path = dir.File("Kestrun.log");
    InitLogSystem(path.c_str());
    Log("main", "f", "%s", std::string(3000, 'a').c_str());
    Log("dir%d/tag%s%n", "fn%s%d", "%s", "msg %d %s %n %%");
    int ignored = 0;
    Log("main", "g", "rejected %n", &ignored);
    CloseLogSystem();

    std::string content = ReadWholeFile(path);
    // The cut line keeps 2047 characters and loses its line feed: the next line follows on.
    ASSERT_GT(content.size(), 2047u);
    std::string cut = content.substr(0, 2047);
    size_t body = cut.find("main:f --- ");
    ASSERT_NE(body, std::string::npos);
    EXPECT_EQ(cut.substr(body + 11), std::string(2047 - body - 11, 'a'));
    EXPECT_EQ(content.compare(2047, 5, "line "), 0);

    std::vector<LogLine> rest = ReadLog(dir.Write("rest.log", content.substr(2047)));
    ASSERT_EQ(rest.size(), 2u);
    EXPECT_EQ(rest[0].tag, "tag%s%n");
    EXPECT_EQ(rest[0].func, "fn%s%d");
    EXPECT_EQ(rest[0].message, "msg %d %s %n %%");
    EXPECT_EQ(rest[1].func, "g");
    EXPECT_EQ(rest[1].message, "") << "a rejected format still writes the line, with no message";
}

TEST(Log, ConcurrentWritersShareNoNumberAndTearNoLine) {
    TempDir dir;
    std::string path = dir.File("Kestrun.log");
    dir.Write("Kestrun.log", "");
    // The first line empties the file while the other writers are already queued.
    ASSERT_EQ(truncate(path.c_str(), 10000001), 0);

    constexpr int kThreads = 4;
    constexpr int kLines = 5000;
    InitLogSystem(path.c_str());
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([t] {
            for (int i = 0; i < kLines; ++i) {
                Log("launcher/main", "Worker", "thread %d line %d", t, i);
            }
        });
    }
    for (std::thread& w : writers) {
        w.join();
    }
    CloseLogSystem();

    std::vector<LogLine> lines = ReadLog(path);
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    std::vector<int> nextOf(kThreads, 0);
    for (size_t k = 0; k < lines.size(); ++k) {
        // Numbered and written under one lock: the file holds each number once, in order.
        ASSERT_EQ(lines[k].number, lines[0].number + static_cast<int>(k));
        int t = -1, i = -1;
        ASSERT_EQ(sscanf(lines[k].message.c_str(), "thread %d line %d", &t, &i), 2) << lines[k].message;
        ASSERT_TRUE(t >= 0 && t < kThreads);
        EXPECT_EQ(i, nextOf[t]++) << "a thread's lines out of order";
    }
}
