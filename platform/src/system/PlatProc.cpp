/* The process table of /proc. Every reader tolerates a process that ends while
 * it is read: it answers false and the caller skips the process. */
#include "system/PlatProc.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <mutex>
#include <unistd.h>

namespace {

std::mutex gRootLock;

std::string gRoot = "/proc";

} // namespace

void PlatSetProcRoot(const char* root) {
    std::lock_guard<std::mutex> guard(gRootLock);
    gRoot = root == nullptr ? "/proc" : root;
}

namespace {

std::string ProcPath(pid_t pid, const char* entry) {
    std::lock_guard<std::mutex> guard(gRootLock);
    return gRoot + "/" + std::to_string(pid) + "/" + entry;
}

} // namespace

std::vector<pid_t> PlatProcListPids() {
    std::vector<pid_t> pids;
    std::string root;
    {
        std::lock_guard<std::mutex> guard(gRootLock);
        root = gRoot;
    }
    DIR* folder = opendir(root.c_str());
    if (folder == nullptr) {
        return pids;
    }
    while (struct dirent* entry = readdir(folder)) {
        const char* name = entry->d_name;
        if (name[0] < '1' || name[0] > '9' || strlen(name) > 9 ||
            strspn(name, "0123456789") != strlen(name)) {
            continue;
        }
        pids.push_back(static_cast<pid_t>(atol(name)));
    }
    closedir(folder);
    std::sort(pids.begin(), pids.end());
    return pids;
}

namespace {

/* Up to size - 1 bytes of a small file, terminated. -1 when it cannot be read.
 * Plain reads: /proc files are read once each, and a walk reads many of them. */
ssize_t ReadSmallFile(const std::string& path, char* buffer, size_t size) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    size_t count = 0;
    while (count < size - 1) {
        ssize_t got = read(fd, buffer + count, size - 1 - count);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            close(fd);
            return -1;
        }
        if (got == 0) {
            break;
        }
        count += static_cast<size_t>(got);
    }
    close(fd);
    buffer[count] = '\0';
    return static_cast<ssize_t>(count);
}

} // namespace

bool PlatProcReadStat(pid_t pid, PlatProcStat& stat) {
    char text[1024];
    if (ReadSmallFile(ProcPath(pid, "stat"), text, sizeof text) <= 0) {
        return false;
    }
    /* The command name in parentheses may itself hold ")" and blanks: the fields
     * start after the last ")". */
    char* rest = strrchr(text, ')');
    if (rest == nullptr) {
        return false;
    }
    /* Fields after the name, from 0: state ppid pgrp session tty_nr tpgid flags
     * minflt cminflt majflt cmajflt utime stime cutime cstime priority nice */
    std::vector<std::string> fields;
    char* position = nullptr;
    for (char* token = strtok_r(rest + 1, " \n", &position); token != nullptr && fields.size() < 17;
         token = strtok_r(nullptr, " \n", &position)) {
        fields.push_back(token);
    }
    if (fields.size() < 6 || fields[0].size() != 1) {
        return false;
    }
    auto number = [&fields](size_t index) {
        return index < fields.size() ? strtoll(fields[index].c_str(), nullptr, 10) : 0LL;
    };
    stat.state = fields[0][0];
    stat.ppid = static_cast<pid_t>(number(1));
    stat.pgrp = static_cast<pid_t>(number(2));
    stat.ttyNumber = static_cast<int>(number(4));
    stat.ttyProcessGroup = static_cast<pid_t>(number(5));
    stat.nice = static_cast<long>(number(16));
    return true;
}

bool PlatProcIsTheUsers(pid_t pid) {
    struct stat info;
    return stat(ProcPath(pid, "").c_str(), &info) == 0 && info.st_uid == getuid();
}

bool PlatProcCommandName(pid_t pid, std::string& name) {
    char text[256];
    ssize_t length = ReadSmallFile(ProcPath(pid, "comm"), text, sizeof text);
    if (length < 0) {
        return false;
    }
    name.assign(text, static_cast<size_t>(length));
    if (!name.empty() && name.back() == '\n') {
        name.pop_back();
    }
    return true;
}

namespace {

std::string BaseName(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

} // namespace

bool PlatProcExecutableName(pid_t pid, std::string& name) {
    char target[4096];
    ssize_t length = readlink(ProcPath(pid, "exe").c_str(), target, sizeof target - 1);
    if (length > 0) {
        std::string path(target, static_cast<size_t>(length));
        /* An executable replaced or removed while it runs keeps its name. */
        static const std::string kDeleted = " (deleted)";
        if (path.size() > kDeleted.size() &&
            path.compare(path.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0) {
            path.resize(path.size() - kDeleted.size());
        }
        name = BaseName(path);
        return !name.empty();
    }
    /* No link at all: a kernel thread or a process that has ended. Only a link we may
     * not read (another user's process) leaves the first argument to go by. */
    if (errno == ENOENT) {
        return false;
    }
    char arguments[4096];
    ssize_t count = ReadSmallFile(ProcPath(pid, "cmdline"), arguments, sizeof arguments);
    if (count <= 0 || arguments[0] == '\0') {
        return false;
    }
    name = BaseName(arguments);
    return !name.empty();
}
