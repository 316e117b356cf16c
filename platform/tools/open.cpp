/* open -a APP [ARG...]: starts an application and returns at once.
 *
 * APP is an application bundle (the program named by CFBundleExecutable in its
 * Contents/Info.plist, in Contents/Linux, else in Contents/MacOS unless that one is a Mac
 * program) or an executable file. The program runs detached, in its own session, with
 * standard input on /dev/null and its standard output and error in
 * $XDG_STATE_HOME/kestrun/<program>.log (~/.local/state when that is not set), begun anew at
 * each start: what a program started from the desktop says is kept there.
 *
 * As on the Mac, an application runs once: while the program is running, opening it again
 * starts nothing and succeeds. The rule is a lock file per program (by its real path) in
 * the user's own folder, $XDG_RUNTIME_DIR/kestrun-open or /tmp/kestrun-open-UID. The lock
 * is taken before anything is started and held by a small watcher process, the program's
 * parent, until the program ends. The kernel decides between two opens at once (flock), and
 * a lock never outlives its holder, so a crash leaves nothing stale behind. The program
 * itself does not hold the lock, so nothing it starts in turn (an installed application)
 * keeps it. */
#include <pugixml.hpp>

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <vector>

namespace {

constexpr int kFailure = 1;

void Usage() {
    fputs("usage: open -a APPLICATION [ARGUMENT...]\n", stderr);
}

bool IsDirectory(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool IsExecutableFile(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && access(path.c_str(), X_OK) == 0;
}

// A property list is a few kilobytes; anything far larger is not one.
constexpr off_t kMaxPlistBytes = 1 << 20;

// The whole file when it is a regular file of a size a property list can have: a pipe or a
// device in its place is refused before a byte is read (reading one could wait for ever).
bool ReadPlist(const std::string& path, std::string* bytes, std::string* problem) {
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        *problem = path + ": " + (errno == ENOENT ? "no such file" : strerror(errno));
        return false;
    }
    struct stat info;
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > kMaxPlistBytes) {
        *problem =
            path + (S_ISREG(info.st_mode) ? ": too large for a property list" : ": not a regular file");
        close(fd);
        return false;
    }
    bytes->resize(static_cast<size_t>(info.st_size));
    size_t done = 0;
    while (done < bytes->size()) {
        ssize_t got = read(fd, &(*bytes)[done], bytes->size() - done);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        done += static_cast<size_t>(got);
    }
    close(fd);
    bytes->resize(done);
    return true;
}

// A Mach-O file (thin of either word size and byte order, or universal) runs only on a Mac.
bool IsMacProgram(const std::string& path) {
    unsigned char magic[4];
    int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0) {
        return false;
    }
    bool read = ::read(file, magic, sizeof magic) == static_cast<ssize_t>(sizeof magic);
    close(file);
    if (!read) {
        return false;
    }
    uint32_t word = static_cast<uint32_t>(magic[0]) << 24 | magic[1] << 16 | magic[2] << 8 | magic[3];
    for (uint32_t macho : {0xFEEDFACEu, 0xFEEDFACFu, 0xCAFEBABEu}) {
        if (word == macho || word == __builtin_bswap32(macho)) {
            return true;
        }
    }
    return false;
}

// The CFBundleExecutable value of an Info.plist: the <string> after that <key> in the top <dict>.
std::string BundleExecutableName(const std::string& plistPath, std::string* problem) {
    std::string bytes;
    if (!ReadPlist(plistPath, &bytes, problem)) {
        return std::string();
    }
    pugi::xml_document document;
    if (!document.load_buffer(bytes.data(), bytes.size())) {
        *problem = plistPath + ": not a property list";
        return std::string();
    }
    pugi::xml_node dict = document.child("plist").child("dict");
    for (pugi::xml_node key = dict.child("key"); key; key = key.next_sibling("key")) {
        if (strcmp(key.child_value(), "CFBundleExecutable") != 0) {
            continue;
        }
        pugi::xml_node value = key.next_sibling();
        if (strcmp(value.name(), "string") == 0 && value.child_value()[0] != '\0') {
            return value.child_value();
        }
        break;
    }
    *problem = plistPath + ": no CFBundleExecutable";
    return std::string();
}

