/* Regular files only, opened so that the opening itself cannot block. */
#include "Common/PlainFile.h"

#include <sys/stat.h>
#include <unistd.h>

namespace {

bool IsPlain(const struct stat& status, bool directoryToo) {
    return S_ISREG(status.st_mode) || (directoryToo && S_ISDIR(status.st_mode));
}

} // namespace

FILE* OpenPlainFile(const char* path, int flags, const char* mode, bool directoryToo) {
    if (path == NULL || mode == NULL) {
        return NULL;
    }
    // Look before opening: opening a device can act by itself (a tape rewinds, a terminal
    // is taken over). A path that does not exist yet may still be created by the open.
    struct stat status;
    int looked = (flags & O_NOFOLLOW) != 0 ? lstat(path, &status) : stat(path, &status);
    if (looked == 0 && !IsPlain(status, directoryToo)) {
        return NULL;
    }
    int openFlags = (flags & ~O_TRUNC) | O_NONBLOCK | O_NOCTTY;
#ifdef O_CLOEXEC
    openFlags |= O_CLOEXEC; // the commands the launcher runs need none of its files
#endif
    int fd = open(path, openFlags, 0666);
    if (fd < 0) {
        return NULL;
    }
    // The path may have changed since it was looked at: what was opened is what counts.
    if (fstat(fd, &status) != 0 || !IsPlain(status, directoryToo) ||
        ((flags & O_TRUNC) != 0 && ftruncate(fd, 0) != 0)) {
        close(fd);
        return NULL;
    }
    FILE* file = fdopen(fd, mode);
    if (file == NULL) {
        close(fd);
    }
    return file;
}
