// Real files, for tests that start programs.
#ifndef TESTS_SUPPORT_FILES_H
#define TESTS_SUPPORT_FILES_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

// A temporary directory, removed with its content.
class TemporaryDirectory {
public:
    TemporaryDirectory() : path(mkdtemp(std::string("/tmp/orvin-test-XXXXXX").data())) {}
    ~TemporaryDirectory() { std::filesystem::remove_all(path); }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::string operator/(const std::string& name) const { return path + '/' + name; }

private:
    const std::string path;
};

// Empty for a missing file.
inline std::string readText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

#endif
