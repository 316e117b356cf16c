/* The numbered, time-stamped, append-only diagnostic log.
 *
 * The log never reports anything and never stops its caller: a line that cannot be
 * written is lost and its number spent. */
#include "Common/Log.h"
#include "Common/PlainFile.h"

#include "bounded/bounded.h"

#include <pthread.h>
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
pthread_mutex_t g_logLock = PTHREAD_MUTEX_INITIALIZER;

const char* SourceTag(const char* source) {
    const char* slash = strrchr(source, '/');
    return slash != nullptr ? slash + 1 : source;
}

/* Writes one line at the end of the log file, opening it first and emptying it when it
 * has grown too large. Called with the lock held; a line that cannot be written is lost. */
void AppendLine(const char* line) {
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

} // namespace

void InitLogSystem(const char* path) {
    pthread_mutex_lock(&g_logLock);
    // A path without a terminator among its first kPathMax bytes is too long.
    if (path == nullptr || memchr(path, '\0', kPathMax) == nullptr) {
        g_blogSystemInitSuccess = false;
    } else {
        strncpy_s(g_szlogFileName, sizeof g_szlogFileName, path, sizeof g_szlogFileName - 1);
        g_blogSystemInitSuccess = true;
    }
    pthread_mutex_unlock(&g_logLock);
}

void CloseLogSystem(void) {
    pthread_mutex_lock(&g_logLock);
    if (g_stream != nullptr) {
        fclose(g_stream);
        g_stream = nullptr;
    }
    g_blogSystemInitSuccess = false;
    pthread_mutex_unlock(&g_logLock);
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

    pthread_mutex_lock(&g_logLock);
    // Checked under the lock so that a line racing CloseLogSystem cannot reopen the file.
    if (g_blogSystemInitSuccess) {
        ++iCnt;
        snprintf_s(line, sizeof line, sizeof line - 1, "line %d===%d-%d-%d %d:%d:%d   %s:%s --- %s\n", iCnt,
                   local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                   local.tm_sec, tag, func, message);
        AppendLine(line);
    }
    pthread_mutex_unlock(&g_logLock);
}
