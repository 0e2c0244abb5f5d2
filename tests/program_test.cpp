// The programs as they are installed.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "files/replace_file.h"
#include "support/bus_builder.h"
#include "support/files.h"

namespace {

using namespace std::string_literals;

struct Result {
    int exitStatus = 0;
    std::string output;
    std::string error;
};

constexpr char kStandIn[] = PREFIX "/lib/orvin-firmware-upgrade-sim";

class Program : public testing::Test {
protected:
    Result shell(const std::string& command) const {
        const std::string error = directory / "stderr";
        Result result;
        std::FILE* const pipe = popen(
            ("export LC_ALL=C TEXTDOMAINDIR=/nowhere; exec 2>" + error + "; " + command).c_str(),
            "r");
        char buffer[4096];
        for (std::size_t count = 0; (count = fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
            result.output.append(buffer, count);
        }
        result.exitStatus = WEXITSTATUS(pclose(pipe));
        result.error = readText(error);
        return result;
    }

    // Finds the bus libraries by the search path and by nothing else.
    Result upgrade(const std::string& arguments, const std::string& libraries = kStandIn) const {
        return shell("LD_LIBRARY_PATH=" + libraries + " " PREFIX "/bin/orvin-firmware-upgrade " +
                     arguments);
    }

    Result image(const std::string& arguments) const {
        return shell(PREFIX "/bin/orvin-image " + arguments);
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
    EXPECT_EQ(version.error, "");

    const Result help = upgrade("-l -h -x");
    EXPECT_EQ(help.exitStatus, 0);
    EXPECT_EQ(help.output.rfind(kStart + "Usage:\n> List:"s, 0), 0U) << help.output;

    const Result unknown = upgrade("-x -h");
    EXPECT_EQ(unknown.exitStatus, 129);
    EXPECT_NE(unknown.error.find("invalid option -- 'x'\n"), std::string::npos);
    EXPECT_EQ(occurrences(unknown.output, "Usage:"), 1);
}

TEST_F(Program, HasNoLibraryPathOfItsOwnOnceInstalled) {
    const Result lost = shell(PREFIX "/bin/orvin-firmware-upgrade -v");
    EXPECT_EQ(lost.exitStatus, 127);
    EXPECT_NE(lost.error.find("libtalm-api-v2.so"), std::string::npos);
}

TEST_F(Program, TakesWhicheverBusLibrariesComeFirst) {
    const Result elsewhere = upgrade("-l -c tcp://elsewhere", OTHER_LIBRARIES ":"s + kStandIn);
    EXPECT_EQ(elsewhere.exitStatus, 0);
    EXPECT_EQ(elsewhere.error,
              "TalmApiInitialize 00\ntcp://elsewhere 00\nTalmApiGetLinkState 00\n"
              "TalmApiGetBusMembers 00\nBusMember_get_type 0b\nOrvinInfo 0b\nTalmApiCleanup 00\n"
              "TalmApiClose 00\n");
    EXPECT_NE(elsewhere.output.find(" 1)  0b:ff:"), std::string::npos);
    EXPECT_NE(elsewhere.output.find("'Elsewhere')"), std::string::npos) << elsewhere.output;

    // It answers a check with success, but writes no sums. An image without content gets that far.
    writeFile(directory / "empty.img", makeImage(kArm, kNewVersion, 0));
    const Result verified = shell("export LD_LIBRARY_PATH=" OTHER_LIBRARIES "; { " PREFIX
                                  "/bin/orvin-firmware-upgrade -B -f " +
                                  directory / "empty.img" + " & echo $! >" + directory / "pid" +
                                  "; } | grep -m 1 -E 'verifyData|updated'; kill -KILL $(cat " +
                                  directory / "pid" + ")");
    EXPECT_NE(verified.output.find("after verifyData() failed"), std::string::npos)
        << verified.output;
}

TEST_F(Program, LauncherRunsTheToolOnABusOfTheUsersOwn) {
    const Result listing = shell("XDG_STATE_HOME=" + directory / "state" +
                                 " " PREFIX "/bin/orvin-firmware-upgrade-sim -l");
    EXPECT_EQ(listing.exitStatus, 0) << listing.error;
    EXPECT_EQ(occurrences(listing.output, "Pellix "), 3);
    EXPECT_FALSE(readText(directory / "state/orvin-firmware-upgrade-sim/bus.json").empty());
}

TEST_F(Program, WritesItsStatusMessagesInTheUsersLanguage) {
    writeText(directory / "bus.json", BusBuilder().text());
    const struct {
        const char* language;
        const char* message;
    } cases[] = {{"de", "Warten, bis der Lumnet-Bus aktiv wird ..."},
                 {"fr", "En attente de l’activation du bus Lumnet..."},
                 {"xx", "Waiting for Lumnet bus to become active..."}};
    for (const auto& example : cases) {
        shell(
            "export LD_LIBRARY_PATH="s + kStandIn + " LC_ALL=C.UTF-8 LANGUAGE=" + example.language +
            " TEXTDOMAINDIR=" PREFIX "/share/locale; " PREFIX "/bin/orvin-firmware-upgrade -l -m " +
            directory / "status" + " -c sim:" + directory / "bus.json");
        EXPECT_EQ(readText(directory / "status"), example.message);
    }
}

TEST_F(Program, ExampleFollowsAnUpgradeAndTellsWhatItsEndAsksFor) {
    const Json timing = {{"install_ms", 1}, {"restart_ms", 1}};
    writeText(directory / "bus.json", BusBuilder().orvin(1, nullptr, timing).text());
    image("create " + directory / "arm.img" + " --target arm --version 7 --size 100");
    const std::string output = directory / "output";
    const std::string tool =
        PREFIX "/bin/orvin-firmware-upgrade -B -m " + directory / "status" + " -c ";
    const std::string upgrade = tool + "sim:" + directory / "bus.json " + directory / "arm.img ";
    const struct {
        std::string command;
        int exitStatus;
        const char* told;
    } cases[] = {{upgrade + directory / "missing.img", 1, "\n1 device was updated.\nAttention: "},
                 {upgrade, 0, "\nNo device was updated.\n"},
                 {tool + "tcp://nowhere " + directory / "arm.img", 132, "bus is not ready"},
                 {tool, 129, "The command line is wrong"},
                 // Ends when its line has come through.
                 {"timeout 60 sh -c 'echo console; until grep -q console " + output +
                      "; do sleep 0.1; done'",
                  0, "console\n"},
                 {"env --default-signal=HUP sh -c 'kill -HUP $$'", 129, "SIGHUP ended the upgrade"},
                 {"sh -c 'kill -SEGV $$'", 139, "The tool crashed (SIGSEGV)"},
                 {"sh -c 'kill -TERM $PPID; exec sleep 60'", 143, "SIGTERM ended the upgrade"}};
    for (const auto& example : cases) {
        const Result result =
            shell("export LD_LIBRARY_PATH="s + kStandIn +
                  "; " PREFIX "/share/doc/orvin-firmware-upgrade/examples/follow-upgrade " +
                  directory / "status " + example.command + " >" + output);
        EXPECT_EQ(result.exitStatus, example.exitStatus) << example.command;
        EXPECT_NE(readText(output).find(example.told), std::string::npos) << readText(output);
        if (example.command == upgrade) {  // the last message of one that has nothing to do
            EXPECT_EQ(occurrences(readText(output), "Waiting for Lumnet bus to become active.."),
                      1);
        }
    }
}

TEST_F(Program, KeepsItsConsoleOutOfTheStatusFileWhenItsOutputIsClosed) {
    writeText(directory / "bus.json", BusBuilder().with("link", {{"active_after_ms", 0}}).text());
    const Result closed =
        upgrade("-l -m " + directory / "status" + " -c sim:" + directory / "bus.json" + " >&-");
    EXPECT_EQ(closed.exitStatus, 0);
    EXPECT_EQ(readText(directory / "status"), "Waiting for Lumnet bus to become active...");
}

TEST_F(Program, OrvinImageShowsWhatItCreatesWithADescriptorOrWithout) {
    const std::string content(100000, 'x');  // more than one piece
    const std::string path = directory / "dsp.img";
    writeText(directory / "content", content);
    const std::string command =
        "create " + path + " --target dsp --version 0x01020304 --content " + directory / "content";
    EXPECT_NE(image(command).error.find("note: the content has no descriptor"), std::string::npos);
    EXPECT_EQ(readText(path).substr(36), content);
    EXPECT_EQ(image(command + " --add-descriptor").error, "");
    EXPECT_EQ(readText(path).substr(36), "OFWD\x01\x02\0\0\x04\x03\x02\x01"s + content);
    EXPECT_NE(image("show " + path).output.find("0x201 (Pellix DSP)\n"), std::string::npos);
    const Json json = Json::parse(image("show --json " + path).output);
    EXPECT_EQ(json["accepted"], true);
    EXPECT_EQ(json["header"]["version"], 0x01020304);
    EXPECT_EQ(json["header"]["contentSize"], 100012);
    EXPECT_EQ(json["header"]["contentChecksum"], json["computedChecksum"]);
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
    EXPECT_NE(image("show " + path).output.find("has 35 bytes"), std::string::npos);
    shell("mkfifo " + directory / "fifo");
    for (const std::string& other : {directory / "fifo", directory / ".", "/proc/self/mem"s}) {
        const Result shown = image("show " + other);
        EXPECT_EQ(shown.exitStatus, 2);
        EXPECT_EQ(shown.error.rfind("orvin-image: '" + other + "': ", 0), 0U) << shown.error;
    }
}

TEST_F(Program, OrvinImageRefusesWhatItCannotMakeAndLeavesNothingBehind) {
    const std::string create = "cd " + directory / "" + " && " PREFIX "/bin/orvin-image create ";
    shell(create + "image --target arm --version 1 --size 64; ln -s image link");
    shell("cd " + directory / "" + " && mkfifo fifo && truncate -s 6G long");
    const std::string before = readText(directory / "image");
    const struct {
        const char* arguments;
        const char* reason;
    } cases[] = {
        {"missing/x --target arm --version 1 --size 64", "'missing/x': cannot be written: No such"},
        {"x --target arm --version 1 --size 3", "at least 12 bytes"},
        {"x --target arm --version 1 --size 4000000000", "at most 2147483611 bytes"},
        {"x --target ARM --version 1 --size 64", "'ARM' is not arm, dsp, booster-arm or a number"},
        {"x --target arm --version 010 --size 64", "not octal"},
        {"x --target arm --version 4294967296 --size 64", "range is 0 to 4294967295"},
        {"x --target arm --version 1 --content 'a\nb\x1b'", "'a?b?': cannot be opened: No such"},
        {"x --target arm --version 1 --content long", "'long': is too long: at most 21"},
        {"x --target arm --version 1 --content fifo", "'fifo': is a pipe"},
        {"x --target arm --version 1 --content .", "'.': is a directory"},
        {"x --target arm --version 1 --content /proc/self/mem", "mem': cannot be read: Input/"},
        {"x --target arm --version 1 --content image", "'image': is an image already"},
        {"image --target arm --version 1 --content link", "'link': is both"},
    };
    for (const auto& example : cases) {
        const Result refused = shell(create + example.arguments);
        EXPECT_NE(refused.exitStatus, 0) << example.arguments;
        EXPECT_NE(refused.error.find(example.reason), std::string::npos) << refused.error;
    }
    EXPECT_EXIT(replaceFile(directory / "image",
                            [](const WriteBytes& write) {
                                return write("x", 1) && raise(SIGTERM) == 0 && write("y", 1);
                            }),
                testing::KilledBySignal(SIGTERM), "");
    EXPECT_EQ(shell("ls -A " + directory / "").output, "fifo\nimage\nlink\nlong\nstderr\n");
    EXPECT_EQ(readText(directory / "image"), before);
}

}  // namespace
