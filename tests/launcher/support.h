/* Shared harness of the launcher tests: configurations, child processes under chosen names,
 * commands recorded by the wrapped system(), and the launcher in-process. */
#ifndef TESTS_LAUNCHER_SUPPORT_H
#define TESTS_LAUNCHER_SUPPORT_H

#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#ifdef KESTRUN_IN_PROCESS
#include <gtest/gtest.h>
#include <string.h>

#include "Common/INI.h"
#include "Common/Log.h"
#include "Launcher.h"
#include "PlatformTesting.h"
#endif

#include "support/LogFile.h"

extern char** environ;

namespace launcher_test {

using namespace kestrun_test;

const std::string kLogFile = "/var/tmp/Kestrun.log";
const std::string kStaged = "/tmp/qv_tmp_vantorel.mpkg";
const std::string kAutoSetupCopy = "/tmp/AutoSetup";
const std::string kPkgConfig = "/Contents/Resources/Vantorel.mpkg/Contents/Resources/SysConfig.dat";

// A "SysConfig.dat": the six version keys, then the application path section if given.
inline std::string SysConfig(int vr, int build, int debug, int sp, int customize, int major,
                             const std::string& appPath = "", const std::string& showProgress = "no") {
    std::ostringstream text;
    text << "[System]\nVRVersion=" << vr << "\nBuildVersion=" << build << "\nDebugVersion=" << debug
         << "\nSPVersion=" << sp << "\nCustomizeVersion=" << customize << "\nMajorVersion=" << major << "\n";
    if (!appPath.empty())
        text << "[APP_PATH]\nVALUE=" << appPath << "\nRUN_PROCESS_DLG=" << showProgress << "\n";
    return text.str();
}

// A copy of /bin/sleep running under the given command name, ended with the object.
struct NamedProcess {
    NamedProcess(const std::string& folder, const std::string& name) {
        std::string program = folder + "/" + name;
        fs::create_directories(folder);
        fs::copy_file("/bin/sleep", program, fs::copy_options::overwrite_existing);
        char* argv[] = {program.data(), const_cast<char*>("60"), nullptr};
        pid = posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv, environ) == 0 ? pid : -1;
        // The name shows only once the new program has replaced the spawned copy.
        Within(2000, [&] {
            return ReadFile("/proc/" + std::to_string(pid) + "/comm") == name.substr(0, 15) + "\n";
        });
    }
    ~NamedProcess() {
        if (pid > 0 && kill(pid, SIGKILL) == 0)
            waitpid(pid, nullptr, 0);
    }
    pid_t pid = -1;
};

// The bundle's launcher in a process group of its own, PATH led by bin, the environment
// changed by setup; its input /dev/null and its output into the file output, or on a new
// terminal whose other end *terminal receives.
inline pid_t StartLauncher(const std::string& bundle, const std::string& bin, const std::string& output,
                           int* terminal = nullptr, const std::function<void()>& setup = nullptr) {
    struct winsize size = {30, 100, 0, 0};
    pid_t child = terminal ? forkpty(terminal, nullptr, nullptr, &size) : fork();
    if (child == 0) {
        if (!terminal) {
            setpgid(0, 0);
            int out = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(open("/dev/null", O_RDONLY), 0);
            dup2(out, 1);
            dup2(out, 2);
        }
        setenv("PATH", (bin + ":" + getenv("PATH")).c_str(), 1);
        if (setup)
            setup();
        const std::string program = bundle + "/Contents/Linux/Launcher";
        execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    if (child > 0 && !terminal)
        setpgid(child, child);
    return child;
}

// The launcher's exit status once it ended by itself, or -1 (and it is killed) after the limit.
inline int FinishLauncher(pid_t child, int seconds) {
    int status = 0;
    if (child <= 0)
        return -1;
    if (Within(seconds * 1000, [&] { return waitpid(child, &status, WNOHANG) == child; }))
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    kill(-child, SIGKILL);
    waitpid(child, nullptr, 0);
    return -1;
}

// In-process tests: the command lines given to system since the last take (nothing is run).
Lines TakeCommands();

#ifdef KESTRUN_IN_PROCESS
// A launcher bundle in a temporary folder taken as the running one, the log written beside
// it, the completion event set up, and the launcher's globals as at start-up.
class InProcess : public ::testing::Test {
  protected:
    void SetUp() override {
        bundle_ = UseBundle("Disc/Launcher.app");
        for (const char* file :
             {"en.lproj/main.nib/objects.xib", "en.lproj/custom.strings", "Installer.png"}) {
            WriteFile(bundle_ + "/Contents/Resources/" + file,
                      ReadFile(std::string(KESTRUN_SOURCE_DIR) + "/resources/" + file));
        }
        setenv("LANG", "en_US.UTF-8", 1);
        unsetenv("LC_ALL");
        unsetenv("LC_MESSAGES");
        PlatSetBackend("scripted");
        PlatScriptReset();
        PlatSetOSRelease("10.8.0");
        InitLogSystem(logFile_.c_str());
        SetEvent("QV_EVENT");
        pkgVersion = installedVersion = VersionRecord();
        strcpy(szAppPath, "/Applications/Vantorel.app");
        isShowProcessWindow = false;
        ForgetProcessTable();
        TakeCommands();
    }
    void TearDown() override {
        PlatDrainEvents();
        PlatScriptReset();
        CloseLogSystem();
        StopEvent();
        PlatSetExecutablePath(nullptr);
        PlatSetOSRelease(nullptr);
        PlatSetOSReleaseQueryFails(FALSE);
        ForgetProcessTable();
    }
    std::string UseBundle(const std::string& relative) {
        std::string bundle = dir_ / relative;
        WriteFile(bundle + "/Contents/Linux/Launcher", "");
        PlatSetExecutablePath((bundle + "/Contents/Linux/Launcher").c_str());
        return bundle;
    }
    // The log lines written since the last take.
    std::vector<LogLine> TakeLog() {
        CloseLogSystem();
        std::vector<LogLine> log = ReadLog(logFile_);
        fs::remove(logFile_);
        InitLogSystem(logFile_.c_str());
        return log;
    }
    // The process table is fetched once per launcher run: each call here is a new run.
    static void ForgetProcessTable() {
        free(pprocesslist);
        pprocesslist = nullptr;
        processcount = 0;
    }
    // How often the completion event has been signalled since the last take.
    static int TakeSignals() {
        int signals = 0;
        while (signals < 10 && Wait(0))
            ++signals;
        return signals;
    }

    TempDir dir_;
    std::string logFile_ = dir_ / "Kestrun.log", bundle_;
};
#endif

} // namespace launcher_test

#endif
