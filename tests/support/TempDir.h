/* Shared by all tests: a private folder per test, files written and read back whole, the
 * system's fixed paths kept aside while a test uses them, and waiting for a condition. */
#ifndef TESTS_SUPPORT_TEMPDIR_H
#define TESTS_SUPPORT_TEMPDIR_H

#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

namespace kestrun_test {

namespace fs = std::filesystem;

// A folder under /tmp, removed with everything in it when the object goes.
struct TempDir {
    std::string path = Make();
    ~TempDir() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    std::string operator/(const std::string& relative) const { return path + "/" + relative; }
    static std::string Make() {
        char pattern[] = "/tmp/kestrun-test-XXXXXX";
        return mkdtemp(pattern) != nullptr ? pattern : "/nonexistent";
    }
};

// Writes text to path, making the folders on the way.
inline void WriteFile(const std::string& path, const std::string& text, bool executable = false) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    if (executable)
        chmod(path.c_str(), 0755);
}

inline std::string ReadFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

// Moves a fixed path of the system aside for a test and puts it back when the object goes.
struct FixedPathGuard {
    explicit FixedPathGuard(const std::string& fixed) : path(fixed), aside(fixed + ".kestrun-test-aside") {
        std::error_code ignored;
        fs::remove_all(aside, ignored);
        moved = rename(path.c_str(), aside.c_str()) == 0;
    }
    ~FixedPathGuard() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
        if (moved)
            rename(aside.c_str(), path.c_str());
    }
    std::string path, aside;
    bool moved;
};

// Polls every 20 ms until done() or the time limit; the last answer.
inline bool Within(int ms, const std::function<bool()>& done) {
    for (auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
         std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
        if (done())
            return true;
    }
    return done();
}

} // namespace kestrun_test

#endif
