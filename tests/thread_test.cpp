// The simulated bus as it is shipped: callbacks on threads of its own, in real time at its smallest
// delays. What these tests look for above all is what the thread sanitizer finds.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "bus/vanid_text.h"
#include "core/bus_session.h"
#include "core/error_info.h"
#include "group/orvin_group.h"
#include "image/firmware_image.h"
#include "sim/event_queue.h"
#include "status/message_writer.h"
#include "support/bus_builder.h"
#include "support/files.h"
#include "transfer/transfer_session.h"

namespace {

const Json kAtOnce = {{"acknowledge_us", 0}, {"install_ms", 1}, {"restart_ms", 1}};

class Threads : public testing::Test {
protected:
    Threads() { MessageWriter::init(""); }
    ~Threads() override {
        close();
        delete MessageWriter::instance();
    }

    // Ends the callbacks, so that what they use may go.
    void close() {
        TalmApiCleanup(session.handle);
        TalmApiClose(session.handle);
        session.handle = nullptr;
    }

    void open(const BusBuilder& bus) {
        writeText(directory / "bus.json", bus.text());
        session.handle = TalmApiInitialize();
        ASSERT_EQ(TalmApiOpen(session.handle, ("sim:" + directory / "bus.json").c_str(), 0), 0);
        session.open = true;
    }

    bool transfer(OrvinGroup& group, std::size_t contentSize) {
        const std::string path = directory / "image";
        writeFile(path, makeImage(kArm, kNewVersion, contentSize));
        ErrorInfo error;
        FirmwareImage image(&error);
        EXPECT_TRUE(image.open(path));
        return transferFirmware(group, image);
    }

    TemporaryDirectory directory;
    BusSession session;
};

TEST_F(Threads, TransferTo63DevicesThatAllReportAtOnce) {
    BusBuilder bus;
    for (int number = 1; number <= 63; ++number) {
        Json faults = nullptr;
        if (number % 9 == 0) {
            faults = {{"fault_result", {{{"at", number}, {"result", number}}}}};
        } else if (number % 7 == 0) {
            faults = {{"go_back", {{{"at", 2 * number}, {"to", number}}}}};
        } else if (number % 2 == 0) {
            faults = {{"acknowledges_twice", {{"every", 3}}}};
        }
        bus.orvin(number, faults, kAtOnce);
    }
    bus.with("store", "store");
    open(bus);

    OrvinGroup group(&session, false);
    for (int number = 1; number <= 63; ++number) {
        group.addOrvin(orvinId(number));
    }
    ASSERT_TRUE(transfer(group, 64 * 150 + 1));
    EXPECT_EQ(group.count(), 63 - 7) << "all but those that reported a fault";
    for (int polls = 0; !group.allRejoined() && polls < 60'000; ++polls) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(group.allRejoined());
    group.clearBusChangeCallback();
    close();
    const std::string content = readText(directory / "image").substr(36);
    EXPECT_EQ(readText(directory / ("store/" + orvinId(1) + ".arm")), content);
    EXPECT_EQ(readText(directory / ("store/" + orvinId(7) + ".arm")), content);
}

// The queue wakes early, which must not make an answer earlier than the bus file says.
TEST(RealTimeQueue, RunsAllThatIsScheduledAndNothingBeforeItsTime) {
    constexpr int kEvents = 40;
    std::mutex mutex;
    std::condition_variable changed;
    int count = 0;
    int early = 0;
    const auto queue = sim::makeEventQueue();
    std::vector<sim::TimedEvent> events;
    const sim::Microseconds start = queue->now();
    for (int number = 1; number <= kEvents; ++number) {
        const sim::Microseconds when = start + sim::Microseconds{70} * number;
        events.push_back({when, [&, when] {
                              const bool isEarly = queue->now() < when;
                              const std::lock_guard<std::mutex> lock(mutex);
                              early += isEarly ? 1 : 0;
                              ++count;
                              changed.notify_all();
                          }});
    }
    queue->schedule(std::move(events));
    {
        std::unique_lock<std::mutex> lock(mutex);
        EXPECT_TRUE(
            changed.wait_for(lock, std::chrono::seconds(60), [&] { return count == kEvents; }));
    }
    queue->stop();
    EXPECT_EQ(early, 0);
}

// Meets on the callers' threads: a report waits until another one is there at the same time.
struct Reports {
    std::mutex mutex;
    std::condition_variable changed;
    std::set<std::thread::id> threads;
    int count = 0;
};

void meetAnotherReport(std::int32_t, void* reports, vanid_t, vanid_t, std::uint32_t,
                       std::uint32_t) {
    auto& seen = *static_cast<Reports*>(reports);
    std::unique_lock<std::mutex> lock(seen.mutex);
    seen.threads.insert(std::this_thread::get_id());
    ++seen.count;
    seen.changed.notify_all();
    seen.changed.wait_for(lock, std::chrono::seconds(10), [&] { return seen.threads.size() > 1; });
}

TEST_F(Threads, ReportsComeSeveralAtOnceAndNeverOnTheCallersThread) {
    constexpr int kDevices = 20;
    BusBuilder bus;
    for (int number = 1; number <= kDevices; ++number) {
        bus.orvin(number, nullptr, kAtOnce);
    }
    open(bus);
    Reports reports;
    const TransferCallback callback = meetAnotherReport;
    const CallbackSlot slot{reinterpret_cast<void (*)()>(callback), &reports};
    TalmApiSetCallback(session.handle, 2, 255, 2, &slot, 0);
    vanid_t id{};
    for (int number = 1; number <= kDevices; ++number) {
        parseVanid(id, orvinId(number));
        ASSERT_EQ(ImageTransfer_write_request(session.handle, id, 0, kArm, 0, 64 * 50, 0), 0);
    }
    std::uint32_t ignored = 0;
    const std::uint8_t packet[64] = {};
    for (std::uint32_t number = 0; number < 50; ++number) {
        vanid_t everybody;
        std::fill_n(everybody.bytes, sizeof everybody.bytes, std::uint8_t{0xff});
        ASSERT_EQ(ImageTransfer_data(session.handle, everybody, number, packet, &ignored, &ignored),
                  -2);
        std::unique_lock<std::mutex> lock(reports.mutex);
        EXPECT_TRUE(reports.changed.wait_for(lock, std::chrono::seconds(5), [&] {
            return reports.threads.size() > 1;
        })) << "those to the first packet do not come side by side";
    }
    {
        std::unique_lock<std::mutex> lock(reports.mutex);
        EXPECT_TRUE(reports.changed.wait_for(lock, std::chrono::seconds(60),
                                             [&] { return reports.count == 50 * kDevices; }));
    }
    const CallbackSlot none{nullptr, nullptr};
    TalmApiSetCallback(session.handle, 2, 255, 2, &none, 0);
    close();
    EXPECT_EQ(reports.threads.count(std::this_thread::get_id()), 0U);
    EXPECT_GT(reports.threads.size(), 1U);
}

}  // namespace
