/* Reading the bundle's resource files: only regular files, opened so that a pipe or a
 * device in a resource's place can neither hold the caller up nor be acted on. */
#include "cf/PlatCF.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

bool PlatCFReadRegularFile(const std::string& path, size_t limit, std::string& bytes) {
    bytes.clear();
    struct stat info;
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return false;
    }
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    /* Checked again on what was opened: the name may have been replaced in between. */
    bool ok = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && static_cast<size_t>(info.st_size) <= limit;
    if (ok) {
        bytes.assign(static_cast<size_t>(info.st_size), '\0');
        size_t done = 0;
        ssize_t count = 1;
        while (done < bytes.size() && (count = read(fd, &bytes[done], bytes.size() - done)) > 0) {
            done += static_cast<size_t>(count);
        }
        ok = count >= 0;
        bytes.resize(done);
    }
    close(fd);
    if (!ok) {
        bytes.clear();
    }
    return ok;
}
