#include "orvin-image/content.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <random>
#include <vector>

#include "common/file_descriptor.h"
#include "common/firmware_descriptor.h"
#include "image/image_header.h"
#include "orvin-image/failure.h"

namespace orvin_image {

namespace {

constexpr std::size_t kPiece = 65536;

class ContentFile {
public:
    ContentFile(std::string name, std::uint32_t most)
        : path(std::move(name)),
          limit(most),
          // Without O_NONBLOCK, to open a pipe is to wait for its writer.
          file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
        if (!file.isOpen() || fstat(file.get(), &status) != 0) {
            failWithErrno(path, "cannot be opened");
        }
    }

    void requireUsable(const std::string& output) const {
        refuseUnreadable();
        refuseOutput(output);
        refuseImage();
        if (!S_ISREG(status.st_mode)) {
            // Only reading tells that a device has no end, and to sum up takes longer than to read.
            read([](const std::uint8_t*, std::size_t) { return true; });
        }
    }

    bool read(const Sink& sink) const {
        rewind();
        std::array<std::uint8_t, kPiece> piece{};
        std::uint64_t total = 0;
        ssize_t count = 0;
        while ((count = ::read(file.get(), piece.data(), piece.size())) > 0) {
            total += static_cast<std::size_t>(count);
            refuseLong(total);
            if (!sink(piece.data(), static_cast<std::size_t>(count))) {
                return false;
            }
        }
        if (count < 0) {
            failWithErrno(path, "cannot be read");
        }
        return true;
    }

private:
    void refuseUnreadable() const {
        if (S_ISDIR(status.st_mode)) {
            fail(path, "is a directory");
        }
        if (S_ISFIFO(status.st_mode)) {
            fail(path, "is a pipe: put the content into a file first");
        }
        refuseLong(static_cast<std::uint64_t>(status.st_size));
    }

    void refuseOutput(const std::string& output) const {
        struct stat other {};
        if (stat(output.c_str(), &other) == 0 && other.st_dev == status.st_dev &&
            other.st_ino == status.st_ino) {
            fail(path, "is both the content and the image to write: give the image another name");
        }
    }

    void refuseImage() const {
        const std::optional<ImageFileStart> start = readImageFileStart(file.get());
        if (start && start->hasMagic &&
            std::uint64_t{start->header.headerSize} + start->header.contentSize ==
                static_cast<std::uint64_t>(status.st_size)) {
            fail(path, "is an image already, not the content of one (see 'orvin-image show')");
        }
    }

    void refuseLong(std::uint64_t size) const {
        if (size > limit) {
            fail(path, "is too long: at most " + std::to_string(limit) +
                           " bytes go into an image, which has less than 2 GiB");
        }
    }

    void rewind() const {
        if (lseek(file.get(), 0, SEEK_SET) < 0) {
            failWithErrno(path, "cannot be read");
        }
    }

    const std::string path;
    const std::uint32_t limit;
    const FileDescriptor file;
    struct stat status {};
};

}  // namespace

Content generatedContent(std::uint32_t target, std::uint32_t version, std::size_t size) {
    return [=](const Sink& sink) {
        std::minstd_rand random(target ^ version);
        std::vector<std::uint8_t> piece(std::min(kPiece, size));
        for (std::size_t done = 0; done < size; done += piece.size()) {
            piece.resize(std::min(kPiece, size - done));
            std::generate(piece.begin(), piece.end(),
                          [&random] { return static_cast<std::uint8_t>(random() >> 16); });
            if (done == 0) {
                const auto descriptor = firmware::Descriptor{target, version}.encode();
                std::copy_n(descriptor.begin(), std::min(size, descriptor.size()), piece.begin());
            }
            if (!sink(piece.data(), piece.size())) {
                return false;
            }
        }
        return true;
    };
}

Content fileContent(const std::string& path, std::uint32_t limit, const std::string& output) {
    const auto file = std::make_shared<const ContentFile>(path, limit);
    file->requireUsable(output);
    return [file](const Sink& sink) { return file->read(sink); };
}

Content withDescriptor(std::uint32_t target, std::uint32_t version, const Content& content) {
    const auto descriptor = firmware::Descriptor{target, version}.encode();
    return [=](const Sink& sink) {
        return sink(descriptor.data(), descriptor.size()) && content(sink);
    };
}

}  // namespace orvin_image
