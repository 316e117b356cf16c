/* The built launcher bundle, run from a disc folder: the log it writes and the command
 * that starts the application, for the outcomes decided inside the launcher core. */

#include <gtest/gtest.h>

#include <string.h>
#include <time.h>

#include "core_support.h"

using namespace core_test;
using Lines = std::vector<std::string>;

namespace {

const std::string kLogFile = "/var/tmp/Kestrun.log";
const std::string kStagedPackage = "/tmp/qv_tmp_vantorel.mpkg";
const std::string kPkgConfig = "/Contents/Resources/Vantorel.mpkg/Contents/Resources/SysConfig.dat";
constexpr int kTimeLimitSeconds = 60;

// Moves a fixed path out of the way and puts it back afterwards.
class SavedPath {
  public:
    SavedPath(const std::string& path, const std::string& backup) : path_(path), backup_(backup) {
        std::error_code error;
        if (fs::symlink_status(path_, error).type() == fs::file_type::not_found) {
            return;
        }
        fs::copy(path_, backup_, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
        saved_ = !error;
        if (saved_) {
            fs::remove_all(path_, error);
        }
    }
    ~SavedPath() {
        std::error_code error;
        fs::remove_all(path_, error);
        if (saved_) {
            fs::copy(backup_, path_, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
        }
    }
    SavedPath(const SavedPath&) = delete;
    SavedPath& operator=(const SavedPath&) = delete;

  private:
    std::string path_, backup_;
    bool saved_ = false;
};

struct LauncherResult {
    int status = -1; // exit status, -1 when killed or not started
    time_t started = 0, ended = 0;
    std::vector<LogLine> log;
    bool opened = false; // the recording "open" ran
    std::string openArgs;
};

class LauncherRun : public ::testing::Test {
  protected:
    void SetUp() override {
        savedLog_.reset(new SavedPath(kLogFile, dir_ / "saved.log"));
        savedStage_.reset(new SavedPath(kStagedPackage, dir_ / "saved.mpkg"));

        bundle_ = dir_ / "disc/Launcher.app";
        fs::create_directories(bundle_);
        std::error_code error;
        fs::copy(std::string(KESTRUN_BUILD_DIR) + "/Launcher.app", bundle_, fs::copy_options::recursive,
                 error);
        ASSERT_FALSE(error) << error.message();
        ASSERT_TRUE(fs::exists(bundle_ + "/Contents/MacOS/Launcher"));
        fs::remove_all(bundle_ + "/Contents/Resources/Vantorel.mpkg", error);

        app_ = dir_ / "Applications/Vantorel Client.app";
        bin_ = dir_ / "bin";
        WriteFile(bin_ + "/open", "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\"; done >> '" +
                                      (dir_ / "open.args") + "'\n");
        fs::permissions(bin_ + "/open", fs::perms::owner_all);
    }
    void TearDown() override {
        savedStage_.reset();
        savedLog_.reset();
    }

    // The package's configuration in the disc's bundle.
    void WritePackage(const std::string& versions, const std::string& appPath,
                      const char* showWindow = "no") {
        WriteFile(bundle_ + kPkgConfig,
                  versions + "[APP_PATH]\nVALUE=" + appPath + "\nRUN_PROCESS_DLG=" + showWindow + "\n");
    }
    // An installed application in the layout of a package record with DebugVersion set.
    void WriteInstalled(const std::string& app, const std::string& versions) {
        WriteFile(app + "/Contents/Info.plist", "<plist/>\n");
        WriteFile(app + "/Contents/Resources/SysConfig.dat", versions);
    }

    LauncherResult RunLauncher() {
        LauncherResult run;
        std::vector<std::string> env;
        for (char** entry = environ; *entry != nullptr; entry++) {
            std::string text = *entry;
            if (text.rfind("DISPLAY=", 0) == 0 || text.rfind("WAYLAND_DISPLAY=", 0) == 0 ||
                text.rfind("PATH=", 0) == 0) {
                continue;
            }
            env.push_back(text);
        }
        const char* path = getenv("PATH");
        env.push_back("PATH=" + bin_ + ":" + (path != nullptr ? path : "/usr/bin:/bin"));
        std::vector<char*> envp;
        for (std::string& text : env) {
            envp.push_back(&text[0]);
        }
        envp.push_back(nullptr);

        std::string program = bundle_ + "/Contents/MacOS/Launcher";
        std::string output = dir_ / "launcher.out";
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        char* argv[] = {&program[0], nullptr};

        run.started = time(nullptr);
        pid_t pid = -1;
        int spawned = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv, envp.data());
        posix_spawn_file_actions_destroy(&actions);
        EXPECT_EQ(0, spawned) << program;
        if (spawned != 0) {
            return run;
        }
        int status = 0;
        bool ended = false;
        for (int i = 0; i < kTimeLimitSeconds * 100 && !ended; i++) {
            ended = waitpid(pid, &status, WNOHANG) == pid;
            if (!ended) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
        if (!ended) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            ADD_FAILURE() << "the launcher did not end within " << kTimeLimitSeconds << " seconds";
        } else if (WIFEXITED(status)) {
            run.status = WEXITSTATUS(status);
        } else {
            ADD_FAILURE() << "the launcher ended by signal " << WTERMSIG(status);
        }
        run.ended = time(nullptr);
        run.log = ReadLog(kLogFile);
        run.opened = ReadFile(dir_ / "open.args", &run.openArgs);
        return run;
    }

    // Every line numbered from 1 on, stamped within the run, from the launcher's own
    // source or the INI reader.
    void ExpectWellFormed(const LauncherResult& run) {
        for (size_t i = 0; i < run.log.size(); i++) {
            const LogLine& line = run.log[i];
            EXPECT_EQ(static_cast<int>(i + 1), line.number) << "line " << i + 1 << ": " << line.message;
            time_t stamp = LogLineTime(line);
            EXPECT_GE(stamp, run.started) << "line " << i + 1;
            EXPECT_LE(stamp, run.ended) << "line " << i + 1;
            EXPECT_TRUE(line.tag == "main" || line.tag == "INI") << "line " << i + 1 << ": " << line.tag;
        }
    }

    std::string IniPathLine() const { return "GetPkgVersion --- inipath:" + bundle_ + kPkgConfig + "."; }

    TempDir dir_;
    std::unique_ptr<SavedPath> savedLog_, savedStage_;
    std::string bundle_, app_, bin_;
};

Lines MainLines(const LauncherResult& run) {
    Lines lines;
    for (const LogLine& line : run.log) {
        if (line.tag == "main") {
            lines.push_back(line.function + " --- " + line.message);
        }
    }
    return lines;
}

} // namespace

TEST_F(LauncherRun, LaunchesAnInstalledCopyAsNewAsThePackage) {
    // Package record without a major version (table B) and with a debug version (the
    // bundle layout); the installed copy is newer by its first differing field.
    WritePackage(VersionSection(4, 120, 1, 2, 7, 0), app_, "yes");
    WriteInstalled(app_, VersionSection(5, 1, 0, 0, 7, 0));
    LauncherResult run = RunLauncher();
    EXPECT_EQ(0, run.status);
    ExpectWellFormed(run);
    EXPECT_EQ(Lines({"main --- Main Enter", IniPathLine(),
                     "GetPkgVersion --- read RUN_PROCESS_DLG is yes, run process window",
                     "main --- GetPkgVersion Sunccess", "main --- CheckInstallerExists",
                     "IsFileExist --- File: /tmp/qv_tmp_vantorel.mpkg isn't exist",
                     "AutoRunApplication --- AutoRunApplication end......"}),
              FunctionsAndMessages(run.log));
    EXPECT_TRUE(run.opened);
    EXPECT_EQ("-a\n" + app_ + "\n", run.openArgs);
}

TEST_F(LauncherRun, StopsWhenAPackageIsStaged) {
    WritePackage(VersionSection(4, 120, 1, 2, 7, 0), app_);
    WriteInstalled(app_, VersionSection(4, 120, 1, 2, 7, 0));
    fs::create_directories(kStagedPackage + "/Contents");
    LauncherResult run = RunLauncher();
    EXPECT_EQ(0, run.status);
    ExpectWellFormed(run);
    EXPECT_EQ(Lines({"main --- Main Enter", IniPathLine(),
                     "GetPkgVersion --- read RUN_PROCESS_DLG is not yes,not run process window",
                     "main --- GetPkgVersion Sunccess", "main --- CheckInstallerExists",
                     "IsFileExist --- File: /tmp/qv_tmp_vantorel.mpkg exist",
                     "main --- Installer Exists stop event"}),
              FunctionsAndMessages(run.log));
    EXPECT_FALSE(run.opened);
    EXPECT_TRUE(fs::exists(kStagedPackage + "/Contents"));
}

TEST_F(LauncherRun, LeavesEverythingToARunningUpdater) {
    WritePackage(VersionSection(4, 120, 1, 2, 7, 0), app_);
    WriteInstalled(app_, VersionSection(4, 120, 1, 2, 7, 0));
    NamedProcess updater(dir_ / "updater", "UpdateWizard");
    ASSERT_TRUE(updater.running());
    LauncherResult run = RunLauncher();
    EXPECT_EQ(0, run.status);
    ExpectWellFormed(run);
    EXPECT_EQ(Lines({"main --- Main Enter", IniPathLine(),
                     "GetPkgVersion --- read RUN_PROCESS_DLG is not yes,not run process window",
                     "main --- GetPkgVersion Sunccess"}),
              FunctionsAndMessages(run.log));
    EXPECT_FALSE(run.opened);
}

TEST_F(LauncherRun, MissingPackageConfigurationMeansInstall) {
    WriteInstalled(app_, VersionSection(4, 120, 1, 2, 7, 0));
    LauncherResult run = RunLauncher();
    EXPECT_EQ(0, run.status);
    ExpectWellFormed(run);
    // What the installation then does is its own; the decision ends here.
    Lines expected = {"main --- Main Enter",
                      IniPathLine(),
                      "SetIniFileName --- open file: " + bundle_ + kPkgConfig + " failed, please check...\n",
                      "GetPkgVersion --- SetIniFileName inipath error.",
                      "main --- GetPkgVersion Sunccess",
                      "IsApplicationExists --- pkgVersion info may be error.",
                      "IsApplicationExists ---  not exist",
                      "main --- Application isn't Exist,then install"};
    Lines lines = FunctionsAndMessages(run.log);
    ASSERT_GE(lines.size(), expected.size());
    EXPECT_EQ(expected, Lines(lines.begin(), lines.begin() + expected.size()));
    EXPECT_EQ("INI", run.log[2].tag);
}

TEST_F(LauncherRun, ApplicationPathsAtTheCommandLimit) {
    // A path of 1013 characters still fits the launch command whole; one of 1017 (the
    // longest a configuration line holds) loses its end and the closing quote, and the
    // shell refuses the command. The launcher logs its end and returns 0 either way.
    for (size_t length : {1013u, 1017u}) {
        std::string app = dir_ / "Applications/";
        while (app.size() < length) {
            app += std::string(std::min<size_t>(100, length - app.size()), 'd');
            if (app.size() < length - 1) {
                app += "/";
            }
        }
        ASSERT_EQ(length, app.size());
        fs::create_directories(app);
        // Both layout fields 0: the application path itself is the presence test.
        WritePackage(VersionSection(0, 0, 0, 0, 0, 0), app);
        fs::remove(dir_ / "open.args");
        fs::remove(kLogFile);

        LauncherResult run = RunLauncher();
        EXPECT_EQ(0, run.status) << length;
        ExpectWellFormed(run);
        EXPECT_EQ(
            Lines({"main --- Main Enter", IniPathLine(),
                   "GetPkgVersion --- read RUN_PROCESS_DLG is not yes,not run process window",
                   "main --- GetPkgVersion Sunccess", "IsApplicationExists --- pkgVersion info may be error.",
                   "main --- CheckInstallerExists",
                   "IsFileExist --- File: /tmp/qv_tmp_vantorel.mpkg isn't exist",
                   "AutoRunApplication --- AutoRunApplication end......"}),
            MainLines(run))
            << length;
        if (length == 1013) {
            EXPECT_TRUE(run.opened);
            EXPECT_EQ("-a\n" + app + "\n", run.openArgs);
        } else {
            EXPECT_FALSE(run.opened) << run.openArgs;
        }
    }
}
