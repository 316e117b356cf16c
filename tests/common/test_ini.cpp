// The INI reader: how lines, sections and keys of "SysConfig.dat" are found, and what
// a failed lookup answers and logs.
#include "Common/INI.h"

#include "Common/Log.h"

#include "TempDir.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class IniTest : public ::testing::Test {
  protected:
    void SetUp() override {
        logPath_ = dir_.File("test.log");
        InitLogSystem(logPath_.c_str());
    }
    void TearDown() override { CloseLogSystem(); }

    // Selects a file holding content as the current file.
    std::string Use(const std::string& content, const std::string& name = "SysConfig.dat") {
        std::string path = dir_.Write(name, content);
        EXPECT_TRUE(SetIniFileName(path.c_str()));
        return path;
    }

    // The reader's log entries since the last call, as "Function --- message".
    std::vector<std::string> Messages() {
        CloseLogSystem();
        std::string content = ReadWholeFile(logPath_);
        dir_.Write("test.log", "");
        InitLogSystem(logPath_.c_str());
        std::vector<std::string> entries;
        size_t at = content.find("line ");
        while (at != std::string::npos) {
            size_t next = content.find("\nline ", at);
            std::string entry = content.substr(at, next == std::string::npos ? std::string::npos : next - at);
            size_t tag = entry.find("   INI:");
            EXPECT_NE(tag, std::string::npos) << entry;
            entries.push_back(tag == std::string::npos ? entry : entry.substr(tag + 7));
            at = next == std::string::npos ? next : next + 1;
        }
        if (!entries.empty() && !entries.back().empty() && entries.back().back() == '\n') {
            entries.back().pop_back();
        }
        return entries;
    }

    TempDir dir_;
    std::string logPath_;
};

using Entries = std::vector<std::string>;

const char kRecord[] = "[System]\n"
                       "VRVersion=3\n"
                       "BuildVersion = 41\n"
                       "[APP_PATH]\n"
                       "VALUE=/Applications/Kestrun.app\n"
                       "RUN_PROCESS_DLG=yes";

std::string Replace(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

} // namespace

TEST_F(IniTest, LineEndsAndBlankLines) {
    for (const std::string& content :
         {std::string(kRecord), std::string(kRecord) + "\n", Replace(kRecord, "\n", "\r\n"),
          Replace(kRecord, "\n",
                  "\n\n\r\r\n  \r\n") /* a line of spaces is not empty, and is no key line */}) {
        SCOPED_TRACE(content);
        Use(content);
        EXPECT_STREQ(ReadString("System", "VRVersion", "-"), "3");
        EXPECT_STREQ(GetInitKey("System", "BuildVersion"), "41");
        EXPECT_STREQ(ReadString("APP_PATH", "VALUE", "-"), "/Applications/Kestrun.app");
        EXPECT_STREQ(ReadStringEx("APP_PATH", "RUN_PROCESS_DLG", "-"), "yes");
    }
    // CR-only line ends make one single line: the header holds everything else.
    Use(Replace(kRecord, "\n", "\r"));
    EXPECT_STREQ(GetInitKey("System", "VRVersion"), "");
    Messages();
    EXPECT_STREQ(ReadStringEx("APP_PATH", "VALUE", "-"), "-");
    EXPECT_EQ(Messages(), Entries({"KeyExists --- not found the key"}));
}

