// The diagnostic log. The line counter belongs to the process and never resets, so numbers
// are checked relative to the first one a test sees, or in a fresh process.
#include "Common/Log.h"

#include "support/LogFile.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <thread>
#include <time.h>
#include <unistd.h>

using namespace kestrun_test;

namespace {

// The lines of a log text; a torn, malformed or unterminated line fails the test.
std::vector<LogLine> ParseWhole(const std::string& text) {
    std::vector<LogLine> lines = ParseLog(text);
    for (const LogLine& line : lines) {
        EXPECT_NE(line.number, 0) << "torn or malformed line: " << line.message;
    }
    EXPECT_TRUE(text.empty() || text.back() == '\n') << "unterminated line";
    return lines;
}

} // namespace

// Date and time unpadded, in a zone where the time of day now reads about 9:05:03.
TEST(Log, LineFieldsMatchTheClockUnpadded) {
    TempDir dir;
    long offset = (time(nullptr) % 86400 - (9 * 3600 + 5 * 60 + 3) + 86400) % 86400;
    std::string zone = "KST" + std::to_string(offset / 3600) + ":" + std::to_string(offset / 60 % 60) + ":" +
                       std::to_string(offset % 60);
    setenv("TZ", zone.c_str(), 1); // no other test depends on the zone
    tzset();
    InitLogSystem((dir / "Kestrun.log").c_str());
    Log("Common/INI", "ReadString", "value %d of %s", 7, "x");
    CloseLogSystem();
    time_t now = time(nullptr);
    struct tm tm = {};
    localtime_r(&now, &tm);
    std::string line = "line \\d+===" + std::to_string(tm.tm_year + 1900) + "-" +
                       std::to_string(tm.tm_mon + 1) + "-" + std::to_string(tm.tm_mday) +
                       " 9:5:[3-9]   INI:ReadString --- value 7 of x\n";
    std::string text = ReadFile(dir / "Kestrun.log");
    EXPECT_TRUE(std::regex_match(text, std::regex(line))) << text;
}

TEST(Log, NumbersStartAtOneAndRunOnAcrossInitCloseAndLostLines) {
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a fresh process, whatever ran before in this one
    TempDir dir;
    std::string path = dir / "Kestrun.log";
    WriteFile(path, "old content\n");
    auto run = [&] {
        InitLogSystem(path.c_str());
        Log("main", "f", "one");
        Log(nullptr, "f", "no source");
        Log("main", "f", nullptr);
        CloseLogSystem();
        Log("main", "f", "while off");
        InitLogSystem((dir / "no-such-dir/Kestrun.log").c_str());
        Log("main", "f", "lost to a missing directory");
        InitLogSystem(path.c_str());
        Log("main", "f", "two");
        CloseLogSystem();
        std::string text = ReadFile(path), seen = text.substr(0, 12);
        for (const LogLine& line : ParseWhole(text.substr(12))) {
            seen += std::to_string(line.number) + " " + line.message + "|";
        }
        fprintf(stderr, "%s%s", seen.c_str(), fs::exists(dir / "no-such-dir") ? " dir made" : "");
        fs::remove_all(dir.path); // _exit skips the destructor
        _exit(0);
    };
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "^old content\n1 one\\|3 two\\|$"); // appended to
}

// Anyone can plant a link or a pipe at the log's path in /var/tmp: the log then writes
// nothing, follows no link, creates no link's target and does not block. A hard link to a
// file of the user's is refused like a symbolic one: neither emptied nor appended to.
TEST(Log, WritesOnlyARegularFileNeverThroughALink) {
    TempDir dir;
    const std::string log = dir / "Kestrun.log", target = dir / "target", big = dir / "big";
    auto write = [&](const char* message) {
        InitLogSystem(log.c_str());
        Log("main", "f", message);
        CloseLogSystem();
    };
    WriteFile(target, "someone else's\n");
    WriteFile(big, "");
    ASSERT_EQ(truncate(big.c_str(), 10000016), 0);
    alarm(20); // a pipe that blocked the open would end the test here
    auto writeThrough = [&](int planted) {
        ASSERT_EQ(planted, 0);
        write("through what was planted");
        ASSERT_EQ(remove(log.c_str()), 0);
    };
    for (const std::string& file : {big, target, dir / "dangling"})
        writeThrough(symlink(file.c_str(), log.c_str()));
    for (const std::string& file : {big, target})
        writeThrough(link(file.c_str(), log.c_str()));
    writeThrough(mkfifo(log.c_str(), 0600));
    alarm(0);
    EXPECT_EQ(fs::file_size(big), 10000016u);
    EXPECT_EQ(ReadFile(target), "someone else's\n");
    EXPECT_FALSE(fs::exists(dir / "dangling"));

    // The file is emptied by reopening its name: a link put there meanwhile is not followed.
    WriteFile(log, "");
    ASSERT_EQ(truncate(log.c_str(), 10000000), 0);
    InitLogSystem(log.c_str());
    Log("main", "f", "grows the file past the limit");
    ASSERT_EQ(rename(log.c_str(), (dir / "moved").c_str()), 0);
    ASSERT_EQ(symlink(big.c_str(), log.c_str()), 0);
    Log("main", "f", "would empty the link's target");
    CloseLogSystem();
    EXPECT_EQ(fs::file_size(big), 10000016u);
    EXPECT_TRUE(fs::is_symlink(log));
    // Not emptied at ten million bytes, but past them.
    ASSERT_EQ(rename((dir / "moved").c_str(), log.c_str()), 0);
    ASSERT_GT(fs::file_size(log), 10000000u) << "emptied at ten million bytes";
    EXPECT_EQ(ParseWhole(ReadFile(log).substr(10000000)).size(), 1u);
    write("one line");
    EXPECT_EQ(ParseWhole(ReadFile(log)).size(), 1u);
}

