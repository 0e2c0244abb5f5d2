#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>

#include "status/format_message.h"
#include "status/message_writer.h"
#include "support/system_hooks.h"
#include "support/tool_run.h"

namespace {

class StatusMessage : public testing::Test {
protected:
    StatusMessage() {
        SystemHooks::instance().beforeRename = [this](const std::string& from, const std::string&) {
            temporaryFile = from;
            beforeRename = readText(path) + '|' + readText(from);
        };
    }
    ~StatusMessage() override {
        SystemHooks::instance() = SystemHooks();
        EXPECT_FALSE(std::filesystem::exists(temporaryFile));
    }

    TemporaryDirectory directory;
    const std::string path = directory / "status";
    std::string temporaryFile;  // of the last message that was to take the file's place
    std::string beforeRename;   // what both then held
};

TEST_F(StatusMessage, ReplacesTheWholeFileForItsOwnerOnly) {
    MessageWriter writer(path);
    for (const char* message : {"a long first message", "short", ""}) {
        writer.write(message);
        EXPECT_EQ(readText(path), message);
    }
    EXPECT_EQ(std::filesystem::status(path).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(StatusMessage, IsAlreadyWholeWhenItTakesTheFilesPlace) {
    MessageWriter writer(path);
    writer.write("old");
    writer.write("new");
    EXPECT_EQ(beforeRename, "old|new");
    EXPECT_EQ(temporaryFile.compare(0, 11, "/tmp/talmfw"), 0);
}

TEST_F(StatusMessage, WithoutAFileWritesNothing) {
    MessageWriter writer("");
    EXPECT_EQ(captureOutput([&] { writer.write("message"); }), "");
    EXPECT_EQ(temporaryFile, "");
}

TEST_F(StatusMessage, TellsOfAFileThatCannotBeReplacedAndGoesOn) {
    const std::string nowhere = directory / "missing/status";
    MessageWriter writer(nowhere);
    EXPECT_EQ(captureOutput([&] { writer.write("message"); }),
              "Could not apply message to file " + nowhere + ": No such file or directory\n");
}

TEST_F(StatusMessage, HasOneWriterFromInitToItsEnd) {
    EXPECT_THROW(MessageWriter::instance(), std::runtime_error);
    MessageWriter* const writer = MessageWriter::init(directory / "first");
    EXPECT_EQ(MessageWriter::init(directory / "second"), writer);
    MessageWriter::instance()->write("message");
    EXPECT_EQ(readText(directory / "first"), "message");
    delete writer;
    EXPECT_THROW(MessageWriter::instance(), std::runtime_error);
}

TEST(FormatMessage, FillsPlaceholdersAndEndsAtAZeroByte) {
    EXPECT_EQ(formatMessage("%s: %d%% of %zd", "x", 5, static_cast<ssize_t>(7)), "x: 5% of 7");
    EXPECT_EQ(formatMessage("ab%ccd", 0), "ab");
    EXPECT_EQ(formatMessage("%s", std::string(100'000, 'x').c_str()).size(), 100'000U);
}

}  // namespace
