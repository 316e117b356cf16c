/* Version records, the launch decision on them, and the bundle location and launch. */

#include <gtest/gtest.h>

#include <memory>

#include <PlatformTesting.h>
#include <stdlib.h>
#include <string.h>

#include "Common/INI.h"
#include "Common/Log.h"
#include "Launcher.h"
#include "core_support.h"

using core_test::FunctionsAndMessages;
using core_test::ReadFile;
using core_test::ReadLog;
using core_test::TempDir;
using core_test::VersionSection;
using core_test::WriteFile;
using Lines = std::vector<std::string>;

namespace {

const char* kPkgConfig = "/Contents/Resources/Vantorel.mpkg/Contents/Resources/SysConfig.dat";

// A bundle in a temporary folder, taken as the main bundle, with the log captured in
// the same folder. Resets the launcher's globals.
class LauncherFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        bundle_ = dir_ / "disc/Launcher.app";
        WriteFile(bundle_ + "/Contents/MacOS/Launcher", "");
        PlatSetExecutablePath((bundle_ + "/Contents/MacOS/Launcher").c_str());
        PlatSetOSRelease("10.8.0");
        logFile_ = dir_ / "capture.log";
        InitLogSystem(logFile_.c_str());
        pkgVersion = VersionRecord();
        installedVersion = VersionRecord();
        memset(szAppPath, 0, sizeof(szAppPath));
        isShowProcessWindow = false;
    }
    void TearDown() override {
        CloseLogSystem();
        PlatSetExecutablePath(NULL);
        PlatSetOSRelease(NULL);
    }
    // The log lines written since the last call, as "function --- message".
    Lines TakeLog() {
        CloseLogSystem();
        Lines lines = FunctionsAndMessages(ReadLog(logFile_));
        core_test::fs::remove(logFile_);
        InitLogSystem(logFile_.c_str());
        return lines;
    }
    // Lines of the launcher's own source only, leaving out the INI reader's.
    Lines TakeMainLog() {
        CloseLogSystem();
        Lines lines;
        for (const core_test::LogLine& line : ReadLog(logFile_)) {
            if (line.tag == "main") {
                lines.push_back(line.function + " --- " + line.message);
            }
        }
        core_test::fs::remove(logFile_);
        InitLogSystem(logFile_.c_str());
        return lines;
    }
    void WritePkgConfig(const std::string& text) { WriteFile(bundle_ + kPkgConfig, text); }

    TempDir dir_;
    std::string bundle_;
    std::string logFile_;
};

std::string Fields(const VersionRecord& r) {
    std::ostringstream text;
    text << r.VRVersion << "," << r.BuildVersion << "," << r.DebugVersion << "," << r.SPVersion << ","
         << r.CustomizeVersion << "," << r.MajorVersion;
    return text.str();
}

VersionRecord Record(int vr, int build, int debug, int sp, int customize, int major) {
    VersionRecord r;
    r.VRVersion = vr;
    r.BuildVersion = build;
    r.DebugVersion = debug;
    r.SPVersion = sp;
    r.CustomizeVersion = customize;
    r.MajorVersion = major;
    return r;
}

} // namespace

/* ---- Version records ---- */

TEST_F(LauncherFixture, VersionValuesConvertLikeAtoi) {
    WriteFile(dir_ / "values.dat", "[System]\nVRVersion=12abc\nBuildVersion=abc\nDebugVersion=\n"
                                   "SPVersion=  7\nCustomizeVersion=-3\n[Other]\nMajorVersion=9\n");
    ASSERT_TRUE(SetIniFileName((dir_ / "values.dat").c_str()));
    VersionRecord record = Record(1, 1, 1, 1, 1, 1);
    // A key the section lacks reads as 0, and the record still counts as read.
    EXPECT_TRUE(GetVersionCfg(&record));
    EXPECT_EQ("12,0,0,7,-3,0", Fields(record));

    EXPECT_FALSE(GetVersionCfg(NULL));
    EXPECT_EQ("GetVersionCfg --- param error.", TakeMainLog().back());
}

