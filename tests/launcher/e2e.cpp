/* The built launcher end to end: its bundle copied into temporary disc folders, run with a
 * recording open command first on PATH and within a time limit, the fixed paths put back. */
#include "support.h"

#include <glob.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>

#include <memory>
#include <tuple>

#include <gtest/gtest.h>

using namespace launcher_test;

namespace {

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
    // an installer script that reports what it found; nothing staged or copied yet.
    std::string Disc(const std::string& relative, const std::string& package, bool autoSetup = true) {
        fs::remove_all(kStaged);
        fs::remove_all(kAutoSetupCopy);
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
                     const std::string& answer = "", const std::function<void()>& setup = nullptr) {
        for (const std::string& path : {kLogFile, report_, started_, opened_, temp_ / "out.txt"})
            fs::remove(path);
        RunResult run;
        int screen = -1;
        pid_t child = StartLauncher(bundle, bin_, temp_ / "out.txt", terminal ? &screen : nullptr, [&setup] {
            unsetenv("DISPLAY");
            unsetenv("WAYLAND_DISPLAY");
            setenv("TERM", "xterm", 1);
            if (setup)
                setup();
        });
        // The screen read until nothing more comes, the answer typed once the prompt shows.
        bool answered = prompt.empty();
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        for (char buffer[4096]; screen >= 0 && std::chrono::steady_clock::now() < end;) {
            struct pollfd ready = {screen, POLLIN, 0};
            ssize_t got = poll(&ready, 1, 50) > 0 ? read(screen, buffer, sizeof buffer) : 0;
            if (ready.revents != 0 && got <= 0)
                break;
            run.output.append(buffer, got > 0 ? got : 0);
            if (!answered && run.output.find(prompt) != std::string::npos) {
                answered = true;
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
                if (answer == kHangUp)
                    break;
                EXPECT_EQ(static_cast<ssize_t>(answer.size()), write(screen, answer.data(), answer.size()));
            }
        }
        close(screen);
        run.status = FinishLauncher(child, 60);
        run.output += ReadFile(temp_ / "out.txt");
        EXPECT_EQ(0, run.status) << "-1: the launcher did not end within its time limit\n" << run.output;
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
        EXPECT_TRUE(outcome != "LAUNCH" || Within(5000, [&] { return fs::exists(started_); }));
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
        std::string bundle = Disc("Volumes/" + name + "/Launcher.app",
                                  package ? SysConfig(3, 0, 1, 0, 0, 0, app_, progress) : "", autoSetup);
        std::unique_ptr<NamedProcess> other(running ? new NamedProcess(temp_ / "r", "AutoSetup") : nullptr);
        RunResult run = Launch(bundle, terminal);
        EXPECT_GE(FindMessage(run.log, message, FindMessage(run.log, "**Install from dashboard path**")), 0);
        EXPECT_EQ(report, ReadFile(report_));
        EXPECT_EQ(staged, fs::exists(kStaged));
        EXPECT_TRUE(!terminal ||
                    (run.output.find("ProgressWindowHandler: event handled!") != std::string::npos &&
                     run.output.find("======") != std::string::npos))
            << run.output;
    }
}

// The system's copies of pugixml, libpng and zlib.
std::vector<std::string> SystemXmlAndPngLibraries() {
    std::vector<std::string> found;
    for (const char* pattern : {"/usr/lib/*/libpugixml.so*", "/usr/lib/*/libpng16.so*", "/usr/lib/*/libz.so*",
                                "/lib/*/libz.so*", "/lib/*/libpng16.so*"}) {
        glob_t matches = {};
        if (glob(pattern, 0, nullptr, &matches) == 0)
            found.insert(found.end(), matches.gl_pathv, matches.gl_pathv + matches.gl_pathc);
        globfree(&matches);
    }
    return found;
}

