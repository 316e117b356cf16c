// The INI reader: which line holds a key, and what a failed lookup answers and logs.
#include "Common/INI.h"

#include "Common/Log.h"

#include "support/LogFile.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace kestrun_test;

namespace {

class Ini : public ::testing::Test {
  protected:
    void SetUp() override { InitLogSystem(log_.c_str()); }
    void TearDown() override { CloseLogSystem(); }
    std::string Use(const std::string& content) {
        std::string path = dir_ / "SysConfig.dat";
        WriteFile(path, content);
        EXPECT_TRUE(SetIniFileName(path.c_str()));
        return path;
    }
    // The reader's log lines since the last call, without their number, time and tag.
    std::string Messages() {
        CloseLogSystem();
        std::string text;
        for (const std::string& call : Calls(ReadLog(log_), "INI")) {
            text += call + "\n";
        }
        remove(log_.c_str());
        InitLogSystem(log_.c_str());
        return text;
    }
    TempDir dir_;
    std::string log_ = dir_ / "test.log";
};

} // namespace

TEST_F(Ini, FindsTheValueOnTheKeysLine) {
    const std::string longName(200, 'n'), longValue = "[S]\nV=" + std::string(1500, 'v') + "\nW=2\n";
    const struct {
        const char* rule;
        std::string content, section, key;
        std::string value, valueEx; // "-" is the default; ReadStringEx keeps leading blanks
    } cases[] = {
        {"blanks around a value: trimmed by ReadString only, CR LF ends a line", "[S]\r\nK= v \r\n", "S", "K",
         "v", " v"},
        {"empty lines are skipped and a last line needs no line feed", "\n[S]\r\n\r\n\nK=v", "S", "K", "v",
         "v"},
        {"a lone CR is dropped, not a line end", "[S]\rK=v\r", "S", "K", "-", "-"},
        {"an empty file has no section", "", "S", "K", "-", "-"},
        {"the first of two equal keys counts", "[S]\nK=first\nK=second\n", "S", "K", "first", "first"},
        {"a key must be the whole name before the equals sign", "[S]\nKX=prefix\nXK=suffix\nK=k\n", "S", "K",
         "k", "k"},
        {"the value runs to the line's end, equals signs included", "[S]\nE=a=b=c\nB=[x] y\n", "S", "E",
         "a=b=c", "a=b=c"},
        {"a key line without an equals sign has the empty value", "[S]\nBare\n", "S", "Bare", "", ""},
        {"a tab is not a blank", "[S]\n\tT=tab\n", "S", "T", "-", "-"},
        {"the section header may stand anywhere in a line", "[M]\nNote=see x[S]y\nA=1\n", "S", "A", "1", "1"},
        {"a line with both brackets ends a section", "[S]\nX=1\n[O]\nA=1\n", "S", "A", "-", "-"},
        {"one bracket does not end a section", "[S]\nx [ y\n] z\nA=1\n", "S", "A", "1", "1"},
        {"a long section name is found by its cut pattern", "[" + longName + "]\nA=1\n", longName, "A", "1",
         "1"},
        {"the cut-off rest of a long line is skipped", std::string(1030, 'x') + "[S]\nA=1\n", "S", "A", "-",
         "-"},
        {"a long value is cut to the line's capacity", longValue, "S", "V", std::string(1021, 'v'),
         std::string(1021, 'v')},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rule);
        Use(c.content);
        EXPECT_EQ(ReadString(c.section.c_str(), c.key.c_str(), "-"), c.value);
        EXPECT_EQ(ReadStringEx(c.section.c_str(), c.key.c_str(), "-"), c.valueEx);
        EXPECT_EQ(GetInitKey(c.section.c_str(), c.key.c_str()), c.value == "-" ? "" : c.value);
    }
}

TEST_F(Ini, FailedLookupsAnswerTheDefaultAndSayWhy) {
    std::string path = Use("[S]\nA=1\n"), missing = dir_ / "missing.dat";
    EXPECT_STREQ(ReadString("Nope", "A", "-"), "-");
    EXPECT_STREQ(ReadString("S", "Nope", "-"), "-");
    EXPECT_STREQ(ReadStringEx("Nope", "A", "-"), "-");
    EXPECT_STREQ(ReadStringEx("S", "Nope", "-"), "-");
    EXPECT_FALSE(SetIniFileName(missing.c_str()));
    EXPECT_STREQ(ReadString("S", "A", "-"), "1"); // the previous file stays current
    EXPECT_EQ(Messages(),
              "SectionExists --- not found the section\nReadString --- cfg section [Nope] not exists...\n"
              "KeyExists --- not found the key\nReadString --- cfg key [Nope] not exists...\n"
              "SectionExists --- not found the section\nKeyExists --- not found the key\n"
              "SetIniFileName --- open file: " +
                  missing + " failed, please check...\n\n");
    // The current file vanishes after it was selected; a directory opens but gives no line.
    ASSERT_EQ(remove(path.c_str()), 0);
    EXPECT_STREQ(ReadString("S", "A", "-"), "-");
    EXPECT_STREQ(ReadStringEx("S", "A", "-"), "-");
    ASSERT_TRUE(SetIniFileName(dir_.path.c_str()));
    EXPECT_STREQ(GetInitKey("S", "A"), "");
    EXPECT_EQ(Messages(), "ReadString --- open file: " + path +
                              " failed, please check...\nReadStringEx --- open file: " + path +
                              " failed, please check...\n\nSectionExists --- not found the section\n"
                              "ReadString --- cfg section [S] not exists...\n");
    // A pipe or a device does not open, and its open does not wait: it reads as a missing file.
    alarm(20);
    const std::string pipe = dir_ / "pipe.dat", zero = dir_ / "zero.dat";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    ASSERT_EQ(symlink("/dev/zero", zero.c_str()), 0);
    EXPECT_FALSE(SetIniFileName(pipe.c_str()));
    EXPECT_FALSE(SetIniFileName(zero.c_str()));
    Use("[S]\nA=1\n");
    ASSERT_EQ(rename(pipe.c_str(), path.c_str()), 0);
    EXPECT_STREQ(GetInitKey("S", "A"), "");
    alarm(0);
    EXPECT_EQ(Messages(), "SetIniFileName --- open file: " + pipe + " failed, please check...\n\n" +
                              "SetIniFileName --- open file: " + zero + " failed, please check...\n\n" +
                              "ReadString --- open file: " + path + " failed, please check...\n");
}