// The program to start for APP, or empty with the reason in problem.
std::string ProgramFor(const std::string& application, std::string* problem) {
    if (IsDirectory(application)) {
        std::string name = BundleExecutableName(application + "/Contents/Info.plist", problem);
        if (name.empty()) {
            return std::string();
        }
        if (name.find('/') != std::string::npos) {
            *problem = application + ": CFBundleExecutable names a path: " + name;
            return std::string();
        }
        // A bundle that serves both systems keeps the Linux program in Contents/Linux; one made
        // for Linux alone may keep it where a Mac looks.
        std::string program = application + "/Contents/Linux/" + name;
        if (IsExecutableFile(program)) {
            return program;
        }
        std::string macProgram = application + "/Contents/MacOS/" + name;
        if (!IsExecutableFile(macProgram)) {
            *problem = program + " or " + macProgram + ": not an executable file";
            return std::string();
        }
        if (IsMacProgram(macProgram)) {
            *problem = application + ": holds only a Mac OS X program (" + macProgram + ")";
            return std::string();
        }
        return macProgram;
    }
    if (IsExecutableFile(application)) {
        return application;
    }
    struct stat info;
    *problem = application + (stat(application.c_str(), &info) == 0
                                  ? ": neither an application bundle nor an executable"
                                  : ": no such application");
    return std::string();
}

// The user's folder of lock files; empty when there is none that only this user can write.
std::string LockFolder() {
    const char* runtime = getenv("XDG_RUNTIME_DIR");
    std::string folder = runtime != nullptr && runtime[0] == '/'
                             ? std::string(runtime) + "/kestrun-open"
                             : "/tmp/kestrun-open-" + std::to_string(getuid());
    mkdir(folder.c_str(), 0700);
    struct stat info;
    if (lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != getuid() ||
        (info.st_mode & 022) != 0) {
        return std::string();
    }
    return folder;
}

enum class Instance { kLocked, kRunning, kNoLock };

// Takes the program's instance lock into *lock (close-on-exec).
Instance TakeInstanceLock(const std::string& program, int* lock) {
    *lock = -1;
    char real[PATH_MAX];
    std::string folder = LockFolder();
    if (folder.empty() || realpath(program.c_str(), real) == nullptr) {
        return Instance::kNoLock;
    }
    uint64_t hash = 14695981039346656037ull; // FNV-1a of the real path
    for (const char* at = real; *at != '\0'; at++) {
        hash = (hash ^ static_cast<unsigned char>(*at)) * 1099511628211ull;
    }
    char name[32];
    snprintf(name, sizeof name, "/%016llx.lock", static_cast<unsigned long long>(hash));
    int fd = open((folder + name).c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        return Instance::kNoLock;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        int error = errno;
        close(fd);
        return error == EWOULDBLOCK ? Instance::kRunning : Instance::kNoLock;
    }
    *lock = fd;
    return Instance::kLocked;
}

// Makes a folder and those above it, private to the user where it is new.
bool MakeFolders(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        mkdir(path.substr(0, slash).c_str(), 0700);
    }
    struct stat info;
    return (mkdir(path.c_str(), 0700) == 0 || errno == EEXIST) && lstat(path.c_str(), &info) == 0 &&
           S_ISDIR(info.st_mode) && info.st_uid == getuid();
}

// The file that keeps the program's output, emptied; -1 (and the reason) when there is none.
int OpenOutputFile(const std::string& program, std::string* where) {
    const char* state = getenv("XDG_STATE_HOME");
    const char* home = getenv("HOME");
    std::string folder;
    if (state != nullptr && state[0] == '/') {
        folder = std::string(state) + "/kestrun";
    } else if (home != nullptr && home[0] == '/') {
        folder = std::string(home) + "/.local/state/kestrun";
    } else {
        *where = "no XDG_STATE_HOME or HOME";
        return -1;
    }
    *where = folder + "/" + program.substr(program.rfind('/') + 1) + ".log";
    if (!MakeFolders(folder)) {
        *where += ": no folder of this user's own there";
        return -1;
    }
    int fd = open(where->c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        *where += std::string(": ") + strerror(errno);
    } else if (fd <= STDERR_FILENO) { // the watcher puts /dev/null there
        int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        close(fd);
        fd = moved;
    }
    return fd;
}