TEST_F(IniTest, WhichLineIsTheKeysLine) {
    Use("[System]\n"
        "KeyX=prefix\n"
        "XKey=suffix\n"
        "key=other case\n"
        "\tTabbed=tab\n"
        "Tabbed\t=tab after\n"
        "Spaced = two  \n"
        "Eq=a=b=c\n"
        "one bracket [ does not end the section\n"
        "] nor does this\n"
        "Bare\n"
        "Dup=first\n"
        "Dup=second\n"
        "  Key = 1\n"
        "Br=[x] y\n"
        "[Other]\n"
        "Later=9\n"
        "[System]\n"
        "Second=2\n");
    EXPECT_STREQ(ReadString("System", "Key", "-"), "1");
    EXPECT_STREQ(ReadString("System", "Tabbed", "-"), "-") << "a tab is not blank";
    EXPECT_STREQ(ReadString("System", "\tTabbed", "-"), "tab");
    EXPECT_STREQ(ReadString("System", "Spaced", "-"), "two");
    EXPECT_STREQ(ReadStringEx("System", "Spaced", "-"), " two");
    EXPECT_STREQ(ReadString("System", "Eq", "-"), "a=b=c");
    EXPECT_STREQ(ReadString("System", "Br", "-"), "[x] y");
    EXPECT_STREQ(ReadString("System", "Bare", "-"), "");
    EXPECT_STREQ(ReadStringEx("System", "Bare", "-"), "");
    EXPECT_STREQ(ReadString("System", "Dup", "-"), "first");
    EXPECT_STREQ(ReadString("System", "KEY", "-"), "-");
    EXPECT_STREQ(ReadString("system", "Key", "-"), "-");
    EXPECT_STREQ(ReadString("Other", "Later", "-"), "9");
    Messages();
    EXPECT_STREQ(ReadString("System", "Later", "-"), "-") << "a bracketed line ends the section";
    EXPECT_EQ(Messages(), Entries({"ReadString --- cfg key [Later] not exists..."}));
    EXPECT_STREQ(ReadString("System", "Second", "-"), "-") << "a second section of the name is never reached";
}

TEST_F(IniTest, WhereASectionBegins) {
    // The pattern opens the section anywhere in the untrimmed line, not with a blank inside.
    Use("[ System]\nA=blank inside\n;[System] old\nA=after comment\n");
    EXPECT_STREQ(ReadString("System", "A", "-"), "after comment");
    Use("[Main]\nNote=see x[System]y\nA=in value\n");
    EXPECT_STREQ(ReadString("System", "A", "-"), "in value");

    // 125 characters are searched whole; a longer name by its first 126 and no "]".
    std::string name125(125, 'n');
    Use("[" + name125 + "\nA=unclosed\n[" + name125 + "]\nA=closed\n");
    EXPECT_STREQ(ReadString(name125.c_str(), "A", "-"), "closed");
    std::string name200(200, 'n');
    Use("[" + name200 + "]\nA=whole\n");
    EXPECT_STREQ(ReadString(name200.c_str(), "A", "-"), "whole");
    Use("[" + name200.substr(0, 126) + "other]\nA=prefix\n");
    EXPECT_STREQ(ReadString(name200.c_str(), "A", "-"), "prefix");
}

TEST_F(IniTest, LongLinesAreCutAndTheirRestSkipped) {
    // The header in the cut-off part of a line must not count as a line of its own.
    Use(std::string(1030, 'x') + "[System]\nA=1\n");
    EXPECT_STREQ(ReadString("System", "A", "-"), "-");

    Use("[System]\nV=" + std::string(1500, 'v') + "=\nW=2\n");
    EXPECT_EQ(std::string(ReadString("System", "V", "-")), std::string(1021, 'v'));
    EXPECT_STREQ(ReadString("System", "W", "-"), "2");
}

TEST_F(IniTest, FilesThatGiveNoLine) {
    Use("");
    EXPECT_STREQ(ReadString("System", "A", "-"), "-");
    EXPECT_STREQ(GetInitKey("System", "A"), "");

    // A directory opens for reading but cannot be read: no line, and no endless loop.
    ASSERT_TRUE(SetIniFileName(dir_.path().c_str()));
    Messages();
    EXPECT_STREQ(ReadString("System", "A", "-"), "-");
    EXPECT_STREQ(ReadStringEx("System", "A", "-"), "-");
    EXPECT_STREQ(GetInitKey("System", "A"), "");
    EXPECT_EQ(Messages(),
              Entries({"SectionExists --- not found the section",
                       "ReadString --- cfg section [System] not exists...",
                       "SectionExists --- not found the section", "SectionExists --- not found the section",
                       "ReadString --- cfg section [System] not exists..."}));
}