TEST_F(LauncherFixture, PackageRecordAndSettings) {
    WritePkgConfig(VersionSection(4, 120, 0, 2, 7, 3) + "[APP_PATH]\nVALUE=/Applications/Vantorel.app\n"
                                                        "RUN_PROCESS_DLG=Yes\n");
    EXPECT_TRUE(GetPkgVersion());
    EXPECT_EQ("4,120,0,2,7,3", Fields(pkgVersion));
    EXPECT_STREQ("/Applications/Vantorel.app", szAppPath);
    EXPECT_TRUE(isShowProcessWindow);
    EXPECT_EQ(Lines({"GetPkgVersion --- inipath:" + bundle_ + kPkgConfig + ".",
                     "GetPkgVersion --- read RUN_PROCESS_DLG is yes, run process window"}),
              TakeLog());

    // Only the word itself, in any case, turns the progress window on; a value keeps
    // the blank written after its "=".
    struct Case {
        const char* lines;
        bool show;
    };
    const Case cases[] = {
        {"VALUE= /Apps/V.app\nRUN_PROCESS_DLG=YES\n", true},
        {"VALUE= /Apps/V.app\nRUN_PROCESS_DLG=yes\n", true},
        {"VALUE= /Apps/V.app\nRUN_PROCESS_DLG= yes\n", false},
        {"VALUE= /Apps/V.app\nRUN_PROCESS_DLG=yes please\n", false},
        {"VALUE= /Apps/V.app\nRUN_PROCESS_DLG=\n", false},
        {"VALUE= /Apps/V.app\n", false},
    };
    for (const Case& c : cases) {
        isShowProcessWindow = !c.show;
        WritePkgConfig(VersionSection(1, 2, 3, 4, 5, 6) + "[APP_PATH]\n" + c.lines);
        EXPECT_TRUE(GetPkgVersion());
        EXPECT_EQ(c.show, isShowProcessWindow) << c.lines;
        EXPECT_STREQ(" /Apps/V.app", szAppPath) << c.lines;
        EXPECT_EQ(c.show ? "GetPkgVersion --- read RUN_PROCESS_DLG is yes, run process window"
                         : "GetPkgVersion --- read RUN_PROCESS_DLG is not yes,not run process window",
                  TakeMainLog().back())
            << c.lines;
    }

    // A missing "VALUE" leaves the path empty, even after an earlier one.
    WritePkgConfig(VersionSection(1, 2, 3, 4, 5, 6) + "[APP_PATH]\nRUN_PROCESS_DLG=yes\n");
    EXPECT_TRUE(GetPkgVersion());
    EXPECT_STREQ("", szAppPath);
}

TEST_F(LauncherFixture, PackageConfigurationMissing) {
    EXPECT_FALSE(GetPkgVersion());
    EXPECT_EQ("0,0,0,0,0,0", Fields(pkgVersion));
    EXPECT_STREQ("", szAppPath);
    EXPECT_FALSE(isShowProcessWindow);
    EXPECT_EQ(Lines({"GetPkgVersion --- inipath:" + bundle_ + kPkgConfig + ".",
                     "GetPkgVersion --- SetIniFileName inipath error."}),
              TakeMainLog());

    // Then the application counts as absent, tested on the empty path.
    EXPECT_FALSE(IsApplicationExists());
    EXPECT_EQ(Lines({"IsApplicationExists --- pkgVersion info may be error.",
                     "IsApplicationExists ---  not exist"}),
              TakeLog());

    // Without a bundle path there is no configuration to name.
    PlatSetExecutablePath((dir_ / "loose/Launcher").c_str());
    EXPECT_FALSE(GetPkgVersion());
    EXPECT_EQ(Lines({"GetModulePath --- strrstr error.", "GetPkgVersion --- Get Module Path error."}),
              TakeMainLog());
}

TEST_F(LauncherFixture, PackageConfigurationWithoutUsableLines) {
    // Files that open but hold no section: every setting keeps its neutral value.
    std::string binary("\x00\xff[System\x00]\r\x01VALUE=\x7f", 20);
    binary += std::string(3000, 'x'); // one line far past the line buffer
    const std::string contents[] = {"", binary, "VALUE=/Apps/V.app\nRUN_PROCESS_DLG=yes\n"};
    for (const std::string& text : contents) {
        pkgVersion = Record(1, 1, 1, 1, 1, 1);
        strcpy(szAppPath, "stale");
        isShowProcessWindow = true;
        WritePkgConfig(text);
        EXPECT_TRUE(GetPkgVersion());
        EXPECT_EQ("0,0,0,0,0,0", Fields(pkgVersion));
        EXPECT_STREQ("", szAppPath);
        EXPECT_FALSE(isShowProcessWindow);
    }

    // A directory in the configuration's place opens, and reads as nothing.
    core_test::fs::remove(bundle_ + kPkgConfig);
    core_test::fs::create_directories(bundle_ + kPkgConfig);
    EXPECT_TRUE(GetPkgVersion());
    EXPECT_EQ("0,0,0,0,0,0", Fields(pkgVersion));
    EXPECT_STREQ("", szAppPath);
}

