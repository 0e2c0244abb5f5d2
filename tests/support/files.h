#ifndef TESTS_SUPPORT_FILES_H
#define TESTS_SUPPORT_FILES_H

#include <string>
#include <vector>

#include "orvin-image/image_file.h"

// A directory of the test's own, removed with all that is in it.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::string operator/(const std::string& name) const { return path_ + '/' + name; }

private:
    std::string path_;
};

// Empty for a file that is not there.
std::string readText(const std::string& path);
void writeText(const std::string& path, const std::string& text);
inline void writeFile(const std::string& path, const orvin_image::Bytes& bytes) {
    writeText(path, {bytes.begin(), bytes.end()});
}

std::vector<std::string> linesOf(const std::string& text);

// How often `part` stands in `text`.
int occurrences(const std::string& text, const std::string& part);

// An image with generated content.
orvin_image::Bytes makeImage(std::uint32_t target, std::uint32_t version, std::size_t contentSize);

#endif
