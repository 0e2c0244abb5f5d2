// Tests of the installed programs.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>

#include "support/files.h"

namespace {

using namespace std::string_literals;

struct Result {
    int exitStatus = 0;
    std::string output;
    std::string error;
};

constexpr char kBus[] = R"({"members": [
    {"id": "0a:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:01", "type": 64, "versions": {},
     "timing": {"install_ms": 1, "restart_ms": 1}}]})";
constexpr char kWaiting[] = "Waiting for Lumnet bus to become active...";
constexpr char kStandIn[] = BRIEF_WAITS ":" PREFIX "/lib/orvin-firmware-upgrade-sim";

class Program : public testing::Test {
protected:
    Program() { writeText(directory / "bus.json", kBus); }

    // Runs the command in the directory.
    Result shell(const std::string& command) const {
        const std::string start =
            "cd " + directory / "" + "; exec >stdout 2>stderr; export PATH=" +
            PREFIX "/bin:$PATH LC_ALL=C TEXTDOMAINDIR=/nowhere LD_LIBRARY_PATH=" + kStandIn + "; ";
        const int status = std::system((start + command).c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
                readText(directory / "stdout"), readText(directory / "stderr")};
    }

    // Runs the command and expects its exit status and all parts in what it prints, in any order.
    Result expect(const std::string& command, int exitStatus,
                  const std::vector<std::string>& parts) const {
        const Result result = shell(command);
        const std::string all = result.output + result.error;
        EXPECT_EQ(result.exitStatus, exitStatus) << command << '\n' << all;
        for (const std::string& part : parts) {
            EXPECT_NE(all.find(part), std::string::npos) << command << '\n' << part << '\n' << all;
        }
        return result;
    }

    TemporaryDirectory directory;
};

constexpr char kStart[] =
    "Using locale C\n"
    "Using locales from /nowhere\n"
    "Using text domain orvin-firmware-upgrade\n"
    ">> Orvin Firmware upgrade v" ORVIN_VERSION "\n";

TEST_F(Program, EndsItselfAtVersionAndHelp) {
    const Result version = expect("orvin-firmware-upgrade -v -x", 0, {});
    EXPECT_EQ(version.output + version.error, kStart);
    const Result help = expect("orvin-firmware-upgrade -l -h -x", 0, {kStart + "Usage:\n> List:"s});
    const Result unknown = expect("orvin-firmware-upgrade -x -h", 129, {"invalid option -- 'x'\n"});
    EXPECT_EQ(unknown.output, help.output);
    const Result noLocale = shell("LC_ALL=xx_XX orvin-firmware-upgrade -v");
    EXPECT_EQ(noLocale.output, std::string(kStart).substr(sizeof "Using locale C"));
    EXPECT_EQ(noLocale.error, "Could not retrieve system locale settings!\n");
}

TEST_F(Program, TellsTheVersionOfThePackageAndItsHelp) {
    for (const std::string name :
         {"orvin-image", "orvin-record", "orvin-recording", "orvin-firmware-upgrade-sim"}) {
        const Result told =
            expect("set -e; for option in --version --help; do " + name + " $option; done", 0,
                   {"sage: " + name + ' '});
        EXPECT_EQ(told.output.rfind(name + " " ORVIN_VERSION "\n", 0), 0U) << told.output;
    }
    expect("orvin-image create --help", 0, {"  --target TARGET  "});
}

TEST_F(Program, TakesWhicheverBusLibrariesTheSearchPathHasFirst) {
    expect("LD_LIBRARY_PATH= orvin-firmware-upgrade -v", 127, {"libtalm-api-v2.so"});
    expect("LD_LIBRARY_PATH=" OTHER_TALM ":$LD_LIBRARY_PATH orvin-firmware-upgrade -l -c 1,0,0", 0,
           {" 1)  0a:00:"});
}

TEST_F(Program, LauncherRunsTheToolOnABusOfTheUsersOwn) {
    const std::string launcher =
        "LD_LIBRARY_PATH= XDG_STATE_HOME=$PWD/state orvin-firmware-upgrade-sim ";
    const std::string bus = directory / "state/orvin-firmware-upgrade-sim/bus.json";
    EXPECT_EQ(shell(launcher + "-l | grep -c 'Pellix '").output, "3\n");
    const std::string example = readText(bus);
    writeText(bus, "upgraded");
    expect("flock " + bus + " env " + launcher + "--fresh -l", 125, {"is in use\n"});
    EXPECT_EQ(readText(bus), "upgraded");
    EXPECT_EQ(shell(launcher + "--fresh -l | grep -c 'Pellix '; ls $(dirname " + bus + ')').output,
              "3\nbus.json\n");
    EXPECT_EQ(readText(bus), example);
}