// An installed copy older than the package: the question box, on a terminal or nowhere. Typed
// answers: a caption in any case (beyond ASCII too, in German and Japanese) and with blanks, its
// first letter, Return for the default, Escape (or a key whose sequence starts with it) for the
// cancel button; anything else asks again.
// End of input and a terminal that hangs up are the close box; the launcher ends as always.
// Under a display, a GTK module that is a named pipe is refused at once with one line, and the
// box goes as when no window can be made. The bundle brings its XML and PNG readers: with the
// system's copies hidden (an empty file mounted over each, in a mount namespace of the
// launcher's own) the box still comes up on a terminal.
TEST_F(EndToEnd, QuestionBox) {
    const std::string german = "Geben Sie den Namen einer Schaltfl\xC3\xA4"
                               "che";
    const std::string japanese = "\xE3\x83\x9C\xE3\x82\xBF\xE3\x83\xB3"; // "button"
    const std::string refused = "no screen, GTK module refused", hidden = "return, system libraries hidden";
    Install(SysConfig(2, 0, 1, 0, 0, 0));
    for (const auto& [name, terminal, answer, installs] :
         std::vector<std::tuple<std::string, bool, std::string, bool>>{
             {"no screen", false, "", false},
             {refused, false, "", false},
             {"typed", true, "ja\n \n INSTALL \n", true},
             {"return", true, "\n", true},
             {"first letter", true, "o\n", false},
             {"German", true,
              "vantorel \xC3\x96"
              "FFNEN\n",
              false},
             {"escape", true, "\x1b", false},
             {"arrow key", true, "i\x1b[A", false}, // a key's sequence starts with Escape
             {"Japanese", true, "\xE3\x82\xA4\xE3\x83\xB3\xE3\x82\xB9\xE3\x83\x88\xE3\x83\xBC\xE3\x83\xAB\n",
              true},
             {"end of input", true, "\x04", false},
             {"hang-up", true, kHangUp, false},
             {hidden, true, "\n", true}}) { // last: it needs root
        SCOPED_TRACE(name);
        setenv("LANG", name == "German" ? "de_DE.UTF-8" : name == "Japanese" ? "ja_JP.UTF-8" : "C.UTF-8", 1);
        const std::string prompt = name == "German"     ? german
                                   : name == "Japanese" ? japanese
                                                        : "Type the name of a button";
        std::string bundle = Disc("Volumes/" + name + "/Launcher.app", SysConfig(3, 0, 1, 0, 0, 0, app_));
        std::function<void()> setup;
        std::vector<std::string> libraries;
        if (name == refused) {
            const std::string module = bundle + "/Contents/Linux/PlugIns/PlatformGtk.so";
            fs::create_directories(fs::path(module).parent_path());
            fs::remove(module);
            ASSERT_EQ(mkfifo(module.c_str(), 0600), 0);
            setup = [] { setenv("DISPLAY", ":kestrun-nowhere", 1); };
        } else if (name == hidden) {
            if (geteuid() != 0)
                GTEST_SKIP() << "hiding the system's libraries takes a mount namespace, which takes root";
            libraries = SystemXmlAndPngLibraries();
            ASSERT_FALSE(libraries.empty()) << "no system copy of the libraries to hide";
            // A child that cannot hide them ends with 99 instead of starting the launcher.
            setup = [&libraries] {
                if (unshare(CLONE_NEWNS) != 0 ||
                    mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
                    _exit(99);
                for (const std::string& library : libraries)
                    if (mount("/dev/null", library.c_str(), nullptr, MS_BIND, nullptr) != 0)
                        _exit(99);
            };
        }
        RunResult run = Launch(bundle, terminal, terminal ? prompt : "", answer, setup);
        int failed = FindMessage(run.log, "CreateWindowFromNib failed");
        EXPECT_EQ(terminal, failed < 0);
        EXPECT_TRUE(terminal ? run.output.find(prompt) != std::string::npos
                             : failed >= 0 && run.log[failed].function == "MessageBox")
            << run.output;
        EXPECT_EQ(name == refused,
                  run.output.find("PlatformGtk.so is not loaded: not a regular file\n") != std::string::npos)
            << run.output;
        EXPECT_EQ(name == "typed",
                  run.output.find("\"ja\" is not one of the answers (Open Vantorel, Install).") !=
                      std::string::npos)
            << run.output;
        EXPECT_EQ(installs, FindMessage(run.log, "AutoInstallPkg Enter") >= 0) << run.output;
        EXPECT_EQ(installs, fs::exists(report_));
        EXPECT_TRUE(installs || Within(5000, [&] { return fs::exists(started_); })) << run.output;
        EXPECT_EQ(answer == kHangUp || answer == "\x04",
                  FindMessage(run.log, "Close messageBox window") >= 0);
    }
}

// Standard output a pipe whose reader has gone: the progress window's messages are lost
// instead of ending the launcher (128 + 13 would be SIGPIPE), and the commands it runs still
// start with SIGPIPE at its default, neither ignored nor caught.
TEST_F(EndToEnd, ProgressMessagesIntoAClosedPipe) {
    std::string bundle = Disc("Volumes/pipe/Launcher.app", SysConfig(3, 0, 1, 0, 0, 0, app_, "yes"));
    WriteFile(bundle + "/Contents/run_local_kestrun",
              "#!/bin/sh\nsed -n 's/^SigIgn:[[:space:]]*//p' /proc/$$/status > '" + report_ + "'\n", true);
    Launch(bundle, false, "", "", [] {
        int ends[2];
        if (pipe(ends) == 0) {
            close(ends[0]);
            dup2(ends[1], STDOUT_FILENO);
        }
    });
    EXPECT_TRUE(fs::exists(kStaged));
    const std::string ignored = ReadFile(report_);
    ASSERT_FALSE(ignored.empty()) << "the installer script did not run";
    EXPECT_EQ(0u, std::stoull(ignored, nullptr, 16) & (1ull << (SIGPIPE - 1))) << "SigIgn " << ignored;
}
