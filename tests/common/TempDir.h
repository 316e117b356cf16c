// A private directory per test, removed with everything in it.
#ifndef TESTS_COMMON_TEMPDIR_H
#define TESTS_COMMON_TEMPDIR_H

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdlib.h>
#include <string>

class TempDir {
  public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kestrun-common-XXXXXX").string();
        path_ = mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
    }
    ~TempDir() {
        std::error_code ignored;
        if (!path_.empty()) {
            std::filesystem::remove_all(path_, ignored);
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

    std::string Write(const std::string& name, const std::string& content) const {
        std::string file = File(name);
        std::ofstream(file, std::ios::binary) << content;
        return file;
    }

  private:
    std::string path_;
};

inline std::string ReadWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

#endif