TEST_F(Program, MissesADeviceThatNeverReturnedInLaterRunsToo) {
    std::string bus = kBus;
    bus.insert(bus.find("\"timing\""), R"("faults": {"never_returns": true}, )");
    writeText(directory / "bus.json", bus);
    shell(
        "orvin-image create arm.img --target arm --version 7 --size 100;"
        " orvin-firmware-upgrade -B -c sim:bus.json arm.img &"
        " until grep -q on_bus bus.json || ! kill -0 $!; do sleep 0.1; done; kill $!");
    const std::string listing =
        expect("orvin-firmware-upgrade -l -c sim:bus.json", 0, {"Available devices"}).output;
    EXPECT_EQ(listing.find(" 1) "), std::string::npos) << listing;
}

TEST_F(Program, WritesItsStatusMessagesInTheUsersLanguage) {
    for (const auto& [language, message] :
         {std::pair{"de", "Warten, bis der Lumnet-Bus aktiv wird ..."},
          {"fr", "En attente de l’activation du bus Lumnet..."}}) {
        shell("LC_ALL=C.UTF-8 TEXTDOMAINDIR=" PREFIX "/share/locale LANGUAGE="s + language +
              " orvin-firmware-upgrade -l -m status -c sim:bus.json");
        EXPECT_EQ(readText(directory / "status"), message);
    }
}

TEST_F(Program, SurvivesItsEnvironment) {
    const std::string listing =
        "; env --default-signal orvin-firmware-upgrade -l -m status -c sim:bus.json";
    for (const auto& [surroundings, status] :
         {std::pair{"exec <&- >&-", kWaiting},
          {"mkfifo pipe; : <pipe & exec >pipe; wait", kWaiting},  // its reader is gone
          {"ulimit -f 0", "old"}}) {
        writeText(directory / "status", "old");
        expect(surroundings + listing, 0, {});
        EXPECT_EQ(readText(directory / "status"), status) << surroundings;
    }
    // The bus cannot start a thread, because its stack would need half of the address space.
    expect("ulimit -s " + std::to_string(SIZE_MAX / 2048) + listing, 132,
           {"cannot start a thread"});
}

TEST_F(Program, RecorderLeavesTheCommandAsItIs) {
    const std::string listing = "orvin-firmware-upgrade -l -c sim:bus.json";
    const Result alone = shell(listing);
    for (const auto& [file, told] : {std::pair{"recording", ""},
                                     {"/nowhere/x", "does not begin: cannot be opened: No such"},
                                     {"/dev/full", "ends: No space left on device\n"}}) {
        EXPECT_EQ(expect("orvin-record "s + file + ' ' + listing, 0, {told}).output, alone.output);
    }
    const std::string recording =
        expect("cat recording", 0,
               {"{\"orvin-recording\":1,\"invocation\":\"", "\"call\":\"BusMember_get_type\",",
                ",\"device\":\"0a:00:", "\"call\":\"TalmApiClose\","})
            .output;
    // A recording stays unchanged if another run is writing it, or if no call comes.
    expect("flock recording orvin-record recording " + listing + "; orvin-record recording true", 0,
           {"another run is being recorded"});
    EXPECT_EQ(readText(directory / "recording"), recording);
    // All runs of one command replace it. They start without orvin-record here, because a
    // sanitizer's library cannot be loaded into its shell.
    const std::string run =
        "LD_LIBRARY_PATH=" PREFIX
        "/lib/orvin-firmware-upgrade:$LD_LIBRARY_PATH"
        " LD_PRELOAD=liborvin-record.so ORVIN_RECORDING=recording ORVIN_RECORD_INVOCATION=one " +
        listing + " >x; ";
    EXPECT_EQ(shell(run + run + "grep -c '\"invocation\":\"one\"' recording").output, "2\n");
    // Without a call of the bus, there is no recording.
    EXPECT_EQ(shell("orvin-record y orvin-firmware-upgrade -v; ls y").output, kStart);
    expect("orvin-record x " + listing + " & kill -TERM $!; wait $!", 128 + SIGTERM, {});
}

TEST_F(Program, RecordingShowsWhatWentWrongAndBringsItBack) {
    writeText(directory / "bus.json", R"({"members": [
        {"id": "0a:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:01", "type": 64, "name": "Gate",
         "versions": {}, "timing": {"install_ms": 1, "restart_ms": 1},
         "faults": {"fault_result": [{"at": 1, "result": 3}]}},
        {"id": "0a:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:02", "type": 64, "name": "Hall",
         "versions": {}, "timing": {"install_ms": 1, "restart_ms": 1},
         "faults": {"go_back": [{"at": 2, "to": 0}]}}]})");
    shell("orvin-image create arm.img --target arm --version 7 --size 200");
    const std::string upgrade = "orvin-firmware-upgrade -B arm.img -c sim:";
    expect("orvin-record recording " + upgrade + "bus.json >then", 139, {});
    expect("orvin-recording summary recording", 0,
           {"Gate", "fault 3", "Hall", "00000001 -> 00000007"});
    expect("PYTHONPATH=" PREFIX "/share/orvin-firmware-upgrade-sim python3 " RECORDING_TEST
           " recording",
           0, {});
    expect(
        "orvin-recording plot recording -o recording.svg;"
        " python3 -c 'import xml.dom.minidom as xml; xml.parse(\"recording.svg\")'",
        0, {});
    // It may take a second more or less, and ask the restarting device once more.
    EXPECT_EQ(shell("orvin-recording bus recording >again.json; " + upgrade + "again.json >now;" +
                    " sed -i '/took/d; s/\\.\\.\\.<*/.../' then now; diff then now")
                  .output,
              "");
    for (const auto& [damage, exitStatus, told] :
         {std::tuple{"4s/}/, \"members\": [[1]]}/", 1, ": line 4: damaged"},
          {"$d", 1, "cut off, the session does not end"},
          {"1d", 2, ": line 1: not a recording"}}) {
        const Result damaged =
            expect("sed '"s + damage + "' recording >damaged; orvin-recording summary damaged",
                   exitStatus, {told});
        EXPECT_EQ(damaged.output.empty(), exitStatus == 2) << damaged.output;
    }
}

