// Shared by the log and INI tests: a private directory per test, and files read back whole.
#pragma once

#include <gtest/gtest.h>

// GCC 12 sees an uninitialized std::function inside the regex compiler once sanitizers are on.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdlib.h>
#include <string>

inline std::string ReadWholeFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

struct TempDir {
    std::error_code ignored;
    std::string path = (std::filesystem::temp_directory_path() / "kestrun-common-XXXXXX").string();
    TempDir() { EXPECT_NE(mkdtemp(path.data()), nullptr) << path; }
    ~TempDir() { std::filesystem::remove_all(path, ignored); }
    std::string File(const std::string& name) const { return path + "/" + name; }
    std::string Write(const std::string& name, const std::string& content) const {
        std::ofstream(File(name), std::ios::binary) << content;
        return File(name);
    }
};