void CloseAllBut(std::initializer_list<int> keep) {
    for (int fd = STDERR_FILENO + 1; fd < 1024; ++fd) {
        if (std::find(keep.begin(), keep.end(), fd) == keep.end()) {
            close(fd);
        }
    }
}

// Starts the program in a session of its own, under a watcher that is not our child, so that
// both outlive us and no terminal or pipe of ours stays tied to them. The watcher holds the
// instance lock (if any) until the program ends. The program's output goes to output (or
// /dev/null when that is -1). Returns 0, or the errno of the failed start.
int StartDetached(const std::string& program, const std::vector<std::string>& arguments, int lock,
                  int output) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);

    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) {
        return errno;
    }
    pid_t child = fork();
    if (child < 0) {
        int error = errno;
        close(report[0]);
        close(report[1]);
        return error;
    }
    if (child == 0) {
        setsid();
        if (fork() != 0) {
            _exit(0); // the watcher, or nobody: then our parent reads no report
        }
        // The watcher.
        int null = open("/dev/null", O_RDWR);
        if (null >= 0) {
            dup2(null, STDIN_FILENO);
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
        }
        CloseAllBut({report[1], lock, output});
        int started[2];
        int error = pipe2(started, O_CLOEXEC) != 0 ? errno : 0;
        pid_t running = error == 0 ? fork() : -1;
        if (running == 0) {
            if (output >= 0) {
                dup2(output, STDOUT_FILENO);
                dup2(output, STDERR_FILENO);
            }
            CloseAllBut({started[1]}); // the lock stays with the watcher
            execv(program.c_str(), argv.data());
            error = errno;
            ssize_t written = write(started[1], &error, sizeof error);
            _exit(written > 0 ? 127 : 126);
        }
        if (running < 0 && error == 0) {
            error = errno;
        }
        if (output >= 0) {
            close(output); // the program's, not the watcher's
        }
        if (running > 0) {
            close(started[1]);
            ssize_t got;
            while ((got = read(started[0], &error, sizeof error)) < 0 && errno == EINTR) {
            }
            if (got != static_cast<ssize_t>(sizeof error)) {
                error = 0; // the pipe closed on exec: the program runs
            }
        }
        ssize_t written = write(report[1], &error, sizeof error);
        close(report[1]);
        while (written > 0 && error == 0 && waitpid(running, nullptr, 0) < 0 && errno == EINTR) {
        }
        _exit(0);
    }
    close(report[1]);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    int error = ECHILD;
    ssize_t got;
    while ((got = read(report[0], &error, sizeof error)) < 0 && errno == EINTR) {
    }
    close(report[0]);
    return got == static_cast<ssize_t>(sizeof error) ? error : ECHILD;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3 || strcmp(argv[1], "-a") != 0) {
        Usage();
        return kFailure;
    }
    if (argv[2][0] == '\0') {
        fputs("open: no application named\n", stderr);
        return kFailure;
    }
    std::string problem;
    std::string program = ProgramFor(argv[2], &problem);
    if (program.empty()) {
        fprintf(stderr, "open: %s\n", problem.c_str());
        return kFailure;
    }
    int lock = -1;
    switch (TakeInstanceLock(program, &lock)) {
    case Instance::kRunning:
        return 0; // already running: nothing more to do
    case Instance::kNoLock:
        fprintf(stderr,
                "open: %s: no lock folder of this user's own; starting without the one-instance rule\n",
                program.c_str());
        break;
    case Instance::kLocked:
        break;
    }
    std::string outputFile;
    int output = OpenOutputFile(program, &outputFile);
    if (output < 0) {
        fprintf(stderr, "open: %s: its output is not kept (%s)\n", program.c_str(), outputFile.c_str());
    }
    int error = StartDetached(program, std::vector<std::string>(argv + 3, argv + argc), lock, output);
    if (output >= 0) {
        close(output);
    }
    if (error != 0) {
        fprintf(stderr, "open: %s: cannot start: %s\n", program.c_str(), strerror(error));
        return kFailure;
    }
    return 0;
}