TEST_F(LauncherFixture, LayoutChosenByThePackageRecord) {
    std::string app = dir_ / "Applications/Vantorel.app";
    strcpy(szAppPath, app.c_str());
    WriteFile(app + "/Contents/Info.plist", "plist");
    WriteFile(app + "/Contents/Resources/SysConfig.dat", VersionSection(1, 1, 1, 1, 1, 1));
    WriteFile(app + "/SysConfig.dat", VersionSection(2, 2, 2, 2, 2, 2));

    // DebugVersion wins over MajorVersion.
    pkgVersion = Record(0, 0, 1, 0, 0, 5);
    EXPECT_TRUE(IsApplicationExists());
    EXPECT_TRUE(GetInstalledVersion());
    EXPECT_EQ("1,1,1,1,1,1", Fields(installedVersion));
    EXPECT_EQ(Lines(), TakeLog());
    core_test::fs::remove(app + "/Contents/Info.plist");
    EXPECT_FALSE(IsApplicationExists());
    EXPECT_EQ(Lines({"IsApplicationExists --- " + app + "/Contents/Info.plist not exist"}), TakeLog());

    pkgVersion = Record(0, 0, 0, 0, 0, 5);
    EXPECT_TRUE(IsApplicationExists());
    EXPECT_TRUE(GetInstalledVersion());
    EXPECT_EQ("2,2,2,2,2,2", Fields(installedVersion));
    EXPECT_EQ(Lines(), TakeLog());

    // Both 0: the application path itself; a directory opens, so it counts as present,
    // and read as the configuration it yields zeros.
    pkgVersion = Record(3, 3, 0, 3, 3, 0);
    EXPECT_TRUE(IsApplicationExists());
    EXPECT_EQ(Lines({"IsApplicationExists --- pkgVersion info may be error."}), TakeLog());
    EXPECT_TRUE(GetInstalledVersion());
    EXPECT_EQ("0,0,0,0,0,0", Fields(installedVersion));

    // An installed configuration that cannot be opened leaves the record as it was.
    pkgVersion = Record(0, 0, 1, 0, 0, 0);
    core_test::fs::remove(app + "/Contents/Resources/SysConfig.dat");
    installedVersion = Record(9, 9, 9, 9, 9, 9);
    EXPECT_FALSE(GetInstalledVersion());
    EXPECT_EQ("9,9,9,9,9,9", Fields(installedVersion));
    EXPECT_EQ("GetInstalledVersion --- SetIniFileName szInstalledPath error.", TakeMainLog().back());

    // An empty path tests the layout's suffix alone.
    szAppPath[0] = '\0';
    pkgVersion = Record(0, 0, 0, 0, 0, 5);
    EXPECT_FALSE(IsApplicationExists());
    EXPECT_EQ(Lines({"IsApplicationExists --- /SysConfig.dat not exist"}), TakeLog());
}

TEST_F(LauncherFixture, OverLongApplicationPathIsCut) {
    std::string longPath(1100, 'p');
    longPath[0] = '/';
    strncpy(szAppPath, longPath.c_str(), 1023);
    pkgVersion = Record(0, 0, 0, 0, 0, 5);
    EXPECT_FALSE(IsApplicationExists());
    Lines lines = TakeLog();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("IsApplicationExists --- " + longPath.substr(0, 1023) + " not exist", lines[0]);
}

TEST_F(LauncherFixture, IsFileExistOpensForReading) {
    WriteFile(dir_ / "present", "x");
    EXPECT_TRUE(IsFileExist((dir_ / "present").c_str()));
    EXPECT_TRUE(IsFileExist(dir_.path().c_str()));
    EXPECT_FALSE(IsFileExist((dir_ / "absent").c_str()));
    EXPECT_FALSE(IsFileExist(NULL));
    EXPECT_EQ(
        Lines({"IsFileExist --- File: " + (dir_ / "present") + " exist",
               "IsFileExist --- File: " + dir_.path() + " exist",
               "IsFileExist --- File: " + (dir_ / "absent") + " isn't exist", "IsFileExist --- param error"}),
        TakeLog());
}

