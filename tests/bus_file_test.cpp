#include "sim/bus_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>

#include "support/bus_builder.h"
#include "support/files.h"
#include "support/tool_run.h"

namespace {

std::string reasonOf(const std::string& text) {
    try {
        sim::describeBus(sim::parseBusFile(text));
    } catch (const sim::BusFileError& error) {
        return error.what();
    }
    return "";
}

TEST(BusFile, NamesThePlaceOfWhatIsWrong) {
    const auto orvin = [](const std::string& fields) {
        return R"({"members": [{"id": ")" + orvinId(1) + R"(", "type": 64, "versions": {})" +
               fields + "}]}";
    };
    EXPECT_EQ(reasonOf(orvin("")), "");
    const struct {
        std::string text;
        const char* reason;
    } cases[] = {
        {"[]", "the whole file: not an object"},
        {"{}", "the whole file: has no \"members\""},
        {R"({"members": {}})", "/members: not an array"},
        {R"({"members": [], "sed": 1})", "/sed: unknown field"},
        {R"({"members": [{"id": "00"}]})", "/members/0/id: not a device's identifier"},
        {R"({"members": [], "seed": 1.5})", "/seed: not a whole number"},
        {R"({"members": [], "seed": "0x1ffffffff"})", "/seed: neither a number nor a text like"},
        {R"({"members": [], "seed": 18446744073709551615})", "/seed: not between 0 and 4294967295"},
        {orvin(R"(, "timing": {"restart_ms": -1})"), "/members/0/timing/restart_ms: not between"},
        {orvin(R"(, "name": "012345678901234567890123456789012")"),
         "/members/0/name: longer than 32"},
        {orvin(R"(, "faults": {"lose_packets": "all"})"),
         "/members/0/faults/lose_packets: unknown"},
        {orvin(R"(, "faults": {"loses_packets": [0]})"), "/members/0/faults/loses_packets/0: not"},
        {orvin(R"(, "faults": {"go_back": [{"at": 1}]})"), "/members/0/faults/go_back/0: has no"},
        {orvin(R"(, "faults": {"check": {}})"), "/members/0/faults/check: has no \"calls\""},
        {orvin(R"(, "faults": {"keeps_old_version": true})"),
         "/members/0/faults/keeps_old_version: n"},
    };
    for (const auto& example : cases) {
        const std::string reason = reasonOf(example.text);
        EXPECT_EQ(reason.compare(0, std::string(example.reason).size(), example.reason), 0)
            << example.text << "\n"
            << reason;
    }
    const std::string twice = BusBuilder().orvin(1).orvin(1).text();
    EXPECT_EQ(reasonOf(twice), "/members/1/id: there already");
}

TEST(BusFile, NamesLineAndColumnOfWhatIsNoJson) {
    EXPECT_EQ(reasonOf("{\n  \"members\": [\n").compare(0, 18, "line 3, column 1: "), 0);
    EXPECT_EQ(occurrences(reasonOf("{\"a\nb\": 1}"), "\n"), 0);
}

// Each fault in the table, and that there is an example for each fault.
TEST(BusFile, UnderstandsTheExamplesOfItsDocument) {
    std::set<std::string> faults;
    for (const std::string& line : linesOf(readText(DOCUMENT))) {
        if (line.rfind("| `{", 0) != 0) {
            continue;
        }
        const Json example = Json::parse(line.substr(3, line.find("` |") - 3));
        faults.insert(example.items().begin().key());
        EXPECT_TRUE(reasonOf(BusBuilder().orvin(1, example).text()).empty() ||
                    reasonOf(BusBuilder().with("faults", example).text()).empty())
            << line;
    }
    EXPECT_EQ(faults.size(), 15U);
}

class BrokenBus : public ToolTest {};

TEST_F(BrokenBus, IsAFailedOpenWithOneLineOnStandardError) {
    const std::string path = directory / "broken.json";
    for (const char* text : {"{", "{\"members\": 1}"}) {
        writeText(path, text);
        testing::internal::CaptureStderr();
        EXPECT_EQ(runBare({"-l", "-c", "sim:" + path}).exitStatus, 132);
        const std::string error = testing::internal::GetCapturedStderr();
        EXPECT_EQ(error.rfind("bus file '" + path + "': ", 0), 0U) << error;
        EXPECT_EQ(linesOf(error).size(), 1U);
        EXPECT_EQ(readText(path), text);
    }
    mkfifo((directory / "fifo").c_str(), 0600);
    writeText(directory / "large", bus.orvin(1).text() + std::string(4U << 20U, ' '));
    writeText(directory / "used", bus.text());
    writeText(directory / "replaced", bus.text());
    const sim::BusFile used(directory / "used");
    sim::BusFile replaced(directory / "replaced");
    replaced.storeVersions(0, {});
    for (const auto& [file, reason] : {std::pair{"missing", "cannot be read: No such file"},
                                       {"fifo", "not a regular file"},
                                       {"large", "larger than 4 MiB"},
                                       {"used", "in use by another connection"},
                                       {"replaced", "in use by another connection"}}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(runBare({"-l", "-c", "sim:" + directory / file}).exitStatus, 132);
        const std::string line = "bus file '" + directory / file + "': " + reason;
        EXPECT_EQ(testing::internal::GetCapturedStderr().rfind(line, 0), 0U) << line;
    }
}

TEST(BusFile, KeepsEverythingElseWhenItStoresAVersion) {
    TemporaryDirectory directory;
    const std::string path = directory / "bus.json";
    writeText(path,
              BusBuilder().member(9, 1).orvin(1, {{"reports_back", 2}}).with("seed", 7).text());
    std::filesystem::permissions(path, std::filesystem::perms(0640));
    sim::Versions versions = sim::BusFile(path).description().members[1].versions;
    versions.dsp = 0xfedcba98;
    sim::BusFile(path).storeVersions(1, versions);

    const sim::BusDescription stored = sim::BusFile(path).description();
    EXPECT_EQ(stored.members[1].versions.dsp, 0xfedcba98);
    EXPECT_EQ(stored.members[1].versions.arm, kOldVersion);
    EXPECT_EQ(stored.members[1].faults.reportsBack, 2);
    EXPECT_EQ(stored.seed, 7U);
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0640));
}

}  // namespace
