#include "orvin-image/content.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "common/file_descriptor.h"
#include "common/firmware_descriptor.h"
#include "image/image_header.h"
#include "orvin-image/failure.h"

namespace orvin_image {

namespace {

void refuseLong(const std::string& path, std::uint64_t size, std::uint32_t limit) {
    if (size > limit) {
        fail(path, "is too long: at most " + std::to_string(limit) +
                       " bytes go into an image, which has less than 2 GiB");
    }
}

void refuseUnreadable(const std::string& path, const struct stat& status) {
    if (S_ISDIR(status.st_mode)) {
        fail(path, "is a directory");
    }
    if (S_ISFIFO(status.st_mode)) {
        fail(path, "is a pipe: put the content into a file first");
    }
}

void refuseOutput(const std::string& path, const struct stat& status, const std::string& output) {
    struct stat other {};
    if (stat(output.c_str(), &other) == 0 && other.st_dev == status.st_dev &&
        other.st_ino == status.st_ino) {
        fail(path, "is both the content and the image to write: give the image another name");
    }
}

void refuseImage(const std::string& path, const FileDescriptor& file, off_t size) {
    const std::optional<ImageFileStart> start = readImageFileStart(file.get());
    if (start && start->hasMagic &&
        std::uint64_t{start->header.headerSize} + start->header.contentSize ==
            static_cast<std::uint64_t>(size)) {
        fail(path, "is an image already, not the content of one (see 'orvin-image show')");
    }
}

// Checks the limit while reading, too, because a device file may be endless.
Bytes readAll(const std::string& path, const FileDescriptor& file, std::uint32_t limit) {
    constexpr std::size_t kPiece = 65536;
    Bytes content;
    if (lseek(file.get(), 0, SEEK_SET) < 0) {
        failWithErrno(path, "cannot be read");
    }
    for (std::size_t size = 0;;) {
        refuseLong(path, size, limit);
        content.resize(size + kPiece);
        const ssize_t count = ::read(file.get(), &content[size], kPiece);
        if (count < 0) {
            failWithErrno(path, "cannot be read");
        }
        size += static_cast<std::size_t>(count);
        if (count == 0) {
            content.resize(size);
            return content;
        }
    }
}

}  // namespace

Bytes generateContent(std::uint32_t target, std::uint32_t version, std::size_t size) {
    std::minstd_rand random(target ^ version);
    Bytes content(size);
    std::generate(content.begin(), content.end(),
                  [&random] { return static_cast<std::uint8_t>(random() >> 16); });
    const auto descriptor = firmware::Descriptor{target, version}.encode();
    std::copy_n(descriptor.begin(), std::min(size, descriptor.size()), content.begin());
    return content;
}

Bytes readContent(const std::string& path, std::uint32_t limit, const std::string& output) {
    // Without O_NONBLOCK, opening a pipe blocks until it has a writer.
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!file.isOpen() || fstat(file.get(), &status) != 0) {
        failWithErrno(path, "cannot be opened");
    }
    refuseUnreadable(path, status);
    refuseLong(path, static_cast<std::uint64_t>(status.st_size), limit);
    refuseOutput(path, status, output);
    refuseImage(path, file, status.st_size);
    return readAll(path, file, limit);
}

Bytes withDescriptor(std::uint32_t target, std::uint32_t version, Bytes content) {
    const auto descriptor = firmware::Descriptor{target, version}.encode();
    content.insert(content.begin(), descriptor.begin(), descriptor.end());
    return content;
}

}  // namespace orvin_image