/* ---- The decision on the two records ---- */

TEST(ChooseDialog, TableAWithAMajorVersion) {
    const VersionRecord P = Record(4, 100, 7, 2, 1, 3);
    struct Case {
        const char* rule;
        VersionRecord installed;
        DialogChoice dialog;
        const char* key;
    };
    const Case cases[] = {
        {"A1 customize differs, even when otherwise equal", Record(4, 100, 7, 2, 2, 3), kMessageBoxR7,
         "DIFFERENT_VERSION_CONFIRM"},
        {"A1 before A2", Record(1, 1, 1, 1, 0, 1), kMessageBoxR7, "DIFFERENT_VERSION_CONFIRM"},
        {"A2 major below", Record(9, 999, 7, 9, 1, 2), kMessageBoxR7, "NEW_VERSION_CONFIRM"},
        {"A2 VR below", Record(3, 999, 7, 9, 1, 3), kMessageBoxR7, "NEW_VERSION_CONFIRM"},
        {"A2 build below", Record(4, 99, 7, 9, 1, 3), kMessageBoxR7, "NEW_VERSION_CONFIRM"},
        {"A2 SP below", Record(4, 100, 7, 1, 1, 3), kMessageBoxR7, "NEW_VERSION_CONFIRM"},
        {"A3 equal but the debug version", Record(4, 100, 0, 2, 1, 3), kWarningBoxR7, nullptr},
        {"A4 major above, all else below", Record(0, 0, 0, 0, 1, 4), kMessageBoxR7,
         "DIFFERENT_VERSION_CONFIRM"},
        {"A4 SP above", Record(4, 100, 7, 3, 1, 3), kMessageBoxR7, "DIFFERENT_VERSION_CONFIRM"},
    };
    for (const Case& c : cases) {
        const char* key = "unset";
        EXPECT_EQ(c.dialog, ChooseDialog(&c.installed, &P, &key)) << c.rule;
        if (c.key == nullptr) {
            EXPECT_EQ(nullptr, key) << c.rule;
        } else {
            EXPECT_STREQ(c.key, key) << c.rule;
        }
    }

    // An unreadable installed record is all zeros: below any package with a major version.
    const char* key = nullptr;
    VersionRecord zeros = VersionRecord();
    VersionRecord package = Record(0, 0, 0, 0, 0, 2);
    EXPECT_EQ(kMessageBoxR7, ChooseDialog(&zeros, &package, &key));
    EXPECT_STREQ("NEW_VERSION_CONFIRM", key);

    // -1 compares below 0 as a signed number.
    VersionRecord minusOne = Record(4, 100, 7, -1, 1, 3);
    VersionRecord spZero = Record(4, 100, 7, 0, 1, 3);
    EXPECT_EQ(kMessageBoxR7, ChooseDialog(&minusOne, &spZero, &key));
    EXPECT_STREQ("NEW_VERSION_CONFIRM", key);
    EXPECT_EQ(kMessageBoxR7, ChooseDialog(&spZero, &minusOne, &key));
    EXPECT_STREQ("DIFFERENT_VERSION_CONFIRM", key);
}

