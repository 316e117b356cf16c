// Cost of one log line against the same I/O done by hand with the C library, and of
// reading a version record through the INI reader.
#include "Common/INI.h"
#include "Common/Log.h"

#include <benchmark/benchmark.h>

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <time.h>
#include <unistd.h>

namespace {

std::string TempPath(const char* name) {
    const char* dir = getenv("TMPDIR");
    return std::string(dir != nullptr ? dir : "/tmp") + "/kestrun-bench-" + std::to_string(getpid()) + "-" +
           name;
}

// The log line written with plain snprintf and an "a+" stream: format, seek to the end,
// tell, empty past the limit, write.
FILE* g_handStream;
std::string g_handPath;

void HandLog(const char* source, const char* func, const char* format, ...) {
    static int count = 0;
    char message[2048];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
    const char* slash = strrchr(source, '/');
    const char* tag = slash != nullptr ? slash + 1 : source;
    time_t now = time(nullptr);
    struct tm t;
    localtime_r(&now, &t);
    char line[2048];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation" // a long line is cut, as the log cuts it
    snprintf(line, sizeof line, "line %d===%d-%d-%d %d:%d:%d   %s:%s --- %s\n", ++count, t.tm_year + 1900,
             t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, tag, func, message);
#pragma GCC diagnostic pop
    if (fseek(g_handStream, 0, SEEK_END) == 0 && ftell(g_handStream) >= 10000001) {
        fclose(g_handStream);
        g_handStream = fopen(g_handPath.c_str(), "w+");
    }
    fwrite(line, 1, strlen(line), g_handStream);
}

void BM_Log(benchmark::State& state) {
    std::string path = TempPath("log");
    InitLogSystem(path.c_str());
    for (auto _ : state) {
        Log("launcher/main", "AutoInstallPkg", "copy %s to %s, status %d", "/Volumes/Kestrun/Vantorel.mpkg",
            "/tmp/qv_tmp_vantorel.mpkg", 0);
    }
    CloseLogSystem();
    unlink(path.c_str());
}
BENCHMARK(BM_Log);

void BM_HandWrittenLog(benchmark::State& state) {
    g_handPath = TempPath("hand");
    g_handStream = fopen(g_handPath.c_str(), "a+");
    if (g_handStream == nullptr) {
        state.SkipWithError("cannot open the file");
        return;
    }
    for (auto _ : state) {
        HandLog("launcher/main", "AutoInstallPkg", "copy %s to %s, status %d",
                "/Volumes/Kestrun/Vantorel.mpkg", "/tmp/qv_tmp_vantorel.mpkg", 0);
    }
    fclose(g_handStream);
    unlink(g_handPath.c_str());
}
BENCHMARK(BM_HandWrittenLog);

// Six GetInitKey lookups on a 30-line file, the version record of the package.
void BM_ReadVersionRecord(benchmark::State& state) {
    std::string path = TempPath("SysConfig.dat");
    FILE* file = fopen(path.c_str(), "wb");
    if (file == nullptr) {
        state.SkipWithError("cannot write the file");
        return;
    }
    fputs("[General]\r\n", file);
    for (int i = 0; i < 10; ++i) {
        fprintf(file, "Setting%d = value number %d\r\n", i, i);
    }
    fputs("[System]\r\n", file);
    const char* keys[] = {"VRVersion", "BuildVersion",     "DebugVersion",
                          "SPVersion", "CustomizeVersion", "MajorVersion"};
    for (int i = 0; i < 6; ++i) {
        fprintf(file, "%s=%d\r\n", keys[i], 100 + i);
    }
    fputs("[APP_PATH]\r\nVALUE=/Applications/Selvara.app\r\nRUN_PROCESS_DLG=yes\r\n", file);
    for (int i = 0; i < 9; ++i) {
        fprintf(file, "Extra%d=%d\r\n", i, i);
    }
    fclose(file);
    SetIniFileName(path.c_str());
    for (auto _ : state) {
        int sum = 0;
        for (const char* key : keys) {
            sum += atoi(GetInitKey("System", key));
        }
        benchmark::DoNotOptimize(sum);
    }
    unlink(path.c_str());
}
BENCHMARK(BM_ReadVersionRecord);

} // namespace

BENCHMARK_MAIN();
