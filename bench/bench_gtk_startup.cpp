// Start-up cost of a launcher run that shows no window (LAUNCH), with the GTK backend
// module in the bundle and a display to show windows on, against the same run from a
// bundle without the module and with no display. The module must cost nothing until a
// window is created, so "ratio" (wall time, with over without) and "cpu_ratio" (the
// children's processor time) should stay at about 1. The two runs alternate, so both
// see the same machine state.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;

const std::string kLogFile = "/var/tmp/Kestrun.log";

// The log is a fixed path of the system: moved aside for the runs, put back after.
struct SavedLog {
    std::string aside = kLogFile + ".bench-gtk-aside";
    bool moved = false;
    SavedLog() {
        std::error_code error;
        if (fs::exists(kLogFile, error)) {
            fs::rename(kLogFile, aside, error);
            moved = !error;
        }
    }
    ~SavedLog() {
        std::error_code error;
        fs::remove(kLogFile, error);
        if (moved)
            fs::rename(aside, kLogFile, error);
    }
};

void WriteFile(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// Xvfb for the run with a display; its number, or "" when it did not start.
std::string StartServer(pid_t* server) {
    int fds[2];
    if (pipe(fds) != 0)
        return "";
    *server = fork();
    if (*server == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        dup2(fds[1], 1);
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 2);
        close(fds[0]);
        execlp("Xvfb", "Xvfb", "-displayfd", "1", "-noreset", "-screen", "0", "1280x1024x24", "-nolisten",
               "tcp", "-extension", "GLX", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    std::string number;
    pollfd in{fds[0], POLLIN, 0};
    char c;
    while (poll(&in, 1, 10000) > 0 && read(fds[0], &c, 1) == 1 && c != '\n')
        number += c;
    close(fds[0]);
    return number;
}

// Runs the program to its end with standard input from /dev/null and output
// discarded; adds its processor time to *cpuSeconds. False unless it exited with 0.
bool Run(const std::string& program, const std::vector<std::string>& environment, double* cpuSeconds) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char*> env;
    for (const std::string& entry : environment)
        env.push_back(const_cast<char*>(entry.c_str()));
    env.push_back(nullptr);
    char* argv[] = {const_cast<char*>(program.c_str()), nullptr};
    pid_t child;
    bool started = posix_spawn(&child, program.c_str(), &actions, nullptr, argv, env.data()) == 0;
    posix_spawn_file_actions_destroy(&actions);
    if (!started)
        return false;
    int status = 0;
    rusage usage{};
    if (wait4(child, &status, 0, &usage) != child)
        return false;
    *cpuSeconds += usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
                   (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A disc with the built bundle (with or without its GTK module), a package whose
// installed copy is as new as it is (table B: the application is started at once),
// and an "open" that does nothing.
std::string MakeDisc(const std::string& root, bool withModule) {
    std::string bundle = root + "/Volumes/Kestrun/Launcher.app";
    fs::create_directories(fs::path(bundle).parent_path());
    fs::copy(std::string(KESTRUN_BUILD_DIR) + "/Launcher.app", bundle, fs::copy_options::recursive);
    if (!withModule)
        fs::remove_all(bundle + "/Contents/Linux/PlugIns");
    std::string record = root + "/Vantorel.cfg"; // both version fields 0: the path is the record
    std::string versions = "[System]\nVRVersion=5\nBuildVersion=1\nDebugVersion=0\nSPVersion=0\n"
                           "CustomizeVersion=0\nMajorVersion=0\n";
    WriteFile(bundle + "/Contents/Resources/Vantorel.mpkg/Contents/Resources/SysConfig.dat",
              versions + "[APP_PATH]\nVALUE=" + record + "\nRUN_PROCESS_DLG=yes\n");
    WriteFile(record, versions);
    fs::create_directories(root + "/bin");
    fs::create_symlink("/bin/true", root + "/bin/open");
    return bundle + "/Contents/Linux/Launcher";
}

void BM_NoWindowRunWithGtkModule(benchmark::State& state) {
    SavedLog log;
    char pattern[] = "/tmp/kestrun-bench-gtk-XXXXXX";
    if (!mkdtemp(pattern)) {
        state.SkipWithError("no temporary folder");
        return;
    }
    std::string root = pattern;
    pid_t server = -1;
    std::string display = StartServer(&server);
    if (display.empty()) {
        state.SkipWithError("Xvfb did not start");
        return;
    }
    std::string with = MakeDisc(root + "/with", true), without = MakeDisc(root + "/without", false);
    std::string path = std::string("PATH=") + root + "/with/bin:" + getenv("PATH");
    std::vector<std::string> withDisplay = {path, "DISPLAY=:" + display, "NO_AT_BRIDGE=1"};
    std::vector<std::string> noDisplay = {std::string("PATH=") + root + "/without/bin:" + getenv("PATH")};

    using Clock = std::chrono::steady_clock;
    double withWall = 0, withoutWall = 0, withCpu = 0, withoutCpu = 0;
    bool ok = true;
    for (auto _ : state) {
        auto start = Clock::now();
        ok = Run(with, withDisplay, &withCpu) && ok;
        auto middle = Clock::now();
        ok = Run(without, noDisplay, &withoutCpu) && ok;
        auto end = Clock::now();
        withWall += std::chrono::duration<double>(middle - start).count();
        withoutWall += std::chrono::duration<double>(end - middle).count();
    }
    if (!ok)
        state.SkipWithError("a launcher run failed");
    double runs = static_cast<double>(state.iterations());
    state.counters["with_ms"] = 1000 * withWall / runs;
    state.counters["without_ms"] = 1000 * withoutWall / runs;
    state.counters["ratio"] = withWall / withoutWall;
    state.counters["with_cpu_ms"] = 1000 * withCpu / runs;
    state.counters["without_cpu_ms"] = 1000 * withoutCpu / runs;
    state.counters["cpu_ratio"] = withoutCpu > 0 ? withCpu / withoutCpu : 0;

    kill(server, SIGTERM);
    waitpid(server, nullptr, 0);
    std::error_code error;
    fs::remove_all(root, error);
}
BENCHMARK(BM_NoWindowRunWithGtkModule)->Unit(benchmark::kMillisecond)->MinTime(3.0)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