TEST(ChooseDialog, TableBWithoutAMajorVersion) {
    const VersionRecord P = Record(4, 9, 3, 2, 1, 0);
    struct Case {
        const char* rule;
        VersionRecord installed;
        DialogChoice dialog;
        const char* key;
    };
    const Case cases[] = {
        {"B1 customize differs", Record(9, 9, 9, 9, 0, 0), kMessageBox, "DIFFERENT_VERSION_CONFIRM"},
        {"B1 -1 differs from 1", Record(4, 9, 3, 2, -1, 0), kMessageBox, "DIFFERENT_VERSION_CONFIRM"},
        {"B2 VR below", Record(3, 99, 99, 99, 1, 0), kMessageBox, "NEW_VERSION_CONFIRM"},
        {"B2 build below", Record(4, 8, 99, 99, 1, 0), kMessageBox, "NEW_VERSION_CONFIRM"},
        {"B2 debug below", Record(4, 9, 2, 99, 1, 0), kMessageBox, "NEW_VERSION_CONFIRM"},
        {"B2 SP below", Record(4, 9, 3, 1, 1, 0), kMessageBox, "NEW_VERSION_CONFIRM"},
        {"B2 the installed major version takes no part", Record(4, 9, 3, 1, 1, 7), kMessageBox,
         "NEW_VERSION_CONFIRM"},
        {"B3 equal", Record(4, 9, 3, 2, 1, 0), kNoDialog, nullptr},
        {"B3 first difference above decides", Record(5, 1, 0, 0, 1, 0), kNoDialog, nullptr},
        {"B3 SP above", Record(4, 9, 3, 3, 1, 0), kNoDialog, nullptr},
    };
    for (const Case& c : cases) {
        const char* key = "unset";
        EXPECT_EQ(c.dialog, ChooseDialog(&c.installed, &P, &key)) << c.rule;
        if (c.key == nullptr) {
            EXPECT_EQ(nullptr, key) << c.rule;
        } else {
            EXPECT_STREQ(c.key, key) << c.rule;
        }
    }

    // -1 compares below 0 as a signed number.
    const char* key = nullptr;
    VersionRecord installed = Record(-1, 0, 0, 0, 0, 0);
    VersionRecord package = Record(0, 0, 0, 0, 0, 0);
    EXPECT_EQ(kMessageBox, ChooseDialog(&installed, &package, &key));
    EXPECT_STREQ("NEW_VERSION_CONFIRM", key);
}

/* ---- Bundle location ---- */

TEST(StrRStr, FindsTheLastOccurrenceOverlapsIncluded) {
    const char* text = "aaaa";
    EXPECT_EQ(text + 2, strrstr(text, "aa"));
    EXPECT_EQ(text + 3, strrstr(text, "a"));
    const char* path = "/x/Contents/y/Contents/MacOS";
    EXPECT_EQ(path + 13, strrstr(path, "/Contents"));
    EXPECT_EQ(nullptr, strrstr(path, "/contents"));
    EXPECT_EQ(nullptr, strrstr(text, ""));
    EXPECT_EQ(nullptr, strrstr(NULL, "a"));
    EXPECT_EQ(nullptr, strrstr(text, NULL));
    EXPECT_EQ(nullptr, strrstr("", "a"));
}

TEST(URLToString, DecodesEscapesWithoutReadingPastTheText) {
    struct Case {
        const char* source;
        const char* decoded;
    };
    const Case cases[] = {
        {"/Volumes/My%20Disc/Launcher.app/", "/Volumes/My Disc/Launcher.app/"},
        {"a%2Fb", "a/b"},
        {"%41%42", "AB"},
        {"%7E%C3%A9", "~\xC3\xA9"},
        // Malformed or cut-short escapes stay as they are.
        {"a%2fb", "a%2fb"},
        {"a%zz", "a%zz"},
        {"end%", "end%"},
        {"end%4", "end%4"},
        {"%%41", "%A"},
        {"", ""},
    };
    for (const Case& c : cases) {
        // The source sits at the end of its buffer, so a read past it would be noticed
        // under the address sanitizer; the destination carries a guard after its length.
        size_t length = strlen(c.source);
        std::unique_ptr<char[]> source(new char[length + 1]);
        memcpy(source.get(), c.source, length + 1);
        char destination[64];
        memset(destination, 0, sizeof(destination));
        destination[length] = '\0';
        destination[length + 1] = '#';
        EXPECT_TRUE(URLToString(source.get(), destination)) << c.source;
        EXPECT_STREQ(c.decoded, destination) << c.source;
        EXPECT_EQ('#', destination[length + 1]) << c.source;
    }
    char destination[4] = {0};
    EXPECT_FALSE(URLToString(NULL, destination));
    EXPECT_FALSE(URLToString("a", NULL));
}

