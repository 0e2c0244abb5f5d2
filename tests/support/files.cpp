#include "support/files.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

TemporaryDirectory::TemporaryDirectory() {
    // Status messages come from /tmp and cannot leave its file system.
    std::string path = "/tmp/orvin-test-XXXXXX";
    path_ = mkdtemp(path.data());
}

TemporaryDirectory::~TemporaryDirectory() {
    std::filesystem::remove_all(path_);
}

std::string readText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

int occurrences(const std::string& text, const std::string& part) {
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

orvin_image::Bytes makeImage(std::uint32_t target, std::uint32_t version, std::size_t contentSize) {
    FirmwareImageHeader header;
    header.manufacturer = 0x1234;
    header.contentType = 7;
    header.device = target;
    header.version = version;
    return orvin_image::encodeImage(header,
                                    orvin_image::generateContent(target, version, contentSize));
}