// With standard output closed, the log must not take descriptor 1: what the progress
// window prints would otherwise land in the log.
TEST(Log, NeverTakesAStandardStream) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TempDir dir;
    const std::string log = dir / "Kestrun.log";
    auto run = [&] {
        dup2(open("/dev/null", O_RDONLY), STDIN_FILENO); // descriptor 1 is the lowest free one
        close(STDOUT_FILENO);
        InitLogSystem(log.c_str());
        Log("main", "f", "opens the log");
        printf("Copy package to local...\n");
        fflush(stdout);
        Log("main", "f", "after the message");
        CloseLogSystem();
        std::string text = ReadFile(log);
        fprintf(stderr, "%zu lines%s", ParseLog(text).size(),
                text.find("Copy package") != std::string::npos ? ", the message among them" : "");
        fs::remove_all(dir.path); // _exit skips the destructor
        _exit(0);
    };
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "^2 lines$");
}

TEST(Log, LongMessagesAreCutAndPercentSignsWrittenAsTheyStand) {
    TempDir dir;
    InitLogSystem((dir / "Kestrun.log").c_str());
    Log("main", "f", "%s", std::string(3000, 'a').c_str());
    Log("top/dir%d/sub/tag%s%n", "fn%s%d", "%s", "msg %d %s %n %%");
    Log("main", "g", "refused %n", static_cast<int*>(nullptr));
    CloseLogSystem();

    // The cut line keeps 2047 characters and loses its line feed: the next line follows on.
    std::string text = ReadFile(dir / "Kestrun.log");
    size_t body = text.find("main:f --- ") + 11;
    ASSERT_TRUE(body < 2047 && text.size() > 2047) << text;
    EXPECT_EQ(text.substr(body, 2047 - body), std::string(2047 - body, 'a'));
    EXPECT_EQ(ParseWhole(text.substr(2047)).size(), 2u);
    EXPECT_NE(text.find("   tag%s%n:fn%s%d --- msg %d %s %n %%\n"), std::string::npos);
    EXPECT_NE(text.find("   main:g --- \n"), std::string::npos) << "a refused format still writes its line";
}

TEST(Log, ConcurrentWritersShareNoNumberAndTearNoLine) {
    TempDir dir;
    constexpr int kThreads = 4, kLines = 5000;
    InitLogSystem((dir / "Kestrun.log").c_str());
    auto write = [](int t) {
        for (int i = 0; i < kLines; ++i) {
            Log("launcher/main", "Worker", "thread %d line %d", t, i);
        }
    };
    std::thread a(write, 1), b(write, 2), c(write, 3);
    write(0);
    a.join(), b.join(), c.join();
    CloseLogSystem();

    std::vector<LogLine> lines = ParseWhole(ReadFile(dir / "Kestrun.log"));
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    std::vector<int> nextOf(kThreads, 0);
    for (size_t k = 0; k < lines.size(); ++k) {
        ASSERT_EQ(lines[k].number, lines[0].number + static_cast<int>(k)); // each number once, in order
        int t = 0, i = 0;
        ASSERT_EQ(sscanf(lines[k].message.c_str(), "thread %d line %d", &t, &i), 2);
        EXPECT_EQ(i, nextOf.at(static_cast<size_t>(t))++) << "a line lost, doubled or out of order";
    }
}
