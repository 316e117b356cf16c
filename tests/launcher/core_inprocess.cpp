/* The launcher core in-process: version records, the decision on them, the bundle location,
 * the process and system queries, and the completion event. */
#include "support.h"

using namespace launcher_test;

namespace {

VersionRecord V(int vr, int build, int debug, int sp, int customize, int major) {
    return VersionRecord{vr, build, debug, sp, customize, major};
}

std::string Fields(const VersionRecord& r) {
    std::ostringstream text;
    text << r.VRVersion << "," << r.BuildVersion << "," << r.DebugVersion << "," << r.SPVersion << ","
         << r.CustomizeVersion << "," << r.MajorVersion;
    return text.str();
}

using Core = InProcess;

} // namespace

// Only the word itself, in any case, turns the progress window on; a value keeps its blanks.
// Empty, sectionless or folder configurations give neutral settings.
TEST_F(Core, PackageSettings) {
    const std::string record = SysConfig(4, 120, 0, 2, 7, 3) + "[APP_PATH]\nVALUE= /Apps/V.app\n";
    for (const auto& [withRecord, lines, show] : std::vector<std::tuple<bool, std::string, bool>>{
             {true, "RUN_PROCESS_DLG=Yes\n", true},
             {true, "RUN_PROCESS_DLG= yes\n", false},
             {true, "RUN_PROCESS_DLG=yes please\n", false},
             {true, "", false},
             {false, "", false},
             {false, "VALUE=/V.app\nRUN_PROCESS_DLG=yes\n", false},
             {false, "directory", false}}) {
        pkgVersion = V(1, 1, 1, 1, 1, 1);
        strcpy(szAppPath, "stale");
        isShowProcessWindow = !show;
        fs::remove_all(bundle_ + kPkgConfig);
        if (lines == "directory") {
            fs::create_directories(bundle_ + kPkgConfig);
        } else {
            WriteFile(bundle_ + kPkgConfig, (withRecord ? record : "") + lines);
        }
        EXPECT_TRUE(GetPkgVersion());
        EXPECT_EQ(withRecord ? "4,120,0,2,7,3" : "0,0,0,0,0,0", Fields(pkgVersion)) << lines;
        EXPECT_EQ(show, isShowProcessWindow) << lines;
        EXPECT_STREQ(withRecord ? " /Apps/V.app" : "", szAppPath) << lines;
        const char* decision = show ? "read RUN_PROCESS_DLG is yes, run process window"
                                    : "read RUN_PROCESS_DLG is not yes,not run process window";
        EXPECT_EQ(Lines({"GetPkgVersion --- inipath:" + bundle_ + kPkgConfig + ".",
                         std::string("GetPkgVersion --- ") + decision}),
                  Calls(TakeLog(), "main"))
            << lines;
    }
}

