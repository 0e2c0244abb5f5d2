#include "image/firmware_image.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "core/error_info.h"
#include "firmware/little_endian.h"
#include "support/bus_builder.h"
#include "support/files.h"

namespace {

using orvin_image::Bytes;

constexpr std::size_t kHeaderSize = 36;

void put(Bytes& bytes, std::size_t offset, std::uint32_t value) {
    firmware::storeLittleEndian(&bytes[offset], value);
}

class FirmwareImageFile : public testing::Test {
protected:
    bool open(const Bytes& bytes) {
        writeFile(path, bytes);
        return image.open(path);
    }

    TemporaryDirectory directory;
    const std::string path = directory / "image";
    ErrorInfo error;
    FirmwareImage image{&error};
};

TEST_F(FirmwareImageFile, HoldsOneFileWhileItIsOpenAndNoneAfterAFailure) {
    const auto freeDescriptor = [] {
        const int file = dup(STDIN_FILENO);
        close(file);
        return file;
    };
    const int unused = freeDescriptor();
    char content[64] = {};
    const auto opensTwice = [&] {
        const Bytes bytes = makeImage(kArm, kNewVersion, 64);
        return open(bytes) && open(bytes) && image.read(content, 64) == 64;
    };
    ASSERT_TRUE(opensTwice());
    EXPECT_EQ(freeDescriptor(), unused + 1);
    for (const char* unusable : {"missing", "short"}) {
        writeText(directory / "short", "tevu");
        ASSERT_TRUE(opensTwice());
        EXPECT_FALSE(image.open(directory / unusable));
        EXPECT_EQ(freeDescriptor(), unused) << unusable;
        EXPECT_EQ(image.read(content, 64), -1);
    }
    EXPECT_EQ(error.code, 130) << "a short file leaves the record as it was";
    ASSERT_TRUE(opensTwice());
    image.close();
    EXPECT_EQ(freeDescriptor(), unused);
}

TEST_F(FirmwareImageFile, GivesItsHeaderAndItsContent) {
    Bytes bytes(kHeaderSize + 3);
    std::copy_n("tevu", 4, bytes.begin());
    for (std::size_t offset = 4; offset < kHeaderSize; ++offset) {
        bytes[offset] = static_cast<std::uint8_t>(offset);
    }
    put(bytes, 4, kHeaderSize);
    put(bytes, 20, 3);
    bytes[kHeaderSize] = 'a';
    bytes[kHeaderSize + 2] = 'c';
    ASSERT_TRUE(open(bytes));
    EXPECT_EQ(image.getHeader().manufacturer, 0x0b0a0908U);
    EXPECT_EQ(image.getHeader().device, 0x0f0e0d0cU);
    EXPECT_EQ(image.getHeader().contentType, 0x13121110U);
    EXPECT_EQ(image.getHeader().contentChecksum, 0x1918U);
    EXPECT_EQ(image.getHeader().version, 0x23222120U);

    char content[64] = {};
    EXPECT_EQ(image.read(content, 2), 2);
    EXPECT_EQ(content[0], 'a');
    EXPECT_EQ(image.read(content, 64), 1);
    EXPECT_EQ(content[0], 'c');
    EXPECT_EQ(image.read(content, 64), 0);
    EXPECT_TRUE(image.seek(0));
    EXPECT_EQ(image.read(content, 64), 3);
    EXPECT_FALSE(image.seek(-1000));
}

TEST_F(FirmwareImageFile, RefusesWhatIsNoImageWithTheReason) {
    const Bytes good = makeImage(kArm, kNewVersion, 100);
    const struct {
        const char* what;
        std::size_t offset;
        std::uint32_t value;
        std::size_t length;
        const char* reason;
    } cases[] = {
        {"no whole header", 4, 36, 35, "File not open"},
        {"no whole header, wrong magic", 0, 0, 20, "File not open"},
        {"nothing", 4, 36, 0, "File not open"},
        {"wrong magic and sizes", 0, 0x74657675, 99, "Invalid firmware image format"},
        {"one byte more", 4, 36, 137, "Invalid content size"},
        {"one byte less", 4, 36, 135, "Invalid content size"},
        {"content size one less", 20, 99, 136, "Invalid content size"},
        {"a sum that 32 bits would cut to the length", 4, 0xffffffff, 99, "Invalid content size"},
    };
    for (const auto& example : cases) {
        Bytes bytes = good;
        put(bytes, example.offset, example.value);
        bytes.resize(example.length);
        ErrorInfo reason;
        FirmwareImage refused(&reason);
        writeFile(path, bytes);
        EXPECT_FALSE(refused.open(path)) << example.what;
        EXPECT_EQ(reason.code, 128) << example.what;
        EXPECT_EQ(reason.message, example.reason) << example.what;
        char byte = 0;
        EXPECT_EQ(refused.read(&byte, 1), -1) << example.what;
    }
}

// Sparse files: only their length is long. A length cut to 32 bits would fit the header.
TEST_F(FirmwareImageFile, IsRefusedFromTwoGibibytesOn) {
    constexpr off_t kGibibyte = off_t{1} << 30;
    constexpr off_t kHeader = kHeaderSize;
    const struct {
        off_t length;
        off_t contentSize;
        bool accepted;
    } cases[] = {{2 * kGibibyte - 1, 2 * kGibibyte - 1 - kHeader, true},
                 {2 * kGibibyte, 2 * kGibibyte - kHeader, false},
                 {4 * kGibibyte + kHeader + 100, 100, false}};
    for (const auto& example : cases) {
        Bytes bytes = makeImage(kArm, kNewVersion, 100);
        put(bytes, 20, static_cast<std::uint32_t>(example.contentSize));
        writeFile(path, bytes);
        ASSERT_EQ(truncate(path.c_str(), example.length), 0);
        EXPECT_EQ(image.open(path), example.accepted) << example.length;
        if (example.accepted) {
            char byte = 'x';
            EXPECT_TRUE(image.seek(static_cast<std::int32_t>(example.contentSize - 1)));
            EXPECT_EQ(image.read(&byte, 1), 1);
            EXPECT_EQ(byte, 0);
            image.close();
        } else {
            EXPECT_EQ(error.message, "Invalid content size");
        }
    }
}

TEST_F(FirmwareImageFile, TellsWhyAFileCannotBeOpenedOrRead) {
    EXPECT_EQ(error.message, "File not open");
    EXPECT_FALSE(image.open(directory / "missing"));
    EXPECT_EQ(error.code, 130);
    EXPECT_EQ(error.message, "No such file or directory");

    ErrorInfo reason;
    FirmwareImage folder(&reason);
    EXPECT_FALSE(folder.open(directory / "."));
    EXPECT_EQ(reason.message, "File not open");
}

TEST_F(FirmwareImageFile, TakesTheContentFromWhereTheHeaderSaysItBegins) {
    char byte = 0;
    Bytes longHeader(64 + 1);
    std::copy_n("tevu", 4, longHeader.begin());
    put(longHeader, 4, 64);
    put(longHeader, 20, 1);
    longHeader[64] = 'x';
    ASSERT_TRUE(open(longHeader));
    EXPECT_EQ(image.read(&byte, 1), 1);
    EXPECT_EQ(byte, 'x');
    image.close();
    EXPECT_EQ(image.read(&byte, 1), -1);
    EXPECT_EQ(error.message, "File not open");

    Bytes noHeader = longHeader;
    put(noHeader, 4, 0);
    put(noHeader, 20, 65);
    ErrorInfo reason;
    FirmwareImage whole(&reason);
    writeFile(path, noHeader);
    ASSERT_TRUE(whole.open(path));
    EXPECT_EQ(whole.read(&byte, 1), 1);
    EXPECT_EQ(byte, 't');
}

}  // namespace
