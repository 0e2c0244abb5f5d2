// Tests of the simulated devices and their bus file, which the other tests rely on.

#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "common/firmware_checksum.h"
#include "orvin-image/image_file.h"
#include "recording/lines.h"
#include "sim/bus_file/bus_file.h"
#include "sim/bus_file/bus_file_error.h"
#include "support/files.h"
#include "support/tool_run.h"
#include "transfer/transfer_primitives.h"

namespace {

using orvin_image::Bytes;
using sim::Json;

// The result of an upgrade with `content`, if only `packets` arrive.
std::string upgradeWith(const Bytes& content, const std::vector<std::uint32_t>& packets) {
    const auto size = static_cast<std::uint32_t>(content.size());
    firmware::Checksum checksum;
    checksum.add(content.data(), size);
    sim::Device device(orvin(1));
    device.writeRequest(kArm, size, checksum.value());
    Bytes padded = content;
    padded.resize(size + sim::kPacketBytes);
    for (const std::uint32_t packet : packets) {
        device.receive(packet, &padded[packet * sim::kPacketBytes], 0, 0);
    }
    std::uint16_t announced = 0;
    std::uint16_t computed = 0;
    device.checkImage(kArm, announced, computed);
    if (device.startUpdate(kArm) != 0) {
        return announced == computed ? "not started" : "fails its check";
    }
    return device.finishInstallation() ? "installed" : "not taken";
}

TEST(SimulatedDevice, InstallsOnlyWholeFirmwareForItsOwnProcessor) {
    const Bytes good = orvin_image::generateContent(kArm, 7, 137);
    EXPECT_EQ(upgradeWith(good, {2, 1, 0, 2}), "installed");
    EXPECT_EQ(upgradeWith(good, {0, 1}), "fails its check");
    EXPECT_EQ(upgradeWith(good, {1, 2}), "fails its check");
    EXPECT_EQ(upgradeWith(orvin_image::generateContent(kDsp, 7, 64), {0}), "not taken");
    // The checksum starts at 0xffff: two leading bytes of 0xff make it 0, and zeros keep it at 0.
    Bytes zeros(137);
    zeros[0] = zeros[1] = 0xff;
    EXPECT_EQ(upgradeWith(zeros, {0, 1, 2}), "not taken");
    EXPECT_EQ(upgradeWith(zeros, {0, 2}), "fails its check");
}

std::string reasonOf(const std::string& text) {
    try {
        sim::describeBus(sim::parseBusFile(text));
    } catch (const sim::BusFileError& error) {
        return error.what();
    }
    return "";
}

std::string busWithOrvin(const std::string& fields) {
    return R"({"members": [{"id": ")" + orvinText(1) + R"(", "type": 64, "versions": {})" + fields +
           "}]}";
}

// 1 MiB has 16,384 packets. The devices answer in turn, or all at once and in any order, on several
// threads. The lines are taken five times a second.
TEST(RecordingLines, OfAMebibyteTo63DevicesFitTenMegabytes) {
    constexpr std::uint32_t kPackets = 256;
    constexpr std::size_t kMost = std::size_t{10'000'000} / 16'384 * kPackets;
    for (const int apart : {1, 150, 1'100}) {
        recording::Lines lines;
        std::size_t size = 0;
        sim::Microseconds now = 1'000'000'000;
        for (std::uint32_t packet = 16'000; packet < 16'000 + kPackets; ++packet) {
            talm::Call data(sim::Function::Data, broadcastVanid, {packet});
            data.content.assign(sim::kPacketBytes, 'x');
            lines.add({now, 100, 1}, data);
            for (std::uint32_t i = 0; i < 63; ++i) {
                const auto device = static_cast<int>(apart == 1 ? i * packet % 63 : i);
                now += apart;
                lines.addAcknowledgement({now, 0, 2 + packet * i % 3}, orvinId(device), packet);
                size += now % 200'000 < apart ? lines.take(false).size() : 0;
            }
        }
        size += lines.take(true).size();
        EXPECT_LT(size, kMost) << apart;
    }
}

// The bus file reader accepts each example in the tables, and each fault has an example.
TEST(BusFile, UnderstandsTheExamplesOfItsDocument) {
    std::set<std::string> faults;
    std::istringstream document(readText(DOCUMENT));
    for (std::string line; std::getline(document, line);) {
        if (line.rfind("| `{", 0) == 0) {
            const std::string example = line.substr(3, line.find("` |") - 3);
            faults.insert(Json::parse(example).items().begin().key());
            EXPECT_TRUE(reasonOf(busWithOrvin(R"(, "faults": )" + example)).empty() ||
                        reasonOf(R"({"members": [], "faults": )" + example + "}").empty())
                << line;
        }
    }
    EXPECT_EQ(faults.size(), 24U);
}

}  // namespace