TEST_F(LauncherFixture, ModulePathIsTheBundleDirectory) {
    char buffer[1024];
    // The last "/Contents" counts.
    std::string nested = dir_ / "Contents/Launcher.app";
    PlatSetExecutablePath((nested + "/Contents/MacOS/Launcher").c_str());
    memset(buffer, 0, sizeof(buffer));
    EXPECT_TRUE(GetModulePath(buffer, sizeof(buffer)));
    EXPECT_EQ(nested, buffer);

    // A smaller buffer gets the path cut at its size.
    memset(buffer, 0, sizeof(buffer));
    EXPECT_TRUE(GetModulePath(buffer, 11));
    EXPECT_EQ(nested.substr(0, 10), buffer);
    EXPECT_EQ(Lines(), TakeLog());

    // Failures leave the buffer zero-filled.
    const char zeros[1024] = {0};
    PlatSetExecutablePath((dir_ / "Launcher").c_str());
    memset(buffer, 0, sizeof(buffer));
    EXPECT_FALSE(GetModulePath(buffer, sizeof(buffer)));
    EXPECT_EQ(0, memcmp(zeros, buffer, sizeof(buffer)));

    std::string deep = dir_.path();
    while (deep.size() < 250) {
        deep += "/deeper";
    }
    PlatSetExecutablePath((deep + "/Launcher.app/Contents/MacOS/Launcher").c_str());
    EXPECT_FALSE(GetModulePath(buffer, sizeof(buffer)));
    EXPECT_EQ(0, memcmp(zeros, buffer, sizeof(buffer)));

    EXPECT_FALSE(GetModulePath(NULL, 1024));
    EXPECT_FALSE(GetModulePath(buffer, 0));
    EXPECT_FALSE(GetModulePath(buffer, -5));
    EXPECT_EQ(Lines({"GetModulePath --- strrstr error.", "GetModulePath --- Get app path failed.",
                     "GetModulePath --- param error", "GetModulePath --- param error",
                     "GetModulePath --- param error"}),
              TakeLog());
}

TEST_F(LauncherFixture, ModulePathBefore105ComesFromTheBundleURL) {
    PlatSetOSRelease("8.11.1");
    char buffer[1024];
    std::string bundle = dir_ / "My Disc/100% #1/Launcher.app";
    WriteFile(bundle + "/Contents/MacOS/Launcher", "");
    PlatSetExecutablePath((bundle + "/Contents/MacOS/Launcher").c_str());
    memset(buffer, 0, sizeof(buffer));
    EXPECT_TRUE(GetModulePath(buffer, sizeof(buffer)));
    EXPECT_EQ(bundle, buffer);

    memset(buffer, 0, sizeof(buffer));
    EXPECT_TRUE(GetModulePath(buffer, 8));
    EXPECT_EQ(bundle.substr(0, 7), buffer);

    // The bundle URL knows no 255-character limit.
    std::string deep = dir_.path();
    while (deep.size() < 400) {
        deep += "/deeper";
    }
    deep += "/Launcher.app";
    PlatSetExecutablePath((deep + "/Contents/MacOS/Launcher").c_str());
    memset(buffer, 0, sizeof(buffer));
    EXPECT_TRUE(GetModulePath(buffer, sizeof(buffer)));
    EXPECT_EQ(deep, buffer);
    EXPECT_EQ(Lines(), TakeLog());
}

/* ---- Launch ---- */

TEST_F(LauncherFixture, AutoRunApplicationOpensTheInstalledCopy) {
    // A recording "open" first on the search path.
    std::string record = dir_ / "open.args";
    std::string bin = dir_ / "bin";
    WriteFile(bin + "/open",
              "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\"; done >> '" + record + "'\n");
    core_test::fs::permissions(bin + "/open", core_test::fs::perms::owner_all);
    const char* oldPath = getenv("PATH");
    std::string savedPath = oldPath != nullptr ? oldPath : "";
    setenv("PATH", (bin + ":" + savedPath).c_str(), 1);

    strcpy(szAppPath, "/Applications/Vantorel Client.app");
    AutoRunApplication();
    std::string args;
    EXPECT_TRUE(ReadFile(record, &args));
    EXPECT_EQ("-a\n/Applications/Vantorel Client.app\n", args);
    EXPECT_EQ(Lines({"AutoRunApplication --- AutoRunApplication end......"}), TakeLog());

    // An empty path still names an (empty) application, and the end is logged.
    core_test::fs::remove(record);
    szAppPath[0] = '\0';
    AutoRunApplication();
    EXPECT_TRUE(ReadFile(record, &args));
    EXPECT_EQ("-a\n\n", args);
    EXPECT_EQ(Lines({"AutoRunApplication --- AutoRunApplication end......"}), TakeLog());

    setenv("PATH", savedPath.c_str(), 1);
}
