// Tests that need no whole run: concurrent callbacks, records that a bus never produces, an
// identifier library other than the simulated one, and units with their own contract.

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <stdexcept>

#include "bus/vanid_text.h"
#include "core/bus_session.h"
#include "core/error_info.h"
#include "core/run_config.h"
#include "core/transfer_result.h"
#include "group/orvin_group.h"
#include "image/firmware_image.h"
#include "sim/library/bus_opener.h"
#include "status/format_message.h"
#include "status/message_writer.h"
#include "support/tool_run.h"
#include "transfer/transfer_primitives.h"
#include "transfer/upgrade_image.h"

namespace {

std::size_t firstByteThatCounts = 0;

}  // namespace

// Replaces vanid_equal in this program.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __wrap_vanid_equal(const vanid_t* a, const vanid_t* b) {
    const std::size_t first = firstByteThatCounts;
    return std::equal(a->bytes + first, std::end(a->bytes), b->bytes + first) ? 1 : 0;
}

namespace {

// A group on a bus with device 1, which has old firmware.
class Group : public testing::Test {
protected:
    Group() {
        memory.files = standardImages();
        sim::VirtualTime::reset();
        MessageWriter::init("");
        sim::busOpener() = [](const std::string&) {
            sim::BusDescription bus;
            bus.members = {orvin(1)};
            return std::make_shared<sim::Bus>(bus);
        };
        session.handle = TalmApiInitialize();
        session.open = TalmApiOpen(session.handle, "sim:", 0) == 0;
    }
    ~Group() override {
        TalmApiClose(session.handle);
        delete MessageWriter::instance();
        firstByteThatCounts = 0;
    }

    void add(std::initializer_list<int> numbers) {
        for (const int number : numbers) {
            group.addOrvin(orvinText(number));
        }
    }

    bool allAcknowledge(std::initializer_list<int> numbers) {
        group.startPackets();
        EXPECT_TRUE(group.takePacket(0));
        for (const int number : numbers) {
            group.onTransferResult(0, orvinId(number), 0);
        }
        return group.allAcknowledged();
    }

    void expectRestart(const std::string& vanidText = orvinText(1)) {
        group.lockList();
        group.setRestartPending(vanidText, true);
        group.unlockList();
    }

    void goBack(int requests) {
        for (int request = 0; request < requests; ++request) {
            static_cast<void>(group.takePacket(0));  // it may already be taken
            group.onTransferResult(17, orvinId(1), 0);
        }
    }

    void checkVersions(const char* imageFile) {
        ErrorInfo error;
        FirmwareImage image(&error);
        ASSERT_TRUE(image.open(imageFile));
        group.checkVersions(image, upToDate, OrvinGroup::kRemoveUnreachable, OrvinGroup::kVerbose);
    }