// DebugVersion, then MajorVersion, picks where the installed copy keeps its record.
TEST_F(Core, InstalledLayoutChosenByThePackageRecord) {
    std::string app = dir_ / "Applications/Vantorel.app";
    strcpy(szAppPath, app.c_str());
    WriteFile(app + "/Contents/Info.plist", "plist");
    WriteFile(app + "/Contents/Resources/SysConfig.dat", SysConfig(1, 1, 1, 1, 1, 1));
    WriteFile(app + "/SysConfig.dat", SysConfig(2, 2, 2, 2, 2, 2));
    for (const auto& [package, installed, log] : std::vector<std::tuple<VersionRecord, const char*, Lines>>{
             {V(0, 0, 1, 0, 0, 5), "1,1,1,1,1,1", {}},
             {V(0, 0, 0, 0, 0, 5), "2,2,2,2,2,2", {}},
             // Both 0: the application folder itself, which opens and reads as zeros.
             {V(3, 3, 0, 3, 3, 0),
              "0,0,0,0,0,0",
              {"IsApplicationExists --- pkgVersion info may be error."}}}) {
        pkgVersion = package;
        EXPECT_TRUE(IsApplicationExists()) << installed;
        EXPECT_TRUE(GetInstalledVersion()) << installed;
        EXPECT_EQ(installed, Fields(installedVersion));
        EXPECT_EQ(log, Calls(TakeLog(), "main"));
    }

    pkgVersion = V(0, 0, 1, 0, 0, 0);
    const std::string plist = app + "/Contents/Info.plist";
    fs::remove(plist);
    EXPECT_FALSE(IsApplicationExists());
    // A pipe or a device is not present, and testing one does not wait; a folder is.
    alarm(20);
    ASSERT_EQ(0, mkfifo(plist.c_str(), 0600));
    EXPECT_FALSE(IsApplicationExists());
    EXPECT_FALSE(IsFileExist("/dev/null"));
    EXPECT_TRUE(IsFileExist(app.c_str()));
    alarm(0);
    // An unreadable installed record leaves the record as it was.
    fs::remove(app + "/Contents/Resources/SysConfig.dat");
    installedVersion = V(9, 9, 9, 9, 9, 9);
    EXPECT_FALSE(GetInstalledVersion());
    EXPECT_EQ("9,9,9,9,9,9", Fields(installedVersion));
    EXPECT_EQ(Lines({"IsApplicationExists --- " + plist + " not exist",
                     "IsApplicationExists --- " + plist + " not exist",
                     "IsFileExist --- File: /dev/null isn't exist", "IsFileExist --- File: " + app + " exist",
                     "GetInstalledVersion --- SetIniFileName szInstalledPath error."}),
              Calls(TakeLog(), "main"));

    // A path of 1023 characters leaves no room for the suffix, which is cut off.
    std::string longPath = "/" + std::string(1099, 'p');
    strncpy(szAppPath, longPath.c_str(), 1023);
    pkgVersion = V(0, 0, 0, 0, 0, 5);
    EXPECT_FALSE(IsApplicationExists());
    EXPECT_EQ(Lines({"IsApplicationExists --- " + longPath.substr(0, 1023) + " not exist"}),
              Calls(TakeLog()));
}

// Table A with a package major version, table B without; the first differing field decides.
TEST(ChooseDialog, Tables) {
    const VersionRecord A = V(4, 100, 7, 2, 1, 3), B = V(4, 9, 3, 2, 1, 0);
    const char* const kNew = "NEW_VERSION_CONFIRM";
    const char* const kDifferent = "DIFFERENT_VERSION_CONFIRM";
    for (const auto& [rule, installed, package, dialog, textKey] :
         std::vector<std::tuple<const char*, VersionRecord, VersionRecord, DialogChoice, const char*>>{
             {"A1 customize differs", V(4, 100, 7, 2, 2, 3), A, kMessageBoxR7, kDifferent},
             {"A1 before A2", V(1, 1, 1, 1, 0, 1), A, kMessageBoxR7, kDifferent},
             {"A2 major below", V(9, 999, 7, 9, 1, 2), A, kMessageBoxR7, kNew},
             {"A2 SP below", V(4, 100, 7, 1, 1, 3), A, kMessageBoxR7, kNew},
             {"A3 only the debug version differs", V(4, 100, 0, 2, 1, 3), A, kWarningBoxR7, nullptr},
             {"A4 major above", V(0, 0, 0, 0, 1, 4), A, kMessageBoxR7, kDifferent},
             {"A -1 below 0", V(4, 100, 7, -1, 1, 3), V(4, 100, 7, 0, 1, 3), kMessageBoxR7, kNew},
             {"B1 customize differs", V(9, 9, 9, 9, 0, 0), B, kMessageBox, kDifferent},
             {"B2 VR below", V(3, 99, 99, 99, 1, 0), B, kMessageBox, kNew},
             {"B2 debug below", V(4, 9, 2, 99, 1, 0), B, kMessageBox, kNew},
             {"B2 SP below, installed major ignored", V(4, 9, 3, 1, 1, 7), B, kMessageBox, kNew},
             {"B3 equal", B, B, kNoDialog, nullptr},
             {"B3 first difference above", V(5, 1, 0, 0, 1, 0), B, kNoDialog, nullptr}}) {
        const char* key = "unset";
        EXPECT_EQ(dialog, ChooseDialog(&installed, &package, &key)) << rule;
        EXPECT_STREQ(textKey, key) << rule;
    }
}

