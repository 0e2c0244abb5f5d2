// The programs as they are built.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>

#include "support/bus_builder.h"
#include "support/files.h"

namespace {

using namespace std::string_literals;

struct Result {
    int exitStatus = 0;
    std::string output;  // standard output and error
};

class Program : public testing::Test {
protected:
    static Result shell(const std::string& command) {
        Result result;
        std::FILE* const pipe =
            popen(("export LC_ALL=C TEXTDOMAINDIR=/nowhere; exec 2>&1; " + command).c_str(), "r");
        char buffer[4096];
        for (std::size_t count = 0; (count = fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
            result.output.append(buffer, count);
        }
        result.exitStatus = WEXITSTATUS(pclose(pipe));
        return result;
    }

    static Result upgrade(const std::string& arguments) {
        return shell(UPGRADE_PROGRAM " "s + arguments);
    }

    static Result image(const std::string& arguments) {
        return shell(IMAGE_PROGRAM " "s + arguments);
    }

    TemporaryDirectory directory;
};

constexpr char kStart[] =
    "Using locale C\n"
    "Using locales from /nowhere\n"
    "Using text domain orvin-firmware-upgrade\n"
    ">> Orvin Firmware upgrade v0.20.5\n";

TEST_F(Program, EndsItselfAtVersionAndHelp) {
    const Result version = upgrade("-v -x");
    EXPECT_EQ(version.exitStatus, 0);
    EXPECT_EQ(version.output, kStart);

    const Result help = upgrade("-l -h -x");
    EXPECT_EQ(help.exitStatus, 0);
    EXPECT_EQ(help.output.rfind(kStart + "Usage:\n> List:"s, 0), 0U) << help.output;

    const Result unknown = upgrade("-x -h");
    EXPECT_EQ(unknown.exitStatus, 129);
    EXPECT_NE(unknown.output.find("invalid option -- 'x'"), std::string::npos);
    EXPECT_EQ(occurrences(unknown.output, "Usage:"), 1);
}

TEST_F(Program, ListsABusAndFindsNoneElsewhere) {
    writeText(directory / "bus.json", BusBuilder().orvin(1).text());
    const Result listing = upgrade("-l -c sim:" + directory / "bus.json");
    EXPECT_EQ(listing.exitStatus, 0);
    EXPECT_EQ(listing.output.rfind(kStart + "Waiting for bus to become ACTIVE...\n"s, 0), 0U);
    EXPECT_NE(listing.output.find(" 1)  " + orvinId(1)), std::string::npos);
    EXPECT_EQ(upgrade("-l").exitStatus, 132);
}

TEST_F(Program, KeepsItsConsoleOutOfTheStatusFileWhenItsOutputIsClosed) {
    writeText(directory / "bus.json", BusBuilder().with("link", {{"active_after_ms", 0}}).text());
    const Result closed =
        upgrade("-l -m " + directory / "status" + " -c sim:" + directory / "bus.json" + " >&-");
    EXPECT_EQ(closed.exitStatus, 0);
    EXPECT_EQ(readText(directory / "status"), "Waiting for Lumnet bus to become active...");
}

TEST_F(Program, OrvinImageShowsWhatItCreates) {
    const std::string path = directory / "arm.img";
    ASSERT_EQ(image("create " + path + " --target arm --version 0x01020304 --size 1000").exitStatus,
              0);
    const Result text = image("show " + path);
    EXPECT_EQ(text.exitStatus, 0);
    EXPECT_NE(text.output.find("device           0x200 (Pellix ARM)\n"), std::string::npos);
    EXPECT_NE(text.output.find(" (right)\nversion          0x01020304\n"), std::string::npos);
    const Json json = Json::parse(image("show --json " + path).output);
    EXPECT_EQ(json["accepted"], true);
    EXPECT_EQ(json["header"]["contentSize"], 1000);
    EXPECT_EQ(json["header"]["contentChecksum"], json["computedChecksum"]);
}

TEST_F(Program, OrvinImageTakesContentAsItIsOrWithADescriptor) {
    const std::string content = directory / "content";
    const std::string path = directory / "dsp.img";
    writeText(content, "some firmware");
    const std::string command = "create " + path + " --target dsp --version 7 --content " + content;
    EXPECT_NE(image(command).output.find("note: the content has no descriptor"), std::string::npos);
    EXPECT_EQ(readText(path).substr(36), "some firmware");
    EXPECT_EQ(image(command + " --add-descriptor").output, "");
    EXPECT_EQ(readText(path).substr(36), "OFWD\x01\x02\0\0\x07\0\0\0some firmware"s);
}

TEST_F(Program, OrvinImageTellsWhyTheUpgradeToolWouldRefuseAFile) {
    const std::string path = directory / "image";
    ASSERT_EQ(image("create " + path + " --target 0x203 --version 1 --size 100").exitStatus, 0);
    EXPECT_NE(image("show " + path).output.find("unknown: the upgrade tool skips"),
              std::string::npos);

    const std::string whole = readText(path);
    const struct {
        std::string text;
        const char* reason;
    } cases[] = {{whole + "x", "Invalid content size"},
                 {"x" + whole.substr(1), "Invalid firmware image format"},
                 {whole.substr(0, 35), "File not open"}};
    for (const auto& example : cases) {
        writeText(path, example.text);
        const std::string line = "Error in '" + path + "': " + example.reason + "\n";
        const Result shown = image("show " + path);
        EXPECT_EQ(shown.exitStatus, 1);
        EXPECT_NE(shown.output.find(line), std::string::npos) << shown.output;
        writeText(directory / "bus.json", BusBuilder().text());
        EXPECT_NE(upgrade("-B -c sim:" + directory / "bus.json " + path).output.find(line),
                  std::string::npos);
        EXPECT_EQ(Json::parse(image("show --json " + path).output)["refusal"], example.reason);
    }
}

TEST_F(Program, OrvinImageLeavesNothingHalfDone) {
    EXPECT_EQ(image("create " + directory / "missing/image" + " --target arm --version 1 --size 64")
                  .exitStatus,
              2);
    EXPECT_EQ(
        image("create " + directory / "image" + " --target arm --version 1 --size 3").exitStatus,
        2);
    EXPECT_NE(image("create x --target arm --version 1").exitStatus, 0);
    EXPECT_NE(image("create x --target nose --version 1 --size 64").exitStatus, 0);
    EXPECT_EQ(readText(directory / "image"), "");
}

}  // namespace
