// The simulated bus as shipped: callbacks on its own threads, in real time at its smallest delays.
// These tests mainly serve the thread sanitizer.

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "app/run.h"
#include "core/run_config.h"
#include "orvin-image/image_file.h"
#include "recording/recording.h"
#include "sim/library/bus_opener.h"
#include "support/files.h"

namespace {

constexpr std::uint8_t kDevices = 15;
constexpr std::uint32_t kDsp = 0x201;

// Three devices: one asks to go back, one reports a fault, one acknowledges twice.
std::shared_ptr<sim::Bus> makeBus() {
    using Kind = sim::PacketFault::Kind;
    constexpr Kind kinds[] = {Kind::GoBack, Kind::Result, Kind::Twice};
    sim::BusDescription bus;
    for (std::uint8_t device = 1; device <= kDevices; ++device) {
        sim::MemberDescription member;
        member.id.bytes[0] = device;
        member.type = kOrvinType;
        member.timing = {0, 0, 0, 0, 1'000, 1'000};
        member.faults.packets = {sim::PacketFault::next(kinds[device % 3], device)};
        member.faults.packets[0].number = 2 * device;
        bus.members.push_back(member);
    }
    return std::make_shared<sim::Bus>(bus);
}

// Records each call, clears no callback, and makes callbacks until the process ends: first
// acknowledgements, and after the end of the session faults, to which the tool would react.
class Stubborn : public sim::Interceptor {
public:
    Stubborn(std::shared_ptr<sim::Bus> itsBus, const std::string& path)
        : bus(std::move(itsBus)), recording(path, "") {
        for (int thread = 0; thread < 3; ++thread) {
            std::thread([this] { report(); }).detach();
        }
    }

    std::optional<sim::InjectedResult> before(const sim::Call& call) override {
        recording.append({0, 0, recording::threadNumber()}, call);
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
            std::this_thread::sleep_for(std::chrono::microseconds(10));  // or the tool starves
        }
    }

    const std::shared_ptr<sim::Bus> bus;
    recording::Recording recording;
    std::atomic<std::int32_t> result{0};
    std::atomic<int> reports{0};
};

TEST(Threads, UpgradeAllDevicesAndFindNoGroupOnceTheModeHasEnded) {
    const TemporaryDirectory directory;
    const orvin_image::Bytes content = orvin_image::generateContent(kDsp, 7, 64 * 40 + 1);
    const orvin_image::Bytes file = orvin_image::encodeImage({0, 0, kDsp, 0, 0, 0, 7}, content);
    std::string image = directory / "image";
    writeText(image, {file.begin(), file.end()});
    const auto bus = makeBus();
    sim::busOpener() = [&](const std::string&) { return std::shared_ptr<sim::Bus>(bus); };
    auto& library = *new Stubborn(bus, directory / "recording");  // lives as long as its threads
    sim::interceptors().push_back(&library);
    RunConfig config;
    char all[] = "-B";
    char connection[] = "-csim:";
    char* argv[] = {all, all, connection, image.data(), nullptr};
    testing::internal::CaptureStdout();
    EXPECT_EQ(run(config, 4, argv), kDevices);
    library.waitForReports();
    const std::string console = testing::internal::GetCapturedStdout();
    EXPECT_EQ(console.substr(console.rfind("back online")), "back online... done.\n");
    vanid_t id{};
    for (id.bytes[0] = 1; id.bytes[0] <= kDevices; ++id.bytes[0]) {
        EXPECT_EQ(bus->findDevice(id)->content(), content);
    }
}

TEST(RealTimeQueue, RunsNothingBeforeItsTimeAndAnEventWhileAnotherOneWaits) {
    std::promise<sim::Microseconds> ran;
    std::promise<bool> waited;
    const std::shared_future<sim::Microseconds> time = ran.get_future();
    const auto queue = sim::makeEventQueue();
    const sim::Microseconds when = queue->now() + 3'000;
    queue->schedule(0, [&] {
        constexpr std::chrono::seconds kLimit{60};
        waited.set_value(time.wait_for(kLimit) == std::future_status::ready);
    });
    queue->schedule(when, [&] { ran.set_value(queue->now()); });
    EXPECT_TRUE(waited.get_future().get());
    EXPECT_GE(time.get(), when);  // as no acknowledgement may come before its time in the bus file
}

}  // namespace
