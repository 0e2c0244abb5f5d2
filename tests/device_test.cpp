// The simulated devices keep the tests honest, so they are tested themselves.

#include "sim/device.h"

#include <gtest/gtest.h>

#include "firmware/checksum.h"
#include "orvin-image/image_file.h"
#include "support/bus_builder.h"

namespace {

using orvin_image::Bytes;

class SimulatedDevice : public testing::Test {
protected:
    SimulatedDevice() { description.type = sim::kOrvinType; }

    // Sends the packets of the content in this order and has the device check what it has.
    bool passesCheck(sim::Device& device, const Bytes& content,
                     const std::vector<std::uint32_t>& packets) {
        firmware::Checksum checksum;
        checksum.add(content.data(), content.size());
        EXPECT_EQ(
            device.writeRequest(kArm, static_cast<std::uint32_t>(content.size()), checksum.value()),
            0);
        for (const std::uint32_t packet : packets) {
            const std::size_t start = std::size_t{packet} * 64;
            Bytes bytes(64);
            std::copy_n(&content[start], std::min<std::size_t>(64, content.size() - start),
                        bytes.begin());
            EXPECT_TRUE(device.receive(packet, bytes.data()));
        }
        std::uint16_t announced = 0;
        std::uint16_t computed = 0;
        EXPECT_EQ(device.checkImage(kArm, announced, computed), 0);
        return announced == computed;
    }

    sim::MemberDescription description;
};

TEST_F(SimulatedDevice, PassesItsCheckOnlyWithEveryByte) {
    const Bytes content = orvin_image::generateContent(kArm, kNewVersion, 197);
    const struct {
        std::vector<std::uint32_t> packets;
        bool passes;
    } cases[] = {{{0, 1, 2, 3}, true}, {{3, 1, 0, 2}, true}, {{0, 1, 1, 2, 3, 0}, true},
                 {{1, 2, 3}, false},   {{0, 2, 3}, false},   {{0, 1, 2}, false},
                 {{}, false}};
    for (const auto& example : cases) {
        sim::Device device(description);
        EXPECT_EQ(passesCheck(device, content, example.packets), example.passes)
            << testing::PrintToString(example.packets);
        EXPECT_EQ(device.startUpdate(kArm) == 0, example.passes);
    }
}

TEST_F(SimulatedDevice, FailsItsCheckWhenAMissingPacketWouldNotChangeTheSum) {
    // The sum starts at 0xffff: two bytes of 0xff in front make it 0, and zeros keep it there.
    Bytes content(192);
    content[0] = content[1] = 0xff;
    sim::Device device(description);
    EXPECT_TRUE(passesCheck(device, content, {0, 1, 2}));
    EXPECT_FALSE(passesCheck(device, content, {0, 2}));
}

TEST_F(SimulatedDevice, ForgetsThatItPassedItsCheckWhenItGoesBack) {
    sim::Device device(description);
    ASSERT_TRUE(passesCheck(device, orvin_image::generateContent(kArm, 7, 128), {0, 1}));
    device.discardFrom(1);
    EXPECT_NE(device.startUpdate(kArm), 0);
}

TEST_F(SimulatedDevice, LearnsAVersionOnlyFromFirmwareForItsOwnProcessor) {
    const struct {
        Bytes content;
        std::uint32_t version;
    } cases[] = {{orvin_image::generateContent(kArm, 7, 100), 7},
                 {orvin_image::generateContent(kDsp, 7, 100), 1},
                 {orvin_image::generateContent(kArm, 7, 11), 1},
                 {Bytes(100), 1}};
    for (const auto& example : cases) {
        sim::Device device(description);
        ASSERT_TRUE(passesCheck(device, example.content,
                                example.content.size() > 64 ? std::vector<std::uint32_t>{0, 1}
                                                            : std::vector<std::uint32_t>{0}));
        ASSERT_EQ(device.startUpdate(kArm), 0);
        device.finishInstallation();
        EXPECT_FALSE(device.isOnBus());
        EXPECT_TRUE(device.comeBack());
        EXPECT_EQ(device.versions().arm, example.version);
    }
}

TEST_F(SimulatedDevice, TakesNothingOutOfTurn) {
    sim::Device device(description);
    const Bytes packet(64);
    std::uint16_t sum = 0;
    EXPECT_FALSE(device.receive(0, packet.data()));
    EXPECT_EQ(device.checkImage(kArm, sum, sum), sim::result::kRefused);
    EXPECT_EQ(device.startUpdate(kArm), sim::result::kRefused);
    EXPECT_EQ(device.writeRequest(0x203, 64, 0), sim::result::kRefused);
    ASSERT_EQ(device.writeRequest(kArm, 64, 0), 0);
    EXPECT_EQ(device.startUpdate(kArm), sim::result::kRefused);
    const auto beyond = device.receive(1, packet.data());
    ASSERT_TRUE(beyond);
    EXPECT_NE(beyond->result, 0);
}

}  // namespace
