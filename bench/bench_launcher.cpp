// Start-up cost of the whole launcher, run as a process to its STOP outcome (no shell
// command), against starting /bin/true the same way. The counter "ratio" is the
// launcher's time over /bin/true's, measured in alternation so that both see the same
// machine state; "cpu_ratio" compares the processor time of the two children.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

extern char** environ;

namespace {

namespace fs = std::filesystem;

const std::string kLogFile = "/var/tmp/Kestrun.log";
const std::string kStagedPackage = "/tmp/qv_tmp_vantorel.mpkg";

// Moves a fixed path aside for the run and puts it back afterwards.
struct SavedPath {
    std::string path, backup;
    bool saved = false;
    SavedPath(const std::string& fixed, const std::string& aside) : path(fixed), backup(aside) {
        std::error_code error;
        if (fs::symlink_status(path, error).type() == fs::file_type::not_found) {
            return;
        }
        fs::copy(path, backup, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
        saved = !error;
        if (saved) {
            fs::remove_all(path, error);
        }
    }
    ~SavedPath() {
        std::error_code error;
        fs::remove_all(path, error);
        if (saved) {
            fs::copy(backup, path, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
        }
    }
};

void WriteFile(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// Runs a program with standard input from /dev/null and its output discarded, adding
// the processor time it used to *cpuSeconds; false when it could not be started or did
// not exit with 0.
bool RunProgram(const std::string& program, double* cpuSeconds) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    char* argv[] = {const_cast<char*>(program.c_str()), nullptr};
    pid_t pid = -1;
    int spawned = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        return false;
    }
    int status = 0;
    struct rusage usage = {};
    wait4(pid, &status, 0, &usage);
    *cpuSeconds += usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
                   (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void BM_LauncherStopVersusTrue(benchmark::State& state) {
    std::string source = std::string(KESTRUN_BUILD_DIR) + "/Launcher.app";
    if (!fs::exists(source + "/Contents/Linux/Launcher")) {
        state.SkipWithError("build the Launcher target first");
        return;
    }
    char pattern[] = "/tmp/kestrun-bench-launcher-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        state.SkipWithError("no temporary folder");
        return;
    }
    std::string dir = pattern;
    {
        SavedPath log(kLogFile, dir + "/saved.log");
        SavedPath staged(kStagedPackage, dir + "/saved.mpkg");

        // A disc with the bundle, an installed copy as new as the package, and a staged
        // package: the launcher ends in STOP without running any command.
        std::string bundle = dir + "/disc/Launcher.app";
        fs::create_directories(bundle);
        fs::copy(source, bundle, fs::copy_options::recursive);
        std::string versions = "[System]\nVRVersion=4\nBuildVersion=120\nDebugVersion=1\nSPVersion=2\n"
                               "CustomizeVersion=7\nMajorVersion=0\n";
        std::string app = dir + "/Applications/Vantorel.app";
        WriteFile(bundle + "/Contents/Resources/Vantorel.mpkg/Contents/Resources/SysConfig.dat",
                  versions + "[APP_PATH]\nVALUE=" + app + "\nRUN_PROCESS_DLG=no\n");
        WriteFile(app + "/Contents/Info.plist", "<plist/>\n");
        WriteFile(app + "/Contents/Resources/SysConfig.dat", versions);
        fs::create_directories(kStagedPackage);

        std::string launcher = bundle + "/Contents/Linux/Launcher";
        using Clock = std::chrono::steady_clock;
        Clock::duration launcherTime{}, trueTime{};
        double launcherCpu = 0, trueCpu = 0;
        bool ok = true;
        for (auto _ : state) {
            // Other runs on this machine may clear the staged package; without it the
            // launcher would start the application instead of stopping.
            if (!fs::exists(kStagedPackage)) {
                state.PauseTiming();
                fs::create_directories(kStagedPackage);
                state.ResumeTiming();
            }
            Clock::time_point start = Clock::now();
            ok = RunProgram(launcher, &launcherCpu) && ok;
            Clock::time_point middle = Clock::now();
            ok = RunProgram("/bin/true", &trueCpu) && ok;
            Clock::time_point end = Clock::now();
            launcherTime += middle - start;
            trueTime += end - middle;
            state.SetIterationTime(std::chrono::duration<double>(middle - start).count());
            // Keep the log from growing across the whole measurement.
            if (state.iterations() % 256 == 0) {
                std::error_code ignored;
                fs::remove(kLogFile, ignored);
            }
        }
        if (!ok) {
            state.SkipWithError("a run did not end with 0");
        }
        double iterations = static_cast<double>(state.iterations());
        double launcherMicros = std::chrono::duration<double, std::micro>(launcherTime).count() / iterations;
        double trueMicros = std::chrono::duration<double, std::micro>(trueTime).count() / iterations;
        state.counters["launcher_us"] = launcherMicros;
        state.counters["true_us"] = trueMicros;
        state.counters["ratio"] = trueMicros > 0 ? launcherMicros / trueMicros : 0;
        // Processor time of the children alone, less sensitive to a busy machine.
        state.counters["launcher_cpu_us"] = launcherCpu * 1e6 / iterations;
        state.counters["true_cpu_us"] = trueCpu * 1e6 / iterations;
        state.counters["cpu_ratio"] = trueCpu > 0 ? launcherCpu / trueCpu : 0;
    }
    std::error_code ignored;
    fs::remove_all(dir, ignored);
}
BENCHMARK(BM_LauncherStopVersusTrue)->UseManualTime()->Unit(benchmark::kMicrosecond)->MinTime(2.0);

} // namespace

BENCHMARK_MAIN();