TEST_F(Program, OrvinImageShowsWhatItCreatesWithADescriptorOrWithout) {
    const std::string content(100000, 'x');  // more than one piece
    writeText(directory / "content", content);
    const std::string command =
        "orvin-image create image --target dsp --version 1.2.3.4 --content content";
    expect(command, 0, {"note: the content has no descriptor"});
    EXPECT_EQ(readText(directory / "image").substr(36), content);
    EXPECT_EQ(shell(command + " --add-descriptor").error, "");
    EXPECT_EQ(readText(directory / "image").substr(36),
              "OFWD\x01\x02\0\0\x04\x03\x02\x01"s + content);
    expect("orvin-image show image; orvin-image show --json image", 0,
           {"0x201 (Pellix DSP)\n", " (right)\n", "\"accepted\": true", " 0x01020304 (1.2.3.4)\n",
            "\"version\": 16909060\n", "\"contentSize\": 100012,"});
}

TEST_F(Program, OrvinImageTellsWhyTheUpgradeToolWouldRefuseAFile) {
    expect(
        "orvin-image create image --target 0x203 --version 1.3.0 --size 100; mkfifo fifo;"
        " orvin-image show image",
        0, {"unknown: the upgrade tool", " 0x00010300 (1.3.0)\n"});
    const std::string whole = readText(directory / "image");
    for (const auto& [text, reason] : {std::pair{whole + "x", "Invalid content size"},
                                       {"x" + whole.substr(1), "Invalid firmware image format"},
                                       {whole.substr(0, 35), "File not open"}}) {
        writeText(directory / "image", text);
        expect("orvin-image show --json image", 1, {"\"refusal\": \""s + reason + '"'});
    }
    expect("orvin-image show image", 1,
           {"Error in 'image': File not open\nnote: the file has 35 bytes"});
    for (const std::string other : {"fifo", ".", "/proc/self/mem"}) {
        expect("orvin-image show " + other, 2, {"orvin-image: '" + other + "': "});
    }
}

TEST_F(Program, OrvinImageRefusesWhatItCannotMakeAndLeavesNothingBehind) {
    // A link may lead through another one to a file that does not exist yet.
    shell("rm bus.json; mkdir d; ln -s ../link d/link; ln -s image link; ln -s circle circle");
    shell("orvin-image create d/link --target arm --version 1 --size 64; rm -r d");
    shell("mkfifo fifo; truncate -s 6G long");
    const std::string before = readText(directory / "image");
    const std::pair<const char*, const char*> cases[] = {
        {"circle --target arm --version 1 --size 64", "cannot be written: Too many levels"},
        {"missing/x --target arm --version 1 --size 64", "cannot be written: No such"},
        {"x --target arm --version 1 --size 3", "range 12 to 2147483611"},
        {"x --target arm --version 1 --size 4000000000", "range 12 to 2147483611"},
        {"x --target ARM --version 1 --size 64", "'ARM' is not a number"},
        {"x --target arm --version 010 --size 64", "without a leading zero"},
        {"x --target arm --version 4294967296 --size 64", "from 0 to 4294967295"},
        {"x --target arm --version 1.3 --size 64", "'1.3' is not a version"},
        {"x --target arm --version 1.3.256 --size 64", "from 0 to 255"},
        {"x --target arm --version 1.3.0.x --size 64", "like 1.3.0"},
        {"x --target arm --version 1 --content 'a\nb\x1b'", "'a?b?': cannot be opened"},
        {"x --target arm --version 1 --content long", "'long': is too long: at most 21"},
        {"x --target arm --version 1 --content fifo", "'fifo': is not a regular file"},
        {"x --target arm --version 1 --content .", "'.': is a directory"},
        {"x --target arm --version 1 --content /proc/self/mem", "mem': cannot be read"},
        {"x --target arm --version 1 --content image", "'image': is an image already"},
        {"image --target arm --version 1 --content link", "'link': is both"},
    };
    for (const auto& [arguments, reason] : cases) {
        expect("! orvin-image create "s + arguments, 0, {reason});
    }
    EXPECT_EQ(shell("ls -A").output, "circle\nfifo\nimage\nlink\nlong\nstderr\nstdout\n");
    EXPECT_EQ(readText(directory / "image"), before);
}

}  // namespace