TEST_F(IniTest, FailedLookupsAnswerTheDefaultWithTheirMessages) {
    std::string path = Use("[System]\nA=1\n[Next]\nB=2\n");
    Messages();

    EXPECT_STREQ(ReadString("Nope", "A", "-"), "-");
    EXPECT_EQ(Messages(), Entries({"SectionExists --- not found the section",
                                   "ReadString --- cfg section [Nope] not exists..."}));
    EXPECT_STREQ(ReadString("Next", "Nope", "-"), "-");
    EXPECT_EQ(Messages(),
              Entries({"KeyExists --- not found the key", "ReadString --- cfg key [Nope] not exists..."}));
    EXPECT_STREQ(ReadStringEx("Nope", "A", "-"), "-");
    EXPECT_STREQ(ReadStringEx("System", "B", nullptr), nullptr);
    EXPECT_STREQ(ReadStringEx("Next", "Nope", "-"), "-");
    EXPECT_EQ(Messages(),
              Entries({"SectionExists --- not found the section", "KeyExists --- not found the key"}));

    // A file that cannot be opened is refused, and the previous one stays current.
    std::string missing = dir_.File("missing.dat");
    EXPECT_FALSE(SetIniFileName(missing.c_str()));
    EXPECT_STREQ(ReadString("System", "A", "-"), "1");
    EXPECT_EQ(Messages(),
              Entries({"SetIniFileName --- open file: " + missing + " failed, please check...\n"}));

    // The current file vanishes after it was selected.
    ASSERT_EQ(remove(path.c_str()), 0);
    EXPECT_STREQ(ReadString("System", "A", "-"), "-");
    EXPECT_STREQ(ReadStringEx("System", "A", "-"), "-");
    EXPECT_STREQ(GetInitKey("System", "A"), "");
    EXPECT_EQ(Messages(), Entries({"ReadString --- open file: " + path + " failed, please check...",
                                   "ReadStringEx --- open file: " + path + " failed, please check...\n",
                                   "ReadString --- open file: " + path + " failed, please check..."}));
}

TEST_F(IniTest, NullArguments) {
    Use("[System]\nA=1\n");
    FILE* file = fopen(dir_.File("SysConfig.dat").c_str(), "rb");
    ASSERT_NE(file, nullptr);
    char line[] = "A=1";
    const char* dflt = "-";
    Messages();

    EXPECT_FALSE(SetIniFileName(nullptr));
    EXPECT_EQ(ReadString(nullptr, "A", dflt), dflt);
    EXPECT_EQ(ReadString("System", nullptr, dflt), dflt);
    EXPECT_EQ(ReadString("System", "A", nullptr), nullptr);
    EXPECT_EQ(ReadStringEx("System", nullptr, dflt), dflt);
    EXPECT_EQ(GetInitKey(nullptr, "A"), nullptr);
    EXPECT_EQ(Messages(), Entries({"SetIniFileName --- param error.", "ReadString --- param error.",
                                   "ReadString --- param error.", "ReadString --- param error.",
                                   "ReadStringEx --- param error.", "GetInitKey --- param error."}));
    EXPECT_STREQ(GetInitKey("System", "A"), "1") << "the current file survives refused calls";
    Messages();

    EXPECT_FALSE(SectionExists(nullptr, "System"));
    EXPECT_FALSE(SectionExists(file, nullptr));
    EXPECT_FALSE(KeyExists(nullptr, "A"));
    EXPECT_EQ(ReadLine(nullptr), nullptr);
    EXPECT_EQ(GetKeyValue(nullptr), nullptr);
    EXPECT_FALSE(SectionExistsInLine(nullptr, "System"));
    EXPECT_FALSE(KeyExistsInLine(line, nullptr));
    EXPECT_EQ(Trim(nullptr), nullptr);
    EXPECT_EQ(Messages(), Entries({"SectionExists --- param error", "SectionExists --- param error",
                                   "KeyExists --- param error", "ReadLine --- param error",
                                   "GetKeyValue --- param error", "SectionExistsInLine --- param error.",
                                   "KeyExistsInLine --- param error.", "Trim --- param error."}));
    fclose(file);
}
