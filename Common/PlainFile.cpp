/* Regular files only, opened so that the opening itself cannot block. */
#include "Common/PlainFile.h"

#include <sys/stat.h>
#include <unistd.h>

namespace {

/* A file to be written must have no other name: a hard link planted at its path would
 * send the writes into the file behind it, as a symbolic link would. */
bool IsPlain(const struct stat& status, bool directoryToo, bool writing) {
    if (S_ISREG(status.st_mode)) {
        return !writing || status.st_nlink == 1;
    }
    return directoryToo && S_ISDIR(status.st_mode);
}

/* Moves fd to a number above the standard streams: with standard output closed, a file
 * given descriptor 1 would receive everything meant for the terminal. */
int AboveStandardStreams(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) {
        return fd;
    }
#ifdef F_DUPFD_CLOEXEC
    int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
#else
    int moved = fcntl(fd, F_DUPFD, STDERR_FILENO + 1);
    if (moved >= 0) {
        fcntl(moved, F_SETFD, FD_CLOEXEC);
    }
#endif
    close(fd);
    return moved;
}

} // namespace

FILE* OpenPlainFile(const char* path, int flags, const char* mode, bool directoryToo) {
    if (path == nullptr || mode == nullptr) {
        return nullptr;
    }
    const bool writing = (flags & (O_WRONLY | O_RDWR)) != 0;
    // Look before opening: opening a device can act by itself (a tape rewinds, a terminal
    // is taken over). A path that does not exist yet may still be created by the open.
    struct stat status;
    int looked = (flags & O_NOFOLLOW) != 0 ? lstat(path, &status) : stat(path, &status);
    if (looked == 0 && !IsPlain(status, directoryToo, writing)) {
        return nullptr;
    }
    int openFlags = (flags & ~O_TRUNC) | O_NONBLOCK | O_NOCTTY;
#ifdef O_CLOEXEC
    openFlags |= O_CLOEXEC; // the commands the launcher runs need none of its files
#endif
    int fd = AboveStandardStreams(open(path, openFlags, 0666));
    if (fd < 0) {
        return nullptr;
    }
    // The path may have changed since it was looked at: what was opened is what counts.
    if (fstat(fd, &status) != 0 || !IsPlain(status, directoryToo, writing) ||
        ((flags & O_TRUNC) != 0 && ftruncate(fd, 0) != 0)) {
        close(fd);
        return nullptr;
    }
    FILE* file = fdopen(fd, mode);
    if (file == nullptr) {
        close(fd);
    }
    return file;
}
