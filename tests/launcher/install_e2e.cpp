/* The built launcher end to end: its bundle copied into temporary disc folders with a demo
 * package, AutoSetup and the installer script, run with the open command first on PATH.
 * Every run has a time limit; the fixed paths of the system are put back afterwards. */
#include "install_support.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using namespace install_test;

namespace {

const std::string kStaged = "/tmp/qv_tmp_vantorel.mpkg";
const std::string kAutoSetupCopy = "/tmp/AutoSetup";
const std::string kLogFile = "/var/tmp/Kestrun.log";
constexpr int kRunLimitSeconds = 30;

struct RunResult {
    bool finished = false; // ended by itself within the limit
    int exitCode = -1;
    std::string output; // standard output and error
};

// The environment of a run: no display, the open command first on PATH.
std::vector<std::string> RunEnvironment() {
    std::vector<std::string> variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string variable = *entry;
        if (variable.rfind("DISPLAY=", 0) == 0 || variable.rfind("WAYLAND_DISPLAY=", 0) == 0 ||
            variable.rfind("PATH=", 0) == 0) {
            continue;
        }
        variables.push_back(variable);
    }
    const char* path = getenv("PATH");
    variables.push_back(std::string("PATH=") + KESTRUN_BIN_DIR + ":" +
                        (path != nullptr ? path : "/usr/bin:/bin"));
    return variables;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Waits for the child with a limit; past it the child's process group is killed.
bool WaitWithLimit(pid_t child, int* exitCode, const std::chrono::steady_clock::time_point& deadline) {
    int status = 0;
    while (true) {
        pid_t done = waitpid(child, &status, WNOHANG);
        if (done == child) {
            *exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(-child, SIGKILL);
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

// Runs the launcher with standard input from /dev/null.
RunResult RunLauncher(const std::string& launcher, const std::string& outputFile) {
    std::vector<std::string> environment = RunEnvironment();
    std::vector<char*> envp = Pointers(environment);
    std::vector<std::string> arguments = {launcher};
    std::vector<char*> argv = Pointers(arguments);
    RunResult result;
    pid_t child = fork();
    if (child == 0) {
        setpgid(0, 0);
        int in = open("/dev/null", O_RDONLY);
        int out = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(in, STDIN_FILENO);
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        execve(launcher.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    result.finished = WaitWithLimit(
        child, &result.exitCode, std::chrono::steady_clock::now() + std::chrono::seconds(kRunLimitSeconds));
    result.output = ReadFile(outputFile);
    return result;
}

// Runs the launcher on a pseudo-terminal. Once the screen shows `prompt`, `answer` is typed;
// an empty answer ends the input instead.
RunResult RunLauncherOnTerminal(const std::string& launcher, const std::string& prompt,
                                const std::string& answer) {
    std::vector<std::string> environment = RunEnvironment();
    environment.push_back("TERM=xterm");
    std::vector<char*> envp = Pointers(environment);
    std::vector<std::string> arguments = {launcher};
    std::vector<char*> argv = Pointers(arguments);
    struct winsize size = {};
    size.ws_row = 30;
    size.ws_col = 100;
    int master = -1;
    RunResult result;
    pid_t child = forkpty(&master, nullptr, nullptr, &size);
    if (child == 0) {
        execve(launcher.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    if (child < 0) {
        return result;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kRunLimitSeconds);
    bool answered = prompt.empty();
    while (std::chrono::steady_clock::now() < deadline) {
        struct pollfd ready = {master, POLLIN, 0};
        if (poll(&ready, 1, 50) > 0) {
            char buffer[4096];
            ssize_t got = read(master, buffer, sizeof buffer);
            if (got <= 0) {
                break; // the launcher and everything on its terminal are gone
            }
            result.output.append(buffer, got);
        }
        if (!answered && result.output.find(prompt) != std::string::npos) {
            answered = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            if (answer.empty()) {
                struct termios modes;
                char endOfInput =
                    tcgetattr(master, &modes) == 0 ? static_cast<char>(modes.c_cc[VEOF]) : '\x04';
                ssize_t sent = write(master, &endOfInput, 1);
                (void)sent;
            } else {
                ssize_t sent = write(master, answer.data(), answer.size());
                (void)sent;
            }
        }
    }
    result.finished = WaitWithLimit(child, &result.exitCode, deadline);
    close(master);
    return result;
}

bool WaitForFile(const std::string& path, int seconds = 5) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!fs::exists(path)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

bool HasMessage(const std::vector<LogEntry>& log, const std::string& message) {
    return FindMessage(log, message) >= 0;
}

// A typed line presses the button with that caption; end of input is the close box.
const std::string kTerminalYes = "yes\n";
const std::string kTerminalNo = "no\n";

// Package and installed versions: no major version, so an equal copy is simply started.
const int kPackageVR = 3;

class EndToEndTest : public ::testing::Test {
  protected:
    EndToEndTest() : log_(kLogFile), staged_(kStaged), autoSetup_(kAutoSetupCopy) {}

    // A disc folder holding the built bundle at temp/relative, with a package whose
    // application path is temp/Applications/Vantorel.app.
    struct DiscOptions {
        bool package = true;
        bool autoSetup = true;
        std::string showProgress = "no";
    };
    std::string MakeDisc(const std::string& relative, const DiscOptions& options) {
        std::string bundle = temp_ / relative;
        fs::create_directories(fs::path(bundle).parent_path());
        fs::copy(KESTRUN_BUNDLE_DIR, bundle, fs::copy_options::recursive);
        appPath_ = temp_ / "Applications/Vantorel.app";
        if (options.package) {
            WriteFile(bundle + "/Contents/Resources/Vantorel.mpkg/Contents/Resources/SysConfig.dat",
                      SysConfig(kPackageVR, 0, 1, 0, 0, 0, appPath_, options.showProgress));
        }
        if (options.autoSetup) {
            WriteFile(bundle + "/Contents/AutoSetup", "#!/bin/sh\nexit 0\n", true);
        }
        // The installer script reports what it found and installs the application.
        WriteFile(bundle + "/Contents/run_local_kestrun",
                  "#!/bin/sh\n"
                  "report='" +
                      (temp_ / "script.txt") +
                      "'\n"
                      "echo \"args=$#\" > \"$report\"\n"
                      "[ -d /tmp/qv_tmp_vantorel.mpkg ] && echo staged >> \"$report\"\n"
                      "[ -x /tmp/AutoSetup ] && echo autosetup >> \"$report\"\n"
                      "exit 0\n",
                  true);
        return bundle;
    }

    // The installed application: a bundle whose program writes a line when started.
    void InstallApplication(int vr) {
        WriteFile(appPath_ + "/Contents/Info.plist",
                  "<?xml version=\"1.0\"?>\n<plist version=\"1.0\"><dict><key>CFBundleExecutable</key>"
                  "<string>Vantorel</string></dict></plist>\n");
        WriteFile(appPath_ + "/Contents/Resources/SysConfig.dat", SysConfig(vr, 0, 1, 0, 0, 0));
        WriteFile(appPath_ + "/Contents/MacOS/Vantorel",
                  "#!/bin/sh\necho started > '" + StartedMarker() + "'\n", true);
    }

    std::string StartedMarker() const { return temp_ / "started.txt"; }
    std::string ScriptReport() const { return temp_ / "script.txt"; }

    RunResult Run(const std::string& bundle) {
        RunResult result = RunLauncher(bundle + "/Contents/MacOS/Launcher", temp_ / "output.txt");
        EXPECT_TRUE(result.finished) << result.output;
        EXPECT_EQ(result.exitCode, 0) << result.output;
        return result;
    }

    FixedPathGuard log_, staged_, autoSetup_;
    TempDir temp_;
    std::string appPath_;
};

TEST_F(EndToEndTest, DashboardInstallHandsOverToTheScript) {
    std::string bundle = MakeDisc("Volumes/Kestrun/Launcher.app", {});
    RunResult result = Run(bundle);
    std::vector<LogEntry> log = ReadLog(kLogFile);

    int install = FindMessage(log, "Application isn't Exist,then install");
    int dashboard = FindMessage(log, "**Install from dashboard path**", install);
    int noProgress = FindMessage(log, "copy mpkg not showprogress", dashboard);
    int script =
        FindMessage(log, "Run Script,path: \"" + bundle + "/Contents/run_local_kestrun\"", noProgress);
    EXPECT_GE(install, 0) << result.output;
    EXPECT_GT(dashboard, install);
    EXPECT_GT(noProgress, dashboard);
    EXPECT_GT(script, noProgress);
    // The script saw the staged package and the AutoSetup copy, and got no arguments.
    EXPECT_EQ(ReadFile(ScriptReport()), "args=0\nstaged\nautosetup\n");
    EXPECT_TRUE(fs::exists(kStaged + "/Contents/Resources/SysConfig.dat"));
    EXPECT_FALSE(fs::exists(StartedMarker()));
}

// Without display or terminal the progress window cannot be made: the worker's copy is
// joined and the installation goes on.
TEST_F(EndToEndTest, DashboardInstallWithProgressWindowButNoScreen) {
    std::string bundle = MakeDisc("Volumes/Kestrun/Launcher.app", {true, true, "yes"});
    RunResult result = Run(bundle);
    std::vector<LogEntry> log = ReadLog(kLogFile);
    EXPECT_FALSE(HasMessage(log, "copy mpkg not showprogress"));
    int begin = FindMessage(log, "copy mpkg to local begin...");
    int done = FindMessage(log, "QuitApplicationEventLoop done....", begin);
    int loopExit = FindMessage(log, "RunAppModalLoopForWindow exit.....", done);
    EXPECT_GE(begin, 0) << result.output;
    EXPECT_GT(done, begin);
    EXPECT_GT(loopExit, done);
    EXPECT_EQ(ReadFile(ScriptReport()), "args=0\nstaged\nautosetup\n");
}

// On a terminal the progress window is shown, and the worker's close takes it down.
TEST_F(EndToEndTest, DashboardInstallWithProgressWindowOnATerminal) {
    std::string bundle = MakeDisc("Volumes/Kestrun/Launcher.app", {true, true, "yes"});
    RunResult result = RunLauncherOnTerminal(bundle + "/Contents/MacOS/Launcher", "", "");
    ASSERT_TRUE(result.finished) << result.output;
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_NE(result.output.find("show windowformNib"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("ProgressWindowHandler: event handled!"), std::string::npos)
        << result.output;
    EXPECT_EQ(ReadFile(ScriptReport()), "args=0\nstaged\nautosetup\n");
}

TEST_F(EndToEndTest, DashboardInstallStopsShort) {
    // A running AutoSetup: nothing is staged, copied or run.
    {
        std::string bundle = MakeDisc("one/Volumes/Kestrun/Launcher.app", {});
        std::string fake = temp_ / "bin/AutoSetup";
        fs::create_directories(temp_ / "bin");
        fs::copy_file("/bin/sleep", fake);
        pid_t running = fork();
        if (running == 0) {
            execl(fake.c_str(), "AutoSetup", "30", static_cast<char*>(nullptr));
            _exit(127);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        Run(bundle);
        kill(running, SIGKILL);
        waitpid(running, nullptr, 0);
        std::vector<LogEntry> log = ReadLog(kLogFile);
        EXPECT_TRUE(HasMessage(log, "AutoSetup process is Exist,quite installation......"));
        EXPECT_FALSE(fs::exists(kStaged));
        EXPECT_FALSE(fs::exists(kAutoSetupCopy));
        EXPECT_FALSE(fs::exists(ScriptReport()));
        fs::remove(kLogFile);
    }
    // AutoSetup missing from the bundle: the package is staged, the script is not run.
    {
        std::string bundle = MakeDisc("two/Volumes/Kestrun/Launcher.app", {true, false, "no"});
        Run(bundle);
        std::vector<LogEntry> log = ReadLog(kLogFile);
        EXPECT_TRUE(HasMessage(log, "File: " + bundle + "/Contents/AutoSetup isn't exist"));
        EXPECT_FALSE(HasMessage(log, "File: /tmp/qv_tmp_vantorel.mpkg isn't exist"));
        EXPECT_TRUE(fs::exists(kStaged));
        EXPECT_FALSE(fs::exists(ScriptReport()));
        fs::remove(kLogFile);
        fs::remove_all(kStaged);
    }
    // No package on the disc: nothing is staged and the script is not run.
    {
        std::string bundle = MakeDisc("three/Volumes/Kestrun/Launcher.app", {false, true, "no"});
        Run(bundle);
        std::vector<LogEntry> log = ReadLog(kLogFile);
        EXPECT_TRUE(HasMessage(log, "File: " + bundle + "/Contents/AutoSetup exist"));
        EXPECT_TRUE(HasMessage(log, "File: /tmp/qv_tmp_vantorel.mpkg isn't exist"));
        EXPECT_FALSE(fs::exists(ScriptReport()));
    }
}

// Away from a disc image the system Installer is run; here it does not exist, and the
// launcher goes on: the staged package is removed and the application started.
TEST_F(EndToEndTest, OthersPathRemovesTheStagedPackageAndStartsTheApplication) {
    std::string bundle = MakeDisc("Discs/Kestrun/Launcher.app", {});
    // The application is a plain program here, so its bundle layout is missing: INSTALL.
    WriteFile(appPath_, "#!/bin/sh\necho started > '" + StartedMarker() + "'\n", true);
    RunResult result = Run(bundle);
    std::vector<LogEntry> log = ReadLog(kLogFile);
    int others = FindMessage(log, "**Install from others path**");
    int installer =
        FindMessage(log,
                    "installerPath:/System/Library/CoreServices/Installer.app/Contents/MacOS/Installer  "
                    "\"/tmp/qv_tmp_vantorel.mpkg\".",
                    others);
    int started = FindMessage(log, "AutoRunApplication end......", installer);
    EXPECT_GE(others, 0) << result.output;
    EXPECT_GT(installer, others);
    EXPECT_GT(started, installer);
    EXPECT_FALSE(fs::exists(kStaged));
    EXPECT_TRUE(WaitForFile(StartedMarker())) << result.output;
}

// An installed copy older than the package: the question box.
class QuestionBoxTest : public EndToEndTest {
  protected:
    std::string Prepare() {
        std::string bundle = MakeDisc("Volumes/Kestrun/Launcher.app", {});
        InstallApplication(kPackageVR - 1);
        return bundle;
    }
};

TEST_F(QuestionBoxTest, WithoutScreenTheApplicationIsStarted) {
    std::string bundle = Prepare();
    Run(bundle);
    std::vector<LogEntry> log = ReadLog(kLogFile);
    int line = FindMessage(log, "CreateWindowFromNib failed");
    ASSERT_GE(line, 0);
    EXPECT_EQ(log[line].function, "MessageBox");
    EXPECT_TRUE(WaitForFile(StartedMarker()));
    EXPECT_FALSE(fs::exists(kStaged));
}

TEST_F(QuestionBoxTest, AnsweredOnATerminal) {
    const std::string prompt = "A newer version of Vantorel";
    struct Case {
        const char* name;
        std::string answer;
        bool installs;
    } cases[] = {{"yes", kTerminalYes, true}, {"no", kTerminalNo, false}, {"end of input", "", false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string bundle = Prepare();
        fs::remove(StartedMarker());
        fs::remove(ScriptReport());
        fs::remove(kLogFile);
        fs::remove_all(kStaged);
        RunResult result = RunLauncherOnTerminal(bundle + "/Contents/MacOS/Launcher", prompt, c.answer);
        ASSERT_TRUE(result.finished) << result.output;
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_NE(result.output.find(prompt), std::string::npos) << result.output;
        std::vector<LogEntry> log = ReadLog(kLogFile);
        if (c.installs) {
            EXPECT_TRUE(HasMessage(log, "AutoInstallPkg Enter")) << result.output;
            EXPECT_TRUE(fs::exists(ScriptReport()));
        } else {
            EXPECT_FALSE(HasMessage(log, "AutoInstallPkg Enter")) << result.output;
            EXPECT_TRUE(WaitForFile(StartedMarker())) << result.output;
        }
        fs::remove_all(temp_ / "Volumes");
    }
}

} // namespace

namespace {

int RunOpen(const std::string& arguments, const std::string& errorFile) {
    std::string command =
        std::string(KESTRUN_BIN_DIR) + "/open " + arguments + " </dev/null >/dev/null 2>" + errorFile;
    int status = system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The open command starts a bundle's program without waiting for it, and refuses what it
// cannot start with a message and status 1.
TEST(OpenCommandTest, StartsDetachedOrExplains) {
    TempDir temp;
    const std::string app = temp / "Some App.app";
    const std::string begun = temp / "begun", ended = temp / "ended";
    WriteFile(
        app + "/Contents/Info.plist",
        "<?xml version=\"1.0\"?>\n<plist version=\"1.0\"><dict><key>CFBundleName</key><string>x</string>"
        "<key>CFBundleExecutable</key><string>run</string></dict></plist>\n");
    WriteFile(app + "/Contents/MacOS/run",
              "#!/bin/sh\ntouch '" + begun + "'\nsleep 2\ntouch '" + ended + "'\n", true);
    const std::string errors = temp / "errors";

    EXPECT_EQ(RunOpen("-a '" + app + "'", errors), 0);
    EXPECT_TRUE(WaitForFile(begun));
    EXPECT_FALSE(fs::exists(ended)); // open came back while the program still runs
    EXPECT_EQ(ReadFile(errors), "");

    struct Case {
        std::string arguments, message;
    } cases[] = {
        {"-a '" + temp.path() + "/missing.app'", "no such application"},
        {"-a '" + temp.path() + "/errors'", "neither an application bundle nor an executable"},
        {"-a '" + temp.path() + "'", "Info.plist: no such file"},
        {"-a ''", "no application named"},
        {"'" + app + "'", "usage: open -a APPLICATION"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.arguments);
        EXPECT_EQ(RunOpen(c.arguments, temp / "case-errors"), 1);
        EXPECT_NE(ReadFile(temp / "case-errors").find(c.message), std::string::npos)
            << ReadFile(temp / "case-errors");
    }

    // A bundle whose Info.plist names no program.
    WriteFile(app + "/Contents/Info.plist",
              "<plist><dict><key>CFBundleName</key><string>x</string></dict></plist>");
    EXPECT_EQ(RunOpen("-a '" + app + "'", errors), 1);
    EXPECT_NE(ReadFile(errors).find("no CFBundleExecutable"), std::string::npos);
}

} // namespace
