// Sends one image on the simulated bus with real threads and in real time, once by the tool's own
// transfer and once by the barest loop that could do it: the floor that the tool is measured
// against.
//
//     transfer-benchmark BUS-FILE IMAGE tool|floor
//
// Prints what it took as one line of JSON.

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

#include "bus/bus_members.h"
#include "bus/vanid_text.h"
#include "core/bus_session.h"
#include "core/error_info.h"
#include "group/orvin_group.h"
#include "image/firmware_image.h"
#include "status/message_writer.h"
#include "transfer/timer_slack.h"
#include "transfer/transfer_primitives.h"

namespace {

constexpr std::size_t kPacketBytes = 64;
constexpr useconds_t kPollMicroseconds = 1'000;

double seconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// What the sending thread spent in the bus library, and how often it slept.
double libraryCpu = 0;
std::uint64_t polls = 0;

// Wall clock, and processor time of the calling thread without the bus library's.
class Stopwatch {
public:
    double wall() const { return seconds(CLOCK_MONOTONIC) - wall_; }
    double cpu() const { return seconds(CLOCK_THREAD_CPUTIME_ID) - cpu_ - libraryCpu; }

private:
    double wall_ = seconds(CLOCK_MONOTONIC);
    double cpu_ = seconds(CLOCK_THREAD_CPUTIME_ID);
};

struct Measured {
    double wall;
    double cpu;
};

[[noreturn]] void fail(const char* what) {
    throw std::runtime_error(what);
}

Measured sendByTool(BusSession& session, const std::list<std::string>& devices,
                    FirmwareImage& image) {
    // For good: a callback may still be leaving it.
    OrvinGroup& group = *new OrvinGroup(&session, false);
    for (const std::string& device : devices) {
        group.addOrvin(device);
    }
    group.initializeTransfers(image);
    const Stopwatch watch;
    const int result = group.transferData(image);
    const Measured measured{watch.wall(), watch.cpu()};
    if (result != 0 || group.count() != static_cast<int>(devices.size())) {
        fail("the transfer failed");
    }
    return measured;
}

void countAcknowledgement(std::int32_t result, void* counter, vanid_t, vanid_t, std::uint32_t,
                          std::uint32_t) {
    if (result == 0) {
        ++*static_cast<std::atomic<std::uint64_t>*>(counter);
    }
}

// The same packets from memory, the same polls, and nothing else.
void sendFromMemory(const BusSession& session, const std::vector<std::uint8_t>& content,
                    std::size_t devices, const std::atomic<std::uint64_t>& acknowledged) {
    const std::size_t packets = content.size() / kPacketBytes;
    for (std::size_t packet = 0; packet < packets; ++packet) {
        if (sendChunk(session, broadcastVanid, &content[packet * kPacketBytes],
                      static_cast<std::uint32_t>(packet)) != kSentToAll) {
            fail("a packet was refused");
        }
        const std::uint64_t expected = devices * (packet + 1);
        while (acknowledged.load(std::memory_order_acquire) < expected) {
            usleep(kPollMicroseconds);
        }
    }
}

Measured sendByFloor(const BusSession& session, const std::list<std::string>& devices,
                     FirmwareImage& image) {
    std::vector<std::uint8_t> content(image.getHeader().contentSize);
    if (image.read(content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
        fail("the image cannot be read");
    }
    for (const std::string& device : devices) {
        vanid_t id{};
        if (!parseVanid(id, device) || !initializeTransfer(session, id, image.getHeader())) {
            fail("the image cannot be announced");
        }
    }
    std::atomic<std::uint64_t> acknowledged{0};
    const TransferCallback callback = countAcknowledgement;
    const CallbackSlot slot{reinterpret_cast<void (*)()>(callback), &acknowledged};
    TalmApiSetCallback(session.handle, 2, 255, 2, &slot, 0);
    const TimerSlack slack;  // the same waits as the tool's
    const Stopwatch watch;
    sendFromMemory(session, content, devices.size(), acknowledged);
    const Measured measured{watch.wall(), watch.cpu()};
    const CallbackSlot none{nullptr, nullptr};
    TalmApiSetCallback(session.handle, 2, 255, 2, &none, 0);
    return measured;
}

Measured send(const std::string& busFile, const std::string& imagePath, bool byTool) {
    BusSession session;
    session.handle = TalmApiInitialize();
    if (TalmApiOpen(session.handle, ("sim:" + busFile).c_str(), 0) != 0) {
        fail("the bus cannot be opened");
    }
    session.open = true;
    ErrorInfo error;
    FirmwareImage image(&error);
    if (!image.open(imagePath)) {
        fail(error.message.c_str());
    }
    std::list<std::string> devices;
    describeBusMembers(session, devices, true);
    const Measured measured =
        byTool ? sendByTool(session, devices, image) : sendByFloor(session, devices, image);
    TalmApiCleanup(session.handle);
    TalmApiClose(session.handle);
    return measured;
}

}  // namespace

// The linker sends the calls of both senders through these.
extern "C" {

int __real_usleep(useconds_t duration);
int __wrap_usleep(useconds_t duration) {
    ++polls;
    return __real_usleep(duration);
}

int __real_ImageTransfer_data(TalmApiHandle handle, vanid_t device, std::uint32_t packetNumber,
                              const std::uint8_t* data, std::uint32_t* first,
                              std::uint32_t* second);
int __wrap_ImageTransfer_data(TalmApiHandle handle, vanid_t device, std::uint32_t packetNumber,
                              const std::uint8_t* data, std::uint32_t* first,
                              std::uint32_t* second) {
    const double before = seconds(CLOCK_THREAD_CPUTIME_ID);
    const int result = __real_ImageTransfer_data(handle, device, packetNumber, data, first, second);
    libraryCpu += seconds(CLOCK_THREAD_CPUTIME_ID) - before;
    return result;
}

}  // extern "C"

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fputs("Usage: transfer-benchmark BUS-FILE IMAGE tool|floor\n", stderr);
        return 2;
    }
    // The tool's progress goes where it costs what a write costs, and disturbs nobody.
    const int report = dup(STDOUT_FILENO);
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        return 2;
    }
    MessageWriter::init("");
    try {
        const Measured measured = send(argv[1], argv[2], std::strcmp(argv[3], "tool") == 0);
        dprintf(report, "{\"wall\": %.9f, \"cpu\": %.9f, \"polls\": %llu}\n", measured.wall,
                measured.cpu, static_cast<unsigned long long>(polls));
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "transfer-benchmark: %s\n", error.what());
        return 1;
    }
}