// The bundle is the executable's path cut at the last "/Contents", at most 255 characters;
// before 10.5 it is the decoded bundle URL, which knows no such limit and is cut to the buffer
// however long its text (here above 4500 bytes of escaped blanks).
TEST_F(Core, ModulePath) {
    const std::string blank(250, ' ');
    std::string deep = "Contents";
    while (deep.size() < 400) {
        deep += "/deeper";
    }
    const std::string nested = UseBundle("Contents/Launcher.app"),
                      escaped = UseBundle("My Disc/100%41 #1/L.app"), longest = UseBundle(deep + "/L.app"),
                      blanks = UseBundle(blank + "/" + blank + "/" + blank + "/" + blank + "/" + blank + "/" +
                                         blank + "/L.app"),
                      exe = "/Contents/Linux/Launcher";
    for (const auto& [rule, release, executable, size, path] :
         std::vector<std::tuple<const char*, const char*, std::string, int, std::string>>{
             {"the last /Contents of the program's path ends the bundle", "10.8.0", nested + exe, 1024,
              nested},
             {"a path longer than the buffer is cut", "10.8.0", nested + exe, 11, nested.substr(0, 10)},
             {"a program outside a bundle has no bundle path", "10.8.0", dir_ / "Launcher", 1024, ""},
             {"a program path beyond 255 bytes is not read", "10.8.0", longest + exe, 1024, ""},
             {"a buffer of no bytes is refused", "10.8.0", nested + exe, 0, ""},
             {"before 10.5 the bundle's URL is decoded", "8.11.1", escaped + exe, 1024, escaped},
             {"before 10.5 a decoded path is cut to the buffer", "8.11.1", escaped + exe, 8,
              escaped.substr(0, 7)},
             {"before 10.5 a long URL is read whole", "8.11.1", longest + exe, 1024, longest},
             {"before 10.5 a path past the buffer is cut", "8.11.1", blanks + exe, 1024,
              blanks.substr(0, 1023)}}) {
        SCOPED_TRACE(rule);
        PlatSetOSRelease(release);
        PlatSetExecutablePath(executable.c_str());
        char buffer[1024] = {};
        EXPECT_EQ(!path.empty(), GetModulePath(buffer, size));
        EXPECT_EQ(path, buffer);
        EXPECT_EQ(std::string(sizeof buffer - path.size(), '\0'),
                  std::string(buffer + path.size(), sizeof buffer - path.size()));
    }
    EXPECT_FALSE(GetModulePath(NULL, 1024));
    EXPECT_EQ(Lines({"GetModulePath --- strrstr error.", "GetModulePath --- Get app path failed.",
                     "GetModulePath --- param error", "GetModulePath --- param error"}),
              Calls(TakeLog()));
}

// Only the exact command name counts: not another case, not a longer name. The process table
// holds whole records: the child's name is found in it.
TEST_F(Core, ProcessNamesMatchExactly) {
    NamedProcess lower(dir_ / "lower", "autosetup"), longer(dir_ / "longer", "AutoSetupHelper");
    EXPECT_FALSE(CheckProcessExists("AutoSetup"));
    EXPECT_FALSE(IsProcessExists("AutoSetup"));
    EXPECT_EQ(Lines(), Calls(TakeLog()));

    NamedProcess exact(dir_ / "exact", "AutoSetup");
    ForgetProcessTable();
    EXPECT_TRUE(CheckProcessExists("AutoSetup"));
    EXPECT_EQ(Lines({"CheckProcessExists --- AutoSetup", "CheckProcessExists --- -----------------"}),
              Calls(TakeLog()));
    EXPECT_TRUE(IsProcessExists("AutoSetup"));
    EXPECT_TRUE(IsProcessExists("AutoSetupHelper"));
    EXPECT_FALSE(IsProcessExists("AutoSetu"));
}

// Signals are counted; -1 waits without limit, not for one microsecond; a stopped event
// neither waits nor takes signals.
TEST(CompletionEvent, CountsSignalsAndWaits) {
    SetEvent("QV_EVENT");
    EXPECT_TRUE(Notify());
    EXPECT_TRUE(Notify());
    EXPECT_TRUE(Wait(0));
    EXPECT_TRUE(Wait(0));
    EXPECT_FALSE(Wait(0));
    std::thread notifier([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        Notify();
    });
    EXPECT_TRUE(Wait(0xFFFFFFFFu));
    notifier.join();
    StopEvent();
    EXPECT_FALSE(Notify());
    EXPECT_FALSE(Wait(static_cast<uint32_t>(-1)));
}
