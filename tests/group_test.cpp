#include "group/orvin_group.h"

#include "bus/vanid_text.h"
#include "core/bus_session.h"
#include "core/error_info.h"
#include "core/exit_status.h"
#include "image/firmware_image.h"
#include "status/message_writer.h"
#include "support/tool_run.h"

namespace {

vanid_t vanid(int number) {
    vanid_t id{};
    parseVanid(id, orvinId(number));
    return id;
}

class Group : public ToolTest {
protected:
    Group() { MessageWriter::init(""); }

    std::list<std::string> texts() {
        std::list<std::string> out;
        group.getVanidTexts(out);
        return out;
    }

    void setRestartPending(const std::string& vanidText) {
        group.lockList();
        group.setRestartPending(vanidText, true);
        group.unlockList();
    }

    // Up to the send, which fails without a bus.
    void putPacketInFlight() {
        ErrorInfo error;
        FirmwareImage image(&error);
        ASSERT_TRUE(image.open(this->image("arm", kArm)));
        captureOutput([&] { EXPECT_EQ(group.transferData(image), exit_status::kSendFailed); });
    }

    BusSession nowhere;
    OrvinGroup group{&nowhere, false};
};

TEST_F(Group, RestoresEveryDeviceInTheOrderOfAdding) {
    EXPECT_TRUE(group.allAcknowledged() && group.allRejoined() && group.allOnline());
    for (const int number : {3, 1, 2, 1}) {
        group.addOrvin(orvinId(number));
    }
    const auto all = texts();
    EXPECT_EQ(group.count(), 4);

    group.onTransferResult(0, vanid(3), 0);
    EXPECT_EQ(captureOutput([&] { group.removeUnacknowledged(); }),
              "\nRemoving Orvin " + orvinId(1) + " due to timeout\n\nRemoving Orvin " + orvinId(2) +
                  " due to timeout\n\nRemoving Orvin " + orvinId(1) + " due to timeout\n");
    EXPECT_EQ(texts(), (std::list<std::string>{orvinId(3)}));
    EXPECT_TRUE(group.allAcknowledged());

    group.restoreFromFullList();
    EXPECT_EQ(texts(), all);
    EXPECT_FALSE(group.allAcknowledged());
    EXPECT_EQ(captureOutput([&] { group.onTransferResult(0, vanid(1), 0); }), "");
    group.onTransferResult(0, vanid(2), 0);
    EXPECT_TRUE(group.allAcknowledged());  // both records of device 1, and 3 with the flag it had
    group.clearAcknowledged();
    EXPECT_FALSE(group.allAcknowledged());
}

TEST_F(Group, CountsAnAcknowledgementForEveryRecordOfItsDeviceAndNoOther) {
    for (const int number : {1, 2, 1}) {
        group.addOrvin(orvinId(number));
    }
    const auto acknowledgedBy = [&](std::initializer_list<int> numbers) {
        putPacketInFlight();
        for (const int number : numbers) {
            group.onTransferResult(0, vanid(number), 0);
        }
        return group.allAcknowledged();
    };
    EXPECT_FALSE(acknowledgedBy({1, 3}));
    EXPECT_FALSE(acknowledgedBy({2}));
    EXPECT_TRUE(acknowledgedBy({2, 1}));
    group.addOrvin(orvinId(2));
    EXPECT_TRUE(acknowledgedBy({2, 1}));

    putPacketInFlight();
    captureOutput([&] { group.onTransferResult(9, vanid(1), 0); });
    group.onTransferResult(0, vanid(1), 0);
    group.onTransferResult(0, vanid(2), 0);
    EXPECT_TRUE(group.allAcknowledged());
    group.restoreFromFullList();
    EXPECT_FALSE(group.allAcknowledged()) << "a device that was dropped acknowledges nothing";
}

TEST_F(Group, CountsAnAcknowledgementForARecordThatCameBack) {
    group.addOrvin(orvinId(1));
    putPacketInFlight();
    group.onTransferResult(0, vanid(1), 0);
    group.addOrvin(orvinId(1));
    captureOutput([&] { group.removeUnacknowledged(); });
    EXPECT_EQ(group.count(), 1);
    putPacketInFlight();
    group.restoreFromFullList();
    putPacketInFlight();
    group.onTransferResult(0, vanid(1), 0);
    EXPECT_TRUE(group.allAcknowledged());
}

TEST_F(Group, WaitsForTheDevicesThatRestartAndNoOthers) {
    group.addOrvin(orvinId(1));
    group.addOrvin(orvinId(2));
    EXPECT_TRUE(group.allRejoined());
    setRestartPending(orvinId(1).substr(0, 49));  // nobody's identifier
    EXPECT_TRUE(group.allRejoined());
    setRestartPending(orvinId(1));
    group.markRejoined(vanid(2));
    EXPECT_FALSE(group.allRejoined());
    group.markRejoined(vanid(1));
    EXPECT_TRUE(group.allRejoined());

    setRestartPending(orvinId(2));
    group.resetRejoinState();
    EXPECT_TRUE(group.allRejoined());
    setRestartPending(orvinId(1));
    EXPECT_FALSE(group.allRejoined());
    captureOutput([&] { group.onTransferResult(9, vanid(1), 0); });
    group.restoreFromFullList();
    EXPECT_TRUE(group.allRejoined()) << "a dropped device is not waited for";
}

}  // namespace
