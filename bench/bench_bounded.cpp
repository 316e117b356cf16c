// The bounded functions against the C library calls they stand in for.
//
// Every case runs three ways: ".../bounded" and ".../clib" time each side on its own;
// ".../paired" alternates short batches of both sides and reports their times per call and
// the ratio bounded / C library as counters. The paired form is the one to trust on a busy
// machine, since both sides see the same load. At the end a table of the ratios is printed
// (from the medians when run with --benchmark_repetitions).
#include "bounded/bounded.h"

#include <benchmark/benchmark.h>

#include <limits.h>
#include <stdio.h>
#include <string.h>

#include <chrono>
#include <iostream>
#include <map>
#include <string>
#include <vector>

namespace {

// ---- The cases: one call of each side -----------------------------------------------------

const char LOG_FORMAT[] = "line %d===%d-%d-%d %d:%d:%d   %s:%s --- %s\n";
const char COPY_FORMAT[] = "cp -R \"%s\" \"%s\"";

struct LogLine {
    char line[2048];
    std::string message;
    explicit LogLine(size_t messageLength) {
        const char text[] = "Copy package to /tmp/qv_tmp_vantorel.mpkg ok.";
        message = messageLength == 0 ? text : std::string(messageLength, 'm');
    }
    template <bool Bounded> void Call() {
        int n;
        if (Bounded) {
            n = snprintf_s(line, sizeof line, sizeof line - 1, LOG_FORMAT, 1842, 2026, 11, 22, 23, 7, 41,
                           "main", "AutoRunInstallPkg", message.c_str());
        } else {
            n = snprintf(line, sizeof line, LOG_FORMAT, 1842, 2026, 11, 22, 23, 7, 41, "main",
                         "AutoRunInstallPkg", message.c_str());
        }
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
};

struct CopyCommand {
    char command[1024];
    // Two 60-character paths.
    std::string from = "/Volumes/Vantorel/Launcher.app/Contents/Resources/Vantorel.mpk";
    std::string to = "/tmp/qv_tmp_vantorel.mpkg/Contents/Resources/Packages/Client.pk";
    CopyCommand() {}
    template <bool Bounded> void Call() {
        int n = Bounded ? snprintf_s(command, sizeof command, sizeof command - 1, COPY_FORMAT, from.c_str(),
                                     to.c_str())
                        : snprintf(command, sizeof command, COPY_FORMAT, from.c_str(), to.c_str());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
};

struct MinInt {
    char text[64];
    int value = INT_MIN;
    MinInt() {}
    template <bool Bounded> void Call() {
        benchmark::DoNotOptimize(value);
        int n = Bounded ? snprintf_s(text, sizeof text, sizeof text - 1, "%d", value)
                        : snprintf(text, sizeof text, "%d", value);
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
};

struct Hex {
    char text[64];
    unsigned long long value = 0x1234abcd5678ef90ULL;
    Hex() {}
    template <bool Bounded> void Call() {
        benchmark::DoNotOptimize(value);
        int n = Bounded ? snprintf_s(text, sizeof text, sizeof text - 1, "%llx", value)
                        : snprintf(text, sizeof text, "%llx", value);
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
};

// A destination of n bytes and a source text of n - 1 characters.
struct Buffers {
    std::vector<char> dest;
    std::vector<char> src;
    size_t n;
    explicit Buffers(size_t size) : dest(size, 'd'), src(size, 's'), n(size) { src[size - 1] = '\0'; }
};

struct Memcpy : Buffers {
    using Buffers::Buffers;
    template <bool Bounded> void Call() {
        if (Bounded) {
            benchmark::DoNotOptimize(memcpy_s(dest.data(), n, src.data(), n));
        } else {
            benchmark::DoNotOptimize(memcpy(dest.data(), src.data(), n));
        }
        benchmark::ClobberMemory();
    }
};

// The callers' copy pattern: capacity N, at most N - 1 characters.
struct Strncpy : Buffers {
    using Buffers::Buffers;
    template <bool Bounded> void Call() {
        if (Bounded) {
            benchmark::DoNotOptimize(strncpy_s(dest.data(), n, src.data(), n - 1));
        } else {
            size_t len = strlen(src.data());
            benchmark::DoNotOptimize(memcpy(dest.data(), src.data(), len + 1));
        }
        benchmark::ClobberMemory();
    }
};

// The callers' append pattern: capacity N, at most N - 1 minus the current length.
struct Strncat : Buffers {
    using Buffers::Buffers;
    template <bool Bounded> void Call() {
        dest[0] = '\0';
        if (Bounded) {
            benchmark::DoNotOptimize(strncat_s(dest.data(), n, src.data(), n - 1 - strlen(dest.data())));
        } else {
            benchmark::DoNotOptimize(strncat(dest.data(), src.data(), n - 1));
        }
        benchmark::ClobberMemory();
    }
};

struct Memset : Buffers {
    using Buffers::Buffers;
    template <bool Bounded> void Call() {
        if (Bounded) {
            benchmark::DoNotOptimize(memset_s(dest.data(), n, 0, n));
        } else {
            benchmark::DoNotOptimize(memset(dest.data(), 0, n));
        }
        benchmark::ClobberMemory();
    }
};

// ---- Running them ----------------------------------------------------------------------------

template <typename Case, bool Bounded, typename... Args> void Single(benchmark::State& state, Args... args) {
    Case c(args...);
    for (auto _ : state) {
        c.template Call<Bounded>();
    }
}

// Batches of both sides in turn, the order swapped every time, so that a change of load
// falls on both alike.
template <typename Case, typename... Args> void Paired(benchmark::State& state, Args... args) {
    using Clock = std::chrono::steady_clock;
    const int batch = 16;
    Case c(args...);
    Clock::duration bounded{};
    Clock::duration clib{};
    bool boundedFirst = true;
    for (auto _ : state) {
        for (int side = 0; side < 2; ++side) {
            bool runBounded = (side == 0) == boundedFirst;
            Clock::time_point start = Clock::now();
            for (int i = 0; i < batch; ++i) {
                if (runBounded) {
                    c.template Call<true>();
                } else {
                    c.template Call<false>();
                }
            }
            (runBounded ? bounded : clib) += Clock::now() - start;
        }
        boundedFirst = !boundedFirst;
    }
    double calls = static_cast<double>(state.iterations()) * batch;
    double boundedNs = std::chrono::duration<double, std::nano>(bounded).count() / calls;
    double clibNs = std::chrono::duration<double, std::nano>(clib).count() / calls;
    state.counters["bounded_ns"] = boundedNs;
    state.counters["clib_ns"] = clibNs;
    state.counters["ratio"] = clibNs > 0 ? boundedNs / clibNs : 0;
}

template <typename Case, typename... Args> void RegisterCase(const std::string& name, Args... args) {
    benchmark::RegisterBenchmark((name + "/bounded").c_str(), Single<Case, true, Args...>, args...);
    benchmark::RegisterBenchmark((name + "/clib").c_str(), Single<Case, false, Args...>, args...);
    benchmark::RegisterBenchmark((name + "/paired").c_str(), Paired<Case, Args...>, args...);
}

template <typename Case> void RegisterSizedCase(const std::string& name) {
    for (size_t size : {16, 1024, 65536}) {
        RegisterCase<Case>(name + "_" + std::to_string(size), size);
    }
}

void RegisterAll() {
    RegisterCase<LogLine>("format_log_line", size_t{0});
    RegisterCase<LogLine>("format_log_line_1500", size_t{1500});
    RegisterCase<CopyCommand>("format_cp_command");
    RegisterCase<MinInt>("format_int_min");
    RegisterCase<Hex>("format_llx");
    RegisterSizedCase<Memcpy>("memcpy");
    RegisterSizedCase<Strncpy>("strncpy");
    RegisterSizedCase<Strncat>("strncat");
    RegisterSizedCase<Memset>("memset");
}

// Console output as usual; besides, the CPU time per call of each side and the paired
// ratio of every case, a median replacing the single runs when there is one.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            bool isMedian = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type == Run::RT_Aggregate && !isMedian) {
                continue;
            }
            std::string name = run.run_name.str();
            size_t slash = name.rfind('/');
            std::string base = name.substr(0, slash);
            std::string side = name.substr(slash + 1);
            Entry& entry = entries_[base];
            if (!isMedian && entry.fromMedian.count(side)) {
                continue;
            }
            if (isMedian) {
                entry.fromMedian[side] = true;
            }
            if (side == "paired") {
                auto ratio = run.counters.find("ratio");
                entry.pairedRatio = ratio == run.counters.end() ? 0 : double(ratio->second);
            } else {
                entry.cpuNs[side] = run.GetAdjustedCPUTime();
            }
        }
    }

    void PrintRatios() const {
        std::cout << "\nbounded / C library: CPU time per call of each side alone, and the paired ratio\n";
        for (const auto& e : entries_) {
            auto bounded = e.second.cpuNs.find("bounded");
            auto clib = e.second.cpuNs.find("clib");
            char line[200];
            snprintf(line, sizeof line, "  %-22s %10.2f ns %10.2f ns   alone %.3f   paired %.3f",
                     e.first.c_str(), bounded == e.second.cpuNs.end() ? 0.0 : bounded->second,
                     clib == e.second.cpuNs.end() ? 0.0 : clib->second,
                     bounded != e.second.cpuNs.end() && clib != e.second.cpuNs.end() && clib->second > 0
                         ? bounded->second / clib->second
                         : 0.0,
                     e.second.pairedRatio);
            std::cout << line << "\n";
        }
    }

  private:
    struct Entry {
        std::map<std::string, double> cpuNs;
        std::map<std::string, bool> fromMedian;
        double pairedRatio = 0;
    };
    std::map<std::string, Entry> entries_;
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
