// The simulated bus as it is shipped: callbacks on threads of its own, in real time at its smallest
// delays. What these tests look for above all is what the thread sanitizer finds.

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "app/run.h"
#include "bus/vanid_text.h"
#include "core/bus_session.h"
#include "core/error_info.h"
#include "core/run_config.h"
#include "group/orvin_group.h"
#include "image/firmware_image.h"
#include "orvin-image/image_file.h"
#include "sim/library/bus_opener.h"
#include "status/message_writer.h"
#include "support/files.h"
#include "transfer/transfer_session.h"

namespace {

constexpr int kDevices = 63;

sim::MemberDescription makeOrvin(std::uint32_t number) {
    sim::MemberDescription orvin;
    orvin.id.bytes[0] = static_cast<std::uint8_t>(number);
    orvin.type = kOrvinType;
    orvin.timing = {0, 0, 0, 0, 1'000, 1'000};
    return orvin;
}

std::shared_ptr<sim::Bus> makeBus(const std::string& trace) {
    using Kind = sim::PacketFault::Kind;
    constexpr Kind kinds[] = {Kind::GoBack, Kind::Result, Kind::Twice};
    sim::BusDescription bus;
    bus.trace = trace;
    for (std::uint32_t device = 1; device <= kDevices; ++device) {
        sim::MemberDescription member = makeOrvin(device);
        member.faults.packets = {sim::PacketFault::next(kinds[device % 3], device)};
        member.faults.packets[0].number = 2 * device;
        bus.members.push_back(member);
    }
    return std::make_shared<sim::Bus>(bus);
}

void writeImage(const std::string& path, std::uint32_t target, const orvin_image::Bytes& content) {
    const orvin_image::Bytes file = orvin_image::encodeImage({0, 0, target, 0, 0, 0, 7}, content);
    writeText(path, {file.begin(), file.end()});
}

TEST(Threads, ReportAllAtOnceOfATransferTo63Devices) {
    const TemporaryDirectory directory;
    const orvin_image::Bytes content = orvin_image::generateContent(0x200, 7, 64 * 150 + 1);
    writeImage(directory / "image", 0x200, content);
    ErrorInfo error;
    FirmwareImage image(&error);
    ASSERT_TRUE(image.open(directory / "image"));
    auto bus = makeBus(directory / "trace");
    sim::busOpener() = [&](const std::string&) { return bus; };
    BusSession session{true, TalmApiInitialize(), nullptr};
    ASSERT_EQ(TalmApiOpen(session.handle, "sim:", 0), 0);
    MessageWriter::init("");

    OrvinGroup group(&session, false);
    vanid_t id{};
    for (id.bytes[0] = 1; id.bytes[0] <= kDevices; ++id.bytes[0]) {
        group.addOrvin(formatVanid(id));
    }
    EXPECT_TRUE(transferFirmware(group, image));
    EXPECT_EQ(group.count(), kDevices * 2 / 3) << "all but those that report a fault";
    for (int polls = 0; !group.allRejoined() && polls < 60'000; ++polls) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(group.allRejoined());
    group.clearBusChangeCallback();
    TalmApiClose(session.handle);
    id.bytes[0] = 3;
    EXPECT_EQ(bus->findDevice(id)->content(), content);
}

// Clears no callback, and makes reports until the process ends: acknowledgements at first, and from
// the end of the session on, faults, on which the tool would act.
class Stubborn : public sim::Interceptor {
public:
    explicit Stubborn(std::shared_ptr<sim::Bus> itsBus) : bus(std::move(itsBus)) {
        for (int thread = 0; thread < 3; ++thread) {
            std::thread([this] { report(); }).detach();
        }
    }

    std::optional<sim::InjectedResult> before(const sim::Call& call) override {
        if (call.function == sim::Function::Cleanup) {
            result = 9;
            waitForReports();
        }
        const bool clears = call.text == talm::slotText(false);
        return clears ? std::optional(sim::InjectedResult{-1}) : std::nullopt;
    }

    void waitForReports() const {
        const int before = reports;
        while (reports - before < 10'000) {
            std::this_thread::yield();
        }
    }

private:
    void report() {
        for (;; ++reports) {
            bus->reportTransferResult({{1}}, {0, result, 0});
            bus->reportBusChange({{1}}, 0);
            std::this_thread::yield();
        }
    }

    const std::shared_ptr<sim::Bus> bus;
    std::atomic<std::int32_t> result{0};
    std::atomic<int> reports{0};
};

TEST(Threads, FindNoGroupOnceTheModeHasEnded) {
    const TemporaryDirectory directory;
    std::string image = directory / "image";
    writeImage(image, 0x201, orvin_image::generateContent(0x201, 7, sim::kPacketBytes * 20));
    sim::BusDescription description;
    description.members = {makeOrvin(1)};
    auto bus = std::make_shared<sim::Bus>(description);
    sim::busOpener() = [&](const std::string&) { return bus; };
    auto& library = *new Stubborn(bus);  // as long as its threads
    sim::interceptors().push_back(&library);
    RunConfig config;
    char all[] = "-B";
    char connection[] = "-csim:";
    char* argv[] = {all, all, connection, image.data(), nullptr};
    testing::internal::CaptureStdout();
    EXPECT_EQ(run(config, 4, argv), 1);
    library.waitForReports();
    const std::string console = testing::internal::GetCapturedStdout();
    EXPECT_EQ(console.substr(console.rfind("back online")), "back online... done.\n");
}

// An acknowledgement must not come earlier than the bus file says.
TEST(RealTimeQueue, RunsNothingBeforeItsTime) {
    std::promise<sim::Microseconds> ran;
    const auto queue = sim::makeEventQueue();
    const sim::Microseconds when = queue->now() + 3'000;
    queue->schedule(when, [&] { ran.set_value(queue->now()); });
    EXPECT_GE(ran.get_future().get(), when);
}

TEST(RealTimeQueue, RunsAnEventWhileAnotherOneWaits) {
    std::promise<void> other;
    std::promise<bool> ran;
    const auto queue = sim::makeEventQueue();
    queue->schedule(0, [&] {
        constexpr std::chrono::seconds kLimit{60};
        ran.set_value(other.get_future().wait_for(kLimit) == std::future_status::ready);
    });
    queue->schedule(1, [&] { other.set_value(); });
    EXPECT_TRUE(ran.get_future().get());
}

}  // namespace
