// The bounded functions against the C library calls they stand in for. Each case runs as a
// pair, ".../bounded" and ".../clib"; at the end the ratio bounded / C library of every pair
// is printed (from the medians when run with --benchmark_repetitions).
#include "bounded/bounded.h"

#include <benchmark/benchmark.h>

#include <limits.h>
#include <stdio.h>
#include <string.h>

#include <iostream>
#include <map>
#include <string>
#include <vector>

namespace {

// ---- Formatting ------------------------------------------------------------------------

const char LOG_FORMAT[] = "line %d===%d-%d-%d %d:%d:%d   %s:%s --- %s\n";
const char COPY_FORMAT[] = "cp -R \"%s\" \"%s\"";

struct LogArgs {
    int line = 1842;
    int year = 2026, month = 11, day = 22, hour = 23, minute = 7, second = 41;
    const char* source = "main";
    const char* function = "AutoRunInstallPkg";
    std::string message;
};

const LogArgs& ShortLog() {
    static LogArgs args = [] {
        LogArgs a;
        a.message = "Copy package to /tmp/qv_tmp_vantorel.mpkg ok.";
        return a;
    }();
    return args;
}

const LogArgs& LongLog() {
    static LogArgs args = [] {
        LogArgs a;
        a.message.assign(1500, 'm');
        return a;
    }();
    return args;
}

const std::string& SourcePath() {
    static std::string path = "/Volumes/Vantorel/Launcher.app/Contents/Resources/Vantorel.mpk";
    return path;
}

const std::string& TargetPath() {
    static std::string path = "/tmp/qv_tmp_vantorel.mpkg/Contents/Resources/Packages/Client.pk";
    return path;
}

template <bool Bounded> void FormatLog(benchmark::State& state, const LogArgs& a) {
    char line[2048];
    for (auto _ : state) {
        int n;
        if (Bounded) {
            n = snprintf_s(line, sizeof line, sizeof line - 1, LOG_FORMAT, a.line, a.year, a.month, a.day,
                           a.hour, a.minute, a.second, a.source, a.function, a.message.c_str());
        } else {
            n = snprintf(line, sizeof line, LOG_FORMAT, a.line, a.year, a.month, a.day, a.hour, a.minute,
                         a.second, a.source, a.function, a.message.c_str());
        }
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(line);
    }
}

template <bool Bounded> void FormatCopyCommand(benchmark::State& state) {
    char command[1024];
    const char* from = SourcePath().c_str();
    const char* to = TargetPath().c_str();
    for (auto _ : state) {
        int n = Bounded ? snprintf_s(command, sizeof command, sizeof command - 1, COPY_FORMAT, from, to)
                        : snprintf(command, sizeof command, COPY_FORMAT, from, to);
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(command);
    }
}

template <bool Bounded> void FormatMinInt(benchmark::State& state) {
    char text[64];
    int value = INT_MIN;
    for (auto _ : state) {
        benchmark::DoNotOptimize(value);
        int n = Bounded ? snprintf_s(text, sizeof text, sizeof text - 1, "%d", value)
                        : snprintf(text, sizeof text, "%d", value);
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(text);
    }
}

template <bool Bounded> void FormatHex(benchmark::State& state) {
    char text[64];
    unsigned long long value = 0x1234abcd5678ef90ULL;
    for (auto _ : state) {
        benchmark::DoNotOptimize(value);
        int n = Bounded ? snprintf_s(text, sizeof text, sizeof text - 1, "%llx", value)
                        : snprintf(text, sizeof text, "%llx", value);
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(text);
    }
}

// ---- Copy and fill -----------------------------------------------------------------------

struct Buffers {
    std::vector<char> dest;
    std::vector<char> src;
    explicit Buffers(size_t n) : dest(n, 'd'), src(n, 's') { src[n - 1] = '\0'; } // a text of n - 1
};

template <bool Bounded> void Memcpy(benchmark::State& state, size_t n) {
    Buffers b(n);
    for (auto _ : state) {
        if (Bounded) {
            benchmark::DoNotOptimize(memcpy_s(b.dest.data(), n, b.src.data(), n));
        } else {
            benchmark::DoNotOptimize(memcpy(b.dest.data(), b.src.data(), n));
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * n));
}

// The callers' copy pattern: capacity N, at most N - 1 characters.
template <bool Bounded> void Strncpy(benchmark::State& state, size_t n) {
    Buffers b(n);
    for (auto _ : state) {
        if (Bounded) {
            benchmark::DoNotOptimize(strncpy_s(b.dest.data(), n, b.src.data(), n - 1));
        } else {
            size_t len = strlen(b.src.data());
            benchmark::DoNotOptimize(memcpy(b.dest.data(), b.src.data(), len + 1));
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * n));
}

// The callers' append pattern: capacity N, at most N - 1 minus the current length.
template <bool Bounded> void Strncat(benchmark::State& state, size_t n) {
    Buffers b(n);
    for (auto _ : state) {
        b.dest[0] = '\0';
        if (Bounded) {
            benchmark::DoNotOptimize(
                strncat_s(b.dest.data(), n, b.src.data(), n - 1 - strlen(b.dest.data())));
        } else {
            benchmark::DoNotOptimize(strncat(b.dest.data(), b.src.data(), n - 1));
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * n));
}

template <bool Bounded> void Memset(benchmark::State& state, size_t n) {
    Buffers b(n);
    for (auto _ : state) {
        if (Bounded) {
            benchmark::DoNotOptimize(memset_s(b.dest.data(), n, 0, n));
        } else {
            benchmark::DoNotOptimize(memset(b.dest.data(), 0, n));
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * n));
}

// ---- Pairs and their ratios ----------------------------------------------------------------

void RegisterPair(const std::string& name, void (*bounded)(benchmark::State&),
                  void (*clib)(benchmark::State&)) {
    benchmark::RegisterBenchmark((name + "/bounded").c_str(), bounded);
    benchmark::RegisterBenchmark((name + "/clib").c_str(), clib);
}

void RegisterSizedPair(const std::string& name, void (*bounded)(benchmark::State&, size_t),
                       void (*clib)(benchmark::State&, size_t)) {
    for (size_t size : {16, 1024, 65536}) {
        std::string sized = name + "_" + std::to_string(size);
        benchmark::RegisterBenchmark((sized + "/bounded").c_str(), bounded, size);
        benchmark::RegisterBenchmark((sized + "/clib").c_str(), clib, size);
    }
}

void RegisterAll() {
    benchmark::RegisterBenchmark("format_log_line/bounded", FormatLog<true>, ShortLog());
    benchmark::RegisterBenchmark("format_log_line/clib", FormatLog<false>, ShortLog());
    benchmark::RegisterBenchmark("format_log_line_1500/bounded", FormatLog<true>, LongLog());
    benchmark::RegisterBenchmark("format_log_line_1500/clib", FormatLog<false>, LongLog());
    RegisterPair("format_cp_command", FormatCopyCommand<true>, FormatCopyCommand<false>);
    RegisterPair("format_int_min", FormatMinInt<true>, FormatMinInt<false>);
    RegisterPair("format_llx", FormatHex<true>, FormatHex<false>);
    RegisterSizedPair("memcpy", Memcpy<true>, Memcpy<false>);
    RegisterSizedPair("strncpy", Strncpy<true>, Strncpy<false>);
    RegisterSizedPair("strncat", Strncat<true>, Strncat<false>);
    RegisterSizedPair("memset", Memset<true>, Memset<false>);
}

// Console output as usual, plus the time per iteration of every run kept by case and side;
// a median, when there is one, replaces the single runs.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            std::string name = run.run_name.str();
            bool isMedian = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type == Run::RT_Aggregate && !isMedian) {
                continue;
            }
            if (isMedian || medians_.count(name) == 0) {
                double perIteration = run.GetAdjustedCPUTime();
                (isMedian ? medians_ : singles_)[name] = perIteration;
            }
        }
    }

    void PrintRatios() const {
        std::map<std::string, double> times = singles_;
        for (const auto& m : medians_) {
            times[m.first] = m.second;
        }
        std::cout << "\nratio bounded / C library (CPU time per call)\n";
        for (const auto& t : times) {
            const std::string suffix = "/bounded";
            const std::string& name = t.first;
            if (name.size() <= suffix.size() ||
                name.compare(name.size() - suffix.size(), suffix.size(), suffix)) {
                continue;
            }
            std::string base = name.substr(0, name.size() - suffix.size());
            auto clib = times.find(base + "/clib");
            if (clib == times.end() || clib->second <= 0) {
                continue;
            }
            char line[160];
            snprintf(line, sizeof line, "  %-28s %9.2f ns %9.2f ns  ratio %.3f", base.c_str(), t.second,
                     clib->second, t.second / clib->second);
            std::cout << line << "\n";
        }
    }

  private:
    std::map<std::string, double> singles_;
    std::map<std::string, double> medians_;
};

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RegisterAll();
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatios();
    benchmark::Shutdown();
    return 0;
}
