// The simulated bus as it is shipped: callbacks on threads of its own, in real time at its smallest
// delays. What these tests look for above all is what the thread sanitizer finds.

#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <set>
#include <thread>

#include "app/run.h"
#include "bus/vanid_text.h"
#include "core/bus_session.h"
#include "core/error_info.h"
#include "core/run_config.h"
#include "group/orvin_group.h"
#include "orvin-image/image_file.h"
#include "sim/bus_opener.h"
#include "status/message_writer.h"
#include "support/files.h"
#include "transfer/transfer_session.h"

namespace {

constexpr int kDevices = 63;

// A bus library that clears no callback: it calls what was set once from threads of its own, until
// the process ends.
namespace relentless {

std::atomic<bool> inUse{false};
std::atomic<std::int32_t> result{0};
std::atomic<int> calls{0};

void start(void (*callBack)(const CallbackSlot& slot), const CallbackSlot& slot) {
    for (int thread = 0; thread < 2; ++thread) {
        std::thread([=] {
            for (;; ++calls) {
                callBack(slot);
                std::this_thread::yield();
            }
        }).detach();
    }
}

void reportResult(const CallbackSlot& slot) {
    reinterpret_cast<TransferCallback>(slot.function)(result, slot.userArgument, {{1}}, {}, 0, 0);
}

void reportMember(const CallbackSlot& slot) {
    const vanid_t member{{1}};
    reinterpret_cast<BusChangeCallback>(slot.function)(slot.userArgument, &member, 0);
}

// Whether the setting of the slot is to be passed on.
bool takes(void (*callBack)(const CallbackSlot& slot), const CallbackSlot& slot) {
    if (inUse && slot.function != nullptr) {
        start(callBack, slot);
    }
    return !inUse;
}

void letThreadsCall() {
    constexpr int kEnough = 10'000;
    const int before = calls;
    while (calls - before < kEnough) {
        std::this_thread::yield();
    }
}

}  // namespace relentless

}  // namespace

// Called in place of the functions without "__wrap_", which are called "__real_" here.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_TalmApiSetCallback(TalmApiHandle, int, int, int, const CallbackSlot*, int);
int __real_TalmApiSetBusChangeCallback(TalmApiHandle, const CallbackSlot*, int);

int __wrap_TalmApiSetCallback(TalmApiHandle handle, int a, int b, int c, const CallbackSlot* slot,
                              int d) {
    return relentless::takes(relentless::reportResult, *slot)
               ? __real_TalmApiSetCallback(handle, a, b, c, slot, d)
               : -1;
}

int __wrap_TalmApiSetBusChangeCallback(TalmApiHandle handle, const CallbackSlot* slot, int last) {
    return relentless::takes(relentless::reportMember, *slot)
               ? __real_TalmApiSetBusChangeCallback(handle, slot, last)
               : -1;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace {

// Holds the first report until there is one on another thread.
class Reporters : public sim::Observer {
public:
    std::optional<sim::Intervention> before(const sim::Call& call) override {
        if (call.function == sim::Function::TransferCallback) {
            std::unique_lock<std::mutex> lock(mutex);
            threads.insert(std::this_thread::get_id());
            changed.notify_all();
            changed.wait_for(lock, std::chrono::seconds(60), [&] { return threads.size() > 1; });
        }
        return std::nullopt;
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::set<std::thread::id> threads;
};

sim::MemberDescription makeOrvin(std::uint32_t number) {
    sim::MemberDescription orvin;
    orvin.id.bytes[0] = static_cast<std::uint8_t>(number);
    orvin.type = sim::kOrvinType;
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

TEST(Threads, ReportAllAtOnceOfATransferTo63Devices) {
    const TemporaryDirectory directory;
    const orvin_image::Bytes content = orvin_image::generateContent(0x200, 7, 64 * 150 + 1);
    const orvin_image::Bytes file = orvin_image::encodeImage({0, 0, 0x200}, content);
    writeText(directory / "image", {file.begin(), file.end()});
    ErrorInfo error;
    FirmwareImage image(&error);
    ASSERT_TRUE(image.open(directory / "image"));
    Reporters reporters;
    sim::observers().push_back(&reporters);
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
    sim::observers().clear();
    id.bytes[0] = 3;
    EXPECT_EQ(bus->findDevice(id)->content(), content);
    EXPECT_GT(reporters.threads.size(), 1U);
    EXPECT_EQ(reporters.threads.count(std::this_thread::get_id()), 0U);
}

// From the end of the session on, each report is one that the tool would act on and print.
class FaultsAtTheEnd : public sim::Observer {
    std::optional<sim::Intervention> before(const sim::Call& call) override {
        if (call.function == sim::Function::Cleanup) {
            relentless::result = 9;
            relentless::letThreadsCall();
        }
        return std::nullopt;
    }
};

// Goes on until the process ends, which the sanitizers watch as well.
TEST(Threads, FindNoGroupOnceTheModeHasEnded) {
    const TemporaryDirectory directory;
    const orvin_image::Bytes file = orvin_image::encodeImage(
        {0, 0, 0x201, 0, 0, 0, 7}, orvin_image::generateContent(0x201, 7, sim::kPacketBytes * 20));
    const std::string image = directory / "image";
    writeText(image, {file.begin(), file.end()});
    FaultsAtTheEnd observer;
    sim::observers().push_back(&observer);
    sim::BusDescription bus;
    bus.members = {makeOrvin(1)};
    sim::busOpener() = [bus](const std::string&) { return std::make_shared<sim::Bus>(bus); };
    relentless::inUse = true;
    testing::internal::CaptureStdout();
    RunConfig config;
    std::string arguments[] = {"orvin-firmware-upgrade", "-B", "-c", "sim:", image};
    char* argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(),
                    arguments[3].data(), arguments[4].data(), nullptr};
    EXPECT_EQ(run(config, 5, argv), 1);
    relentless::letThreadsCall();
    const std::string console = testing::internal::GetCapturedStdout();
    EXPECT_EQ(console.substr(console.rfind("back online")), "back online... done.\n");
    relentless::inUse = false;
    sim::observers().clear();
}

// An acknowledgement must not come earlier than the bus file says.
TEST(RealTimeQueue, RunsNothingBeforeItsTime) {
    std::promise<sim::Microseconds> ran;
    const auto queue = sim::makeEventQueue();
    const sim::Microseconds when = queue->now() + 3'000;
    queue->schedule(when, [&] { ran.set_value(queue->now()); });
    EXPECT_GE(ran.get_future().get(), when);
}

}  // namespace