    MemorySystem& memory = MemorySystem::instance() = {};
    BusSession session;
    std::list<std::string> upToDate;
    OrvinGroup group{&session, false};
};

TEST_F(Group, CountsAnAcknowledgementForEveryRecordOfItsDeviceAndNoOther) {
    add({1, 2, 1});
    EXPECT_FALSE(allAcknowledge({1, 3}));
    EXPECT_FALSE(allAcknowledge({2}));
    EXPECT_TRUE(allAcknowledge({2, 1}));
    add({2});
    EXPECT_FALSE(group.allAcknowledged());
    EXPECT_TRUE(allAcknowledge({2, 1}));
    captureOutput([&] { group.onTransferResult(9, orvinId(1), 0); });
    EXPECT_TRUE(allAcknowledge({2}));
    group.restoreFromFullList();
    EXPECT_FALSE(allAcknowledge({2})) << "the look-up is for the list as it is now";
    group.addOrvin("99" + orvinText(1).substr(2));
    EXPECT_FALSE(allAcknowledge({2, 1})) << "every byte of an identifier counts";
}

TEST_F(Group, LeavesItToTheLibraryWhichIdentifiersAreEqual) {
    firstByteThatCounts = 1;
    add({1});
    group.addOrvin("99" + orvinText(1).substr(2));
    vanid_t source{};
    for (const char* firstByte : {"00", "99", "55"}) {
        EXPECT_FALSE(allAcknowledge({}));
        parseVanid(source, firstByte + orvinText(1).substr(2));
        group.onTransferResult(0, source, 0);
        EXPECT_TRUE(group.allAcknowledged()) << firstByte;
    }
}

TEST_F(Group, DoesNotWaitForADeviceThatItRemoved) {
    const std::pair<const char*, std::function<void()>> removals[] = {
        {"due to timeout", [&] { group.removeUnacknowledged(); }},
        {"due to faulty callback", [&] { group.onTransferResult(9, orvinId(1), 0); }},
        {"due to endless go back", [&] { goBack(1000); }},
        {" is already up to date.\n", [&] { checkVersions("mem:old"); }},
        {" is another type.\n", [&] { checkVersions("mem:unknown"); }},
        {"because getVersion failed",
         [&] {
             TalmApiClose(session.handle);
             checkVersions("mem:arm");
         }},
    };
    add({1});
    for (const auto& [line, remove] : removals) {
        expectRestart();
        EXPECT_FALSE(group.allRejoined());
        EXPECT_NE(captureOutput(remove).find(line), std::string::npos) << line;
        EXPECT_EQ(group.count(), 0);
        group.restoreFromFullList();
        EXPECT_TRUE(group.allRejoined()) << line;
    }
    EXPECT_EQ(upToDate, std::list<std::string>{orvinText(1)}) << "only with the same version";
}

TEST_F(Group, ForgivesRequestsToGoBackWithEachPacketOfEachTransfer) {
    add({1});
    for (int transfer = 0; transfer < 2; ++transfer) {
        group.startPackets();
        goBack(999);
        EXPECT_TRUE(group.takePacket(0));
        group.markPacketAcknowledged();
        goBack(1);
        EXPECT_EQ(group.count(), 1) << transfer;
    }
}

TEST_F(Group, TakesAReportForTheFirstRecordOfADevice) {
    add({2, 1, 1});
    expectRestart(orvinText(1).substr(1));
    EXPECT_TRUE(group.allRejoined()) << "only the whole text is a device's";
    expectRestart();
    group.markRejoined(orvinId(2));
    group.markRejoined(orvinId(3));
    EXPECT_FALSE(group.allRejoined());
    group.markRejoined(orvinId(1));
    EXPECT_TRUE(group.allRejoined());
}

TEST_F(Group, WithoutDevicesWaitsForNone) {
    captureOutput([&] { EXPECT_TRUE(group.waitForRejoin()); });
    EXPECT_EQ(sim::VirtualTime::time, 0);
}

TEST_F(Group, TakesTheLibrarysAnswerToARequestToAllForSuccess) {
    EXPECT_TRUE(startUpdate(session, broadcastVanid, kArm));
    EXPECT_FALSE(startUpdate(session, orvinId(1), kArm));
}

TEST(FirmwareImage, StandsAtItsFirstContentByteAndTellsWhyItIsRefused) {
    MemorySystem& system = MemorySystem::instance() = {};
    system.files = standardImages();
    ErrorInfo error;
    FirmwareImage image(&error);
    char byte = 0;
    ASSERT_TRUE(image.open("mem:small-header"));
    EXPECT_EQ(image.read(&byte, 1), 1);
    EXPECT_EQ(byte, system.files["mem:small-header"][image.getHeader().headerSize]);
    system.errors["read #" + std::to_string(system.calls["read"] + 1)] = EIO;
    EXPECT_EQ(image.read(&byte, 1), -1);
    EXPECT_EQ(error.code, transfer_result::kImageReadFailed);
    image.close();
    EXPECT_EQ(error.message, "File not open");
    // From two gibibytes on. Truncated to 32 bits, the last length would fit the header.
    constexpr std::int64_t kLimit = (std::int64_t{1} << 31) - 36;
    for (const std::int64_t content : {kLimit - 1, kLimit, 2 * kLimit + 100}) {
        const auto inHeader = static_cast<std::uint32_t>(content);
        system.files["mem:empty"].replace(20, 4, reinterpret_cast<const char*>(&inHeader), 4);
        system.missing = content;
        EXPECT_EQ(image.open("mem:empty"), content < kLimit) << content;
    }
}

std::string thrownBy(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

TEST(MessageWriter, IsOneForTheProcess) {
    MemorySystem& system = MemorySystem::instance() = {};
    EXPECT_EQ(thrownBy([] { MessageWriter::instance(); }), "MessageWriter class not initialized");
    system.errors["init 1 #1"] = ENOMEM;
    EXPECT_EQ(thrownBy([] { MessageWriter::init(""); }), "could not initialize message mutex!");
    MessageWriter* const writer = MessageWriter::init(MemorySystem::kStatusFile);
    EXPECT_EQ(MessageWriter::init("mem:other"), writer);
    writer->write(formatMessage("%s%c%s", "before", '\0', "after"));
    writer->write("");
    const wchar_t noCharacter[] = {0x7fffffff, 0};
    EXPECT_EQ(formatMessage("%ls", noCharacter), "autosprintf/vasprintf error");
    EXPECT_EQ(system.messages, (std::vector<std::string>{"before", ""}));
    delete writer;
}

std::string summaryOf(std::time_t elapsed) {
    constexpr std::time_t kEnd = std::numeric_limits<std::int32_t>::max() - 61;
    OrvinGroup group(nullptr, false);
    std::list<std::string> updated;
    return captureOutput([&] { printSummary(group, kEnd - elapsed, kEnd, updated); });
}

TEST(Summary, TellsMinutesAndSeconds) {
    EXPECT_EQ(summaryOf(61), "Update took 1 min 01 second\n");
    EXPECT_EQ(summaryOf(6005), "Update took 100 min 05 seconds\n");
    EXPECT_EQ(summaryOf(-61), "Update took 4294967295 min 4294967295 seconds\n");
}

TEST(HexDump, HasEightBytesARow) {
    const std::uint8_t bytes[] = {0, 1, 2, 3, 4, 5, 6, 7, 0xab};
    EXPECT_EQ(captureOutput([&] { dumpHex(bytes, sizeof bytes); }),
              "01: 00 01 02 03 04 05 06 07 \n02: ab \n");
}

}  // namespace
