/* open -a APP [ARG...]: starts an application and returns at once.
 *
 * APP is an application bundle (the program named by CFBundleExecutable in its
 * Contents/Info.plist, in Contents/MacOS) or an executable file. The program runs
 * detached, in its own session, with standard input and output on /dev/null. */
#include <pugixml.hpp>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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

// The CFBundleExecutable value of an Info.plist: the <string> after that <key> in the top <dict>.
std::string BundleExecutableName(const std::string& plistPath, std::string* problem) {
    pugi::xml_document document;
    pugi::xml_parse_result parsed = document.load_file(plistPath.c_str());
    if (!parsed) {
        *problem = plistPath + ": " +
                   (parsed.status == pugi::status_file_not_found ? "no such file" : "not a property list");
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
        std::string program = application + "/Contents/MacOS/" + name;
        if (!IsExecutableFile(program)) {
            *problem = program + ": not an executable file";
            return std::string();
        }
        return program;
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

// Starts the program as a grandchild in its own session, so that it outlives us and no
// terminal or pipe of ours stays tied to it.
bool StartDetached(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);

    pid_t child = fork();
    if (child < 0) {
        return false;
    }
    if (child == 0) {
        setsid();
        pid_t grandchild = fork();
        if (grandchild != 0) {
            _exit(grandchild < 0 ? kFailure : 0);
        }
        int null = open("/dev/null", O_RDWR);
        if (null >= 0) {
            dup2(null, STDIN_FILENO);
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
        }
        for (int fd = STDERR_FILENO + 1; fd < 1024; ++fd) {
            close(fd);
        }
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
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
    if (!StartDetached(program, std::vector<std::string>(argv + 3, argv + argc))) {
        fprintf(stderr, "open: %s: cannot start: %s\n", program.c_str(), strerror(errno));
        return kFailure;
    }
    return 0;
}
