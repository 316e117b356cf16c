/* The built launcher end to end: its bundle copied into temporary disc folders, run with a
 * recording open command first on PATH and within a time limit, the fixed paths put back. */
#include "support.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>

#include <memory>
#include <tuple>

#include <gtest/gtest.h>

using namespace launcher_test;

namespace {

bool WaitForFile(const std::string& path) {
    for (int i = 0; i < 100 && !fs::exists(path); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return fs::exists(path);
}

// The answer that closes the terminal instead of typing.
const std::string kHangUp = "(hang up)";

struct RunResult {
    int status = -1;
    std::string output; // standard output and error, or the terminal's screen
    std::vector<LogLine> log;
};

class EndToEnd : public ::testing::Test {
  protected:
    void SetUp() override {
        // The recording open passes the call on to the real one.
        WriteFile(bin_ + "/open",
                  "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\"; done >> '" + opened_ +
                      "'\nexec '" KESTRUN_BUILD_DIR "/bin/open' \"$@\"\n",
                  true);
    }
    // The built bundle at temp/relative, with a package configuration if given, AutoSetup and
    // an installer script that reports what it found.
    std::string Disc(const std::string& relative, const std::string& package, bool autoSetup = true) {
        std::string bundle = temp_ / relative;
        fs::create_directories(bundle);
        fs::copy(KESTRUN_BUILD_DIR "/Launcher.app", bundle, fs::copy_options::recursive);
        fs::remove_all(bundle + "/Contents/Resources/Vantorel.mpkg");
        if (!package.empty())
            WriteFile(bundle + kPkgConfig, package);
        if (autoSetup)
            WriteFile(bundle + "/Contents/AutoSetup", "#!/bin/sh\n", true);
        WriteFile(bundle + "/Contents/run_local_kestrun",
                  "#!/bin/sh\necho \"args=$#\" > '" + report_ + "'\n[ -d " + kStaged +
                      " ] && echo staged >> '" + report_ + "'\n[ -x /tmp/AutoSetup ] && echo autosetup >> '" +
                      report_ + "'\nexit 0\n",
                  true);
        return bundle;
    }
    // The installed application in the layout of a package with DebugVersion set; its program
    // leaves a mark when started.
    void Install(const std::string& versions) {
        WriteFile(app_ + "/Contents/Info.plist", "<plist version=\"1.0\"><dict><key>CFBundleExecutable</key>"
                                                 "<string>Vantorel</string></dict></plist>\n");
        WriteFile(app_ + "/Contents/Resources/SysConfig.dat", versions);
        WriteFile(app_ + "/Contents/MacOS/Vantorel", "#!/bin/sh\ntouch '" + started_ + "'\n", true);
    }
    // Runs the bundle's launcher without display, within a time limit. Without a terminal its
    // input is /dev/null; on one, `answer` is typed once `prompt` shows.
    RunResult Launch(const std::string& bundle, bool terminal = false, const std::string& prompt = "",
                     const std::string& answer = "") {
        for (const std::string& path : {kLogFile, report_, started_, opened_})
            fs::remove(path);
        RunResult run;
        const std::string program = bundle + "/Contents/MacOS/Launcher";
        int reader = -1, ends[2] = {-1, -1};
        struct winsize size = {30, 100, 0, 0};
        pid_t child = terminal ? forkpty(&reader, nullptr, nullptr, &size) : pipe(ends) == 0 ? fork() : -1;
        if (child == 0) {
            if (!terminal) {
                setpgid(0, 0);
                dup2(open("/dev/null", O_RDONLY), 0);
                dup2(ends[1], 1);
                dup2(ends[1], 2);
            }
            unsetenv("DISPLAY");
            unsetenv("WAYLAND_DISPLAY");
            setenv("TERM", "xterm", 1);
            setenv("PATH", (bin_ + ":" + getenv("PATH")).c_str(), 1);
            execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        if (!terminal) {
            reader = ends[0];
            close(ends[1]);
        }
        // Read until the launcher has ended and its output is drained, or the limit has passed.
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        bool answered = prompt.empty(), ended = false, readable = child > 0;
        int status = 0;
        while (child > 0 && std::chrono::steady_clock::now() < deadline) {
            struct pollfd ready = {reader, POLLIN, 0};
            bool data = readable && poll(&ready, 1, 50) > 0;
            if (data) {
                char buffer[4096];
                ssize_t got = read(reader, buffer, sizeof buffer);
                readable = got > 0;
                run.output.append(buffer, got > 0 ? got : 0);
            } else if (!readable) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            if (!answered && run.output.find(prompt) != std::string::npos) {
                answered = true;
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
                if (answer == kHangUp) {
                    close(reader);
                    reader = -1;
                    readable = false;
                    continue;
                }
                EXPECT_EQ(static_cast<ssize_t>(answer.size()), write(reader, answer.data(), answer.size()));
            }
            ended = ended || waitpid(child, &status, WNOHANG) == child;
            if (ended && !data)
                break;
        }
        if (child > 0 && !ended) {
            kill(-child, SIGKILL);
            waitpid(child, &status, 0);
        }
        close(reader);
        EXPECT_TRUE(ended) << "the launcher did not end within its time limit\n" << run.output;
        run.status = ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        EXPECT_EQ(0, run.status) << run.output;
        run.log = ReadLog(kLogFile);
        return run;
    }
    FixedPathGuard log_{kLogFile}, staged_{kStaged}, autoSetup_{kAutoSetupCopy};
    TempDir temp_;
    std::string bin_ = temp_ / "bin", app_ = temp_ / "Applications/Vantorel Client.app";
    std::string opened_ = temp_ / "open.args", report_ = temp_ / "script.txt", started_ = temp_ / "started";
};

} // namespace

// LAUNCH, STOP and UPDATER are decided before anything is installed; a missing package
// configuration means INSTALL (carried on by the others path, not followed here).
TEST_F(EndToEnd, Decisions) {
    Install(SysConfig(5, 1, 0, 0, 7, 0)); // newer than the package by its first differing field
    const Lines launch = {"main --- CheckInstallerExists",
                          "IsFileExist --- File: /tmp/qv_tmp_vantorel.mpkg isn't exist",
                          "AutoRunApplication --- AutoRunApplication end......"};
    const Lines stop = {"main --- CheckInstallerExists",
                        "IsFileExist --- File: /tmp/qv_tmp_vantorel.mpkg exist",
                        "main --- Installer Exists stop event"};
    const Lines install = {"IsApplicationExists --- pkgVersion info may be error.",
                           "IsApplicationExists ---  not exist",
                           "main --- Application isn't Exist,then install"};
    for (const auto& [outcome, tail, opened] :
         std::vector<std::tuple<std::string, Lines, std::string>>{{"LAUNCH", launch, "-a\n" + app_ + "\n"},
                                                                  {"STOP", stop, ""},
                                                                  {"UPDATER", {}, ""},
                                                                  {"INSTALL", install, "-a\n\n"}}) {
        SCOPED_TRACE(outcome);
        std::string bundle = Disc("disc/" + outcome + "/Launcher.app",
                                  outcome == "INSTALL" ? "" : SysConfig(4, 120, 1, 2, 7, 0, app_, "yes"));
        fs::remove_all(kStaged);
        if (outcome == "STOP")
            fs::create_directories(kStaged + "/Contents");
        std::unique_ptr<NamedProcess> updater(
            outcome == "UPDATER" ? new NamedProcess(temp_ / "u", "UpdateWizard") : nullptr);
        RunResult run = Launch(bundle);
        const std::string config = bundle + kPkgConfig;
        Lines expected = {"main --- Main Enter", "GetPkgVersion --- inipath:" + config + "."};
        if (outcome == "INSTALL") {
            expected.push_back("SetIniFileName --- open file: " + config + " failed, please check...\n");
            expected.push_back("GetPkgVersion --- SetIniFileName inipath error.");
        } else {
            expected.push_back("GetPkgVersion --- read RUN_PROCESS_DLG is yes, run process window");
        }
        expected.push_back("main --- GetPkgVersion Sunccess");
        expected.insert(expected.end(), tail.begin(), tail.end());
        Lines lines = Calls(run.log);
        lines.resize(outcome == "INSTALL" ? std::min(lines.size(), expected.size()) : lines.size());
        EXPECT_EQ(expected, lines);
        EXPECT_EQ(opened, ReadFile(opened_)); // an empty application path is opened as it is
        EXPECT_TRUE(outcome != "LAUNCH" || WaitForFile(started_));
        EXPECT_EQ(outcome == "STOP", fs::exists(kStaged + "/Contents")); // STOP leaves it alone
    }
}

// Through "/Volumes": staging with or without the progress window (without display or
// terminal the worker is simply joined), then AutoSetup and the script; a running AutoSetup,
// a missing AutoSetup or a missing package stop short.
TEST_F(EndToEnd, DashboardInstall) {
    const std::string all = "args=0\nstaged\nautosetup\n", joined = "QuitApplicationEventLoop done....";
    for (const auto& [name, package, autoSetup, running, progress, terminal, staged, report, message] :
         std::vector<
             std::tuple<std::string, bool, bool, bool, std::string, bool, bool, std::string, std::string>>{
             {"plain", true, true, false, "no", false, true, all, "copy mpkg not showprogress"},
             {"progress, no screen", true, true, false, "yes", false, true, all, joined},
             {"progress on a terminal", true, true, false, "yes", true, true, all, joined},
             {"AutoSetup running", true, true, true, "no", false, false, "",
              "AutoSetup process is Exist,quite installation......"},
             {"AutoSetup missing", true, false, false, "no", false, true, "", "copy mpkg not showprogress"},
             {"no package", false, true, false, "no", false, false, "",
              "File: " + kStaged + " isn't exist"}}) {
        SCOPED_TRACE(name);
        fs::remove_all(kStaged);
        fs::remove_all(kAutoSetupCopy);
        std::string bundle = Disc("Volumes/" + name + "/Launcher.app",
                                  package ? SysConfig(3, 0, 1, 0, 0, 0, app_, progress) : "", autoSetup);
        std::unique_ptr<NamedProcess> other(running ? new NamedProcess(temp_ / "r", "AutoSetup") : nullptr);
        RunResult run = Launch(bundle, terminal);
        EXPECT_GE(FindMessage(run.log, message, FindMessage(run.log, "**Install from dashboard path**")), 0);
        EXPECT_EQ(report, ReadFile(report_));
        EXPECT_EQ(staged, fs::exists(kStaged));
        EXPECT_TRUE(!terminal ||
                    run.output.find("ProgressWindowHandler: event handled!") != std::string::npos)
            << run.output;
    }
}

// An installed copy older than the package: the question box, on a terminal or nowhere. A
// terminal that hangs up is the close box, and the launcher still ends as always.
TEST_F(EndToEnd, QuestionBox) {
    const std::string prompt = "A newer version of Vantorel";
    Install(SysConfig(2, 0, 1, 0, 0, 0));
    for (const auto& [name, terminal, answer, installs] :
         std::vector<std::tuple<std::string, bool, std::string, bool>>{{"no screen", false, "", false},
                                                                       {"install", true, "install\n", true},
                                                                       {"open", true, "o\n", false},
                                                                       {"escape", true, "\x1b", false},
                                                                       {"hang-up", true, kHangUp, false}}) {
        SCOPED_TRACE(name);
        fs::remove_all(kStaged);
        RunResult run = Launch(Disc("Volumes/" + name + "/Launcher.app", SysConfig(3, 0, 1, 0, 0, 0, app_)),
                               terminal, terminal ? prompt : "", answer);
        int failed = FindMessage(run.log, "CreateWindowFromNib failed");
        EXPECT_EQ(terminal, failed < 0);
        EXPECT_TRUE(terminal ? run.output.find(prompt) != std::string::npos
                             : failed >= 0 && run.log[failed].function == "MessageBox")
            << run.output;
        EXPECT_EQ(installs, FindMessage(run.log, "AutoInstallPkg Enter") >= 0) << run.output;
        EXPECT_EQ(installs, fs::exists(report_));
        EXPECT_TRUE(installs || WaitForFile(started_)) << run.output;
        EXPECT_EQ(answer == kHangUp, FindMessage(run.log, "Close messageBox window") >= 0);
    }
}
