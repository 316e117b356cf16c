// The diagnostic log. The line counter belongs to the process and never resets, so numbers
// are checked relative to the first one a test sees, or in a fresh process.
#include "Common/Log.h"

#include "TempDir.h"

#include <stdio.h>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

struct LogLine {
    int number;
    std::string message;
};

std::vector<LogLine> ParseLog(const std::string& text) {
    static const std::regex pattern(R"(line (\d+)===\d+-\d+-\d+ \d+:\d+:\d+   [^:]*:.* --- (.*)\n)");
    std::vector<LogLine> lines;
    auto at = text.cbegin();
    for (std::smatch m;
         std::regex_search(at, text.cend(), m, pattern, std::regex_constants::match_continuous);
         at = m[0].second) {
        lines.push_back({std::stoi(m[1]), m[2]});
    }
    EXPECT_EQ(std::string(at, text.cend()), "") << "torn, malformed or unterminated line";
    return lines;
}

} // namespace

TEST(Log, LineFieldsMatchTheClockUnpadded) {
    TempDir dir;
    // A zone in which the time of day now reads about 9:05:03, so that padding would show.
    long offset = (time(nullptr) % 86400 - (9 * 3600 + 5 * 60 + 3) + 86400) % 86400;
    std::string zone = "KST" + std::to_string(offset / 3600) + ":" + std::to_string(offset / 60 % 60) + ":" +
                       std::to_string(offset % 60);
    setenv("TZ", zone.c_str(), 1); // no other test depends on the zone
    tzset();
    time_t before = time(nullptr);
    InitLogSystem(dir.File("Kestrun.log").c_str());
    Log("Common/INI", "ReadString", "value %d of %s", 7, "x");
    CloseLogSystem();

    std::string text = ReadWholeFile(dir.File("Kestrun.log"));
    bool matched = false;
    for (time_t t = before; t <= time(nullptr); ++t) {
        struct tm tm = {};
        localtime_r(&t, &tm);
        char expected[128];
        snprintf(expected, sizeof expected, "===%d-%d-%d %d:%d:%d   INI:ReadString --- value 7 of x\n",
                 tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
        matched = matched || std::regex_match(text, std::regex(std::string("line \\d+") + expected));
    }
    EXPECT_TRUE(matched && text.find(" 9:5:") != std::string::npos) << text;
}

TEST(Log, NumbersStartAtOneAndRunOnAcrossInitCloseAndLostLines) {
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a fresh process, whatever ran before in this one
    TempDir dir;
    std::string path = dir.Write("Kestrun.log", "old content\n");
    auto run = [&] {
        InitLogSystem(path.c_str());
        Log("main", "f", "one");
        Log(nullptr, "f", "no source");
        Log("main", "f", nullptr);
        CloseLogSystem();
        Log("main", "f", "while off");
        InitLogSystem(dir.File("no-such-dir/Kestrun.log").c_str());
        Log("main", "f", "lost to a missing directory");
        InitLogSystem(path.c_str());
        Log("main", "f", "two");
        CloseLogSystem();
        std::string text = ReadWholeFile(path), seen = text.substr(0, 12);
        for (const LogLine& line : ParseLog(text.substr(12))) {
            seen += std::to_string(line.number) + " " + line.message + "|";
        }
        fprintf(stderr, "%s%s", seen.c_str(),
                std::filesystem::exists(dir.File("no-such-dir")) ? " dir made" : "");
        std::filesystem::remove_all(dir.path, dir.ignored); // _exit skips the destructor
        _exit(0);
    };
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "^old content\n1 one\\|3 two\\|$"); // appended to
}

TEST(Log, FileIsEmptiedOnlyPastTenMillionBytes) {
    TempDir dir;
    std::string path = dir.Write("Kestrun.log", "");
    for (off_t size : {10000000, 10000001}) {
        ASSERT_EQ(truncate(path.c_str(), size), 0);
        InitLogSystem(path.c_str());
        Log("main", "f", "one line");
        CloseLogSystem();
        std::string text = ReadWholeFile(path);
        ASSERT_EQ(text.size() < 10000000, size > 10000000) << size;
        EXPECT_EQ(ParseLog(text.substr(text.size() < 10000000 ? 0 : size)).size(), 1u);
    }
}

TEST(Log, LongMessagesAreCutAndPercentSignsWrittenAsTheyStand) {
    TempDir dir;
    InitLogSystem(dir.File("Kestrun.log").c_str());
    Log("main", "f", "%s", std::string(3000, 'a').c_str());
    Log("dir%d/tag%s%n", "fn%s%d", "%s", "msg %d %s %n %%");
    Log("main", "g", "refused %n", static_cast<int*>(nullptr));
    CloseLogSystem();

    // The cut line keeps 2047 characters and loses its line feed: the next line follows on.
    std::string text = ReadWholeFile(dir.File("Kestrun.log"));
    size_t body = text.find("main:f --- ") + 11;
    ASSERT_TRUE(body < 2047 && text.size() > 2047) << text;
    EXPECT_EQ(text.substr(body, 2047 - body), std::string(2047 - body, 'a'));
    EXPECT_EQ(ParseLog(text.substr(2047)).size(), 2u);
    EXPECT_NE(text.find("   tag%s%n:fn%s%d --- msg %d %s %n %%\n"), std::string::npos);
    EXPECT_NE(text.find("   main:g --- \n"), std::string::npos) << "a refused format still writes its line";
}

TEST(Log, ConcurrentWritersShareNoNumberAndTearNoLine) {
    TempDir dir;
    constexpr int kThreads = 4, kLines = 5000;
    InitLogSystem(dir.File("Kestrun.log").c_str());
    auto write = [](int t) {
        for (int i = 0; i < kLines; ++i) {
            Log("launcher/main", "Worker", "thread %d line %d", t, i);
        }
    };
    std::thread a(write, 1), b(write, 2), c(write, 3);
    write(0); // the main thread writes too
    a.join(), b.join(), c.join();
    CloseLogSystem();

    std::vector<LogLine> lines = ParseLog(ReadWholeFile(dir.File("Kestrun.log")));
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    std::vector<int> nextOf(kThreads, 0);
    for (size_t k = 0; k < lines.size(); ++k) {
        ASSERT_EQ(lines[k].number, lines[0].number + static_cast<int>(k)); // each number once, in order
        int t = 0, i = 0;
        ASSERT_EQ(sscanf(lines[k].message.c_str(), "thread %d line %d", &t, &i), 2);
        EXPECT_EQ(i, nextOf.at(static_cast<size_t>(t))++) << "a line lost, doubled or out of order";
    }
}
