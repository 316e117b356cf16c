/* The numbered, time-stamped, append-only diagnostic log.
 *
 * The log never reports anything and never stops its caller: a line that cannot be
 * written is lost and its number spent. */
#include "Common/Log.h"
#include "Common/PlainFile.h"

#include "bounded/bounded.h"

#include <mutex>
#include <stdarg.h>
#include <string.h>
#include <time.h>

char g_szlogFileName[1025];   // path used at every opening of the file
bool g_blogSystemInitSuccess; // logging is on
FILE* g_stream;               // the open log file, null while closed

namespace {

constexpr size_t kPathMax = 1024; // a path of this length or more turns logging off
constexpr size_t kBufferSize = 2048;
constexpr long kEmptyFrom = 10000001; // a file of more bytes than 10,000,000 starts again

// Main thread and copy worker both log: one number per line, and no line may meet the
// stream while it is closed and reopened for emptying.
std::mutex g_logLock;

const char* SourceTag(const char* source) {
    const char* slash = strrchr(source, '/');
    return slash != nullptr ? slash + 1 : source;
}

} // namespace

void InitLogSystem(const char* path) {
    std::lock_guard<std::mutex> hold(g_logLock);
    if (path == nullptr || strnlen(path, kPathMax) >= kPathMax) {
        g_blogSystemInitSuccess = false;
        return;
    }
    strncpy_s(g_szlogFileName, sizeof g_szlogFileName, path, sizeof g_szlogFileName - 1);
    g_blogSystemInitSuccess = true;
}

void CloseLogSystem(void) {
    std::lock_guard<std::mutex> hold(g_logLock);
    if (g_stream != nullptr) {
        fclose(g_stream);
        g_stream = nullptr;
    }
    g_blogSystemInitSuccess = false;
}

void Log(const char* source, const char* func, const char* format, ...) {
    static int iCnt = 0; // number of the last line formatted; never reset

    if (format == nullptr || func == nullptr || source == nullptr) {
        return;
    }

    char message[kBufferSize];
    memset_s(message, sizeof message, 0, sizeof message);
    va_list args;
    va_start(args, format);
    vsnprintf_s(message, sizeof message, sizeof message - 1, format, args);
    va_end(args);

    const char* tag = SourceTag(source);

    char line[kBufferSize];
    memset_s(line, sizeof line, 0, sizeof line);
    struct tm local;
    memset_s(&local, sizeof local, 0, sizeof local);
    time_t now = time(nullptr);
    localtime_r(&now, &local);

    std::lock_guard<std::mutex> hold(g_logLock);
    // Checked under the lock so that a line racing CloseLogSystem cannot reopen the file.
    if (!g_blogSystemInitSuccess) {
        return;
    }
    ++iCnt;
    snprintf_s(line, sizeof line, sizeof line - 1, "line %d===%d-%d-%d %d:%d:%d   %s:%s --- %s\n", iCnt,
               local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
               local.tm_sec, tag, func, message);

    if (g_stream == nullptr) {
        g_stream = OpenPlainFile(g_szlogFileName, O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW, "a+", false);
        if (g_stream == nullptr) {
            return;
        }
    }
    if (fseek(g_stream, 0, SEEK_END) == 0) {
        long size = ftell(g_stream);
        if (size >= kEmptyFrom) {
            fclose(g_stream);
            g_stream = OpenPlainFile(g_szlogFileName, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW, "w+", false);
            if (g_stream == nullptr) {
                return;
            }
        }
    }
    fwrite(line, 1, strlen(line), g_stream);
}
