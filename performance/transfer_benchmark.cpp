// Sends one image on simulated buses with real threads and in real time, on each bus once by the
// tool's own transfer and once by the barest loop that could do it: the floor that the tool is
// measured against.
//
//     transfer-benchmark IMAGE BUS-FILE...
//
// All of them send in turns, so that what is compared was measured within a second or two. Prints
// what each took, the tool's and the floor's for each bus in the order given, as one line of JSON.

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "core/error_info.h"
#include "group/orvin_group.h"
#include "image/firmware_image.h"
#include "performance/floor.h"
#include "performance/measured_bus.h"
#include "performance/turns.h"
#include "status/message_writer.h"

namespace {

constexpr std::uint64_t kSendsPerTurn = 100;

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what);
}

// A clock that can be stopped.
class Stopwatch {
public:
    explicit Stopwatch(clockid_t clock) : clock_(clock) {}

    void start() { total_ -= now(); }
    void stop() { total_ += now(); }
    double seconds() const { return static_cast<double>(total_) / 1e9; }  // once it is stopped

private:
    std::int64_t now() const {
        timespec time{};
        clock_gettime(clock_, &time);
        return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
    }

    const clockid_t clock_;
    std::int64_t total_ = 0;  // nanoseconds
};

// One transfer on a bus of its own, on a thread of its own.
class Sender {
public:
    Sender(const std::string& busFile, const std::string& imagePath);
    virtual ~Sender() = default;
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    // Sends the whole image, in turns with others. Whoever reads the outcome has joined the thread.
    void run(Turns& turns, std::size_t number);
    const std::string& failure() const { return failure_; }
    void print(int file, const char* name) const;

    // The sender of the calling thread, null on any other.
    static Sender*& current() {
        static thread_local Sender* sender = nullptr;
        return sender;
    }

    void countPoll() { ++polls_; }
    void startSend();
    void enterLibrary() { cpu_.stop(); }
    void leaveLibrary() { cpu_.start(); }

protected:
    virtual void send() = 0;

    MeasuredBus bus_;
    ErrorInfo error_;
    FirmwareImage image_{&error_};

private:
    Stopwatch wall_{CLOCK_MONOTONIC};
    Stopwatch cpu_{CLOCK_THREAD_CPUTIME_ID};  // without what is spent in the bus library
    std::uint64_t polls_ = 0;
    std::uint64_t sends_ = 0;
    Turns* turns_ = nullptr;
    std::size_t number_ = 0;
    std::string failure_;
};

Sender::Sender(const std::string& busFile, const std::string& imagePath) : bus_(busFile) {
    if (!image_.open(imagePath)) {
        fail(error_.message);
    }
}

void Sender::run(Turns& turns, std::size_t number) {
    turns_ = &turns;
    number_ = number;
    current() = this;
    turns.begin(number);
    wall_.start();
    cpu_.start();
    try {
        send();
    } catch (const std::exception& error) {
        failure_ = error.what();
    }
    cpu_.stop();
    wall_.stop();
    turns.leave();
}

void Sender::startSend() {
    if (++sends_ % kSendsPerTurn != 1 || sends_ == 1) {
        return;
    }
    cpu_.stop();
    wall_.stop();
    turns_->pass(number_);
    wall_.start();
    cpu_.start();
}

void Sender::print(int file, const char* name) const {
    dprintf(file, R"("%s": {"wall": %.9f, "cpu": %.9f, "polls": %llu})", name, wall_.seconds(),
            cpu_.seconds(), static_cast<unsigned long long>(polls_));
}

class ToolSender : public Sender {
public:
    ToolSender(const std::string& busFile, const std::string& imagePath)
        : Sender(busFile, imagePath) {
        for (const std::string& device : bus_.devices) {
            group_.addOrvin(device);
        }
        group_.initializeTransfers(image_);
    }

private:
    void send() override {
        const int result = group_.transferData(image_);
        if (result != 0 || group_.count() != static_cast<int>(bus_.devices.size())) {
            fail("the tool's transfer failed");
        }
    }

    // For good: a callback may still be leaving it.
    OrvinGroup& group_ = *new OrvinGroup(&bus_.session, false);
};

class FloorSender : public Sender {
public:
    FloorSender(const std::string& busFile, const std::string& imagePath)
        : Sender(busFile, imagePath), floor_(bus_, image_) {}

private:
    void send() override { floor_.send(); }

    Floor floor_;
};

using Senders = std::vector<std::unique_ptr<Sender>>;

void sendInTurns(const Senders& senders) {
    Turns turns(senders.size());
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < senders.size(); ++i) {
        threads.emplace_back([&, i] { senders[i]->run(turns, i); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const auto& sender : senders) {
        if (!sender->failure().empty()) {
            fail(sender->failure());
        }
    }
}

void measure(const std::string& imagePath, const std::vector<std::string>& busFiles, int report) {
    Senders senders;
    for (const std::string& busFile : busFiles) {
        senders.push_back(std::make_unique<ToolSender>(busFile, imagePath));
        senders.push_back(std::make_unique<FloorSender>(busFile, imagePath));
    }
    sendInTurns(senders);
    for (std::size_t i = 0; i < senders.size(); i += 2) {
        dprintf(report, i == 0 ? "[{" : ", {");
        senders[i]->print(report, "tool");
        dprintf(report, ", ");
        senders[i + 1]->print(report, "floor");
        dprintf(report, "}");
    }
    dprintf(report, "]\n");
}

}  // namespace

// The linker sends the calls of all senders through these. It is the linker's option --wrap, too,
// that asks for such names: NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_usleep(useconds_t duration);
int __wrap_usleep(useconds_t duration) {
    if (Sender* const sender = Sender::current()) {
        sender->countPoll();
    }
    return __real_usleep(duration);
}

int __real_ImageTransfer_data(TalmApiHandle handle, vanid_t device, std::uint32_t packetNumber,
                              const std::uint8_t* data, std::uint32_t* first,
                              std::uint32_t* second);
int __wrap_ImageTransfer_data(TalmApiHandle handle, vanid_t device, std::uint32_t packetNumber,
                              const std::uint8_t* data, std::uint32_t* first,
                              std::uint32_t* second) {
    Sender& sender = *Sender::current();
    sender.startSend();
    sender.enterLibrary();
    const int result = __real_ImageTransfer_data(handle, device, packetNumber, data, first, second);
    sender.leaveLibrary();
    return result;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fputs("Usage: transfer-benchmark IMAGE BUS-FILE...\n", stderr);
        return 2;
    }
    // The tool's progress goes where it costs what a write costs, and disturbs nobody.
    const int report = dup(STDOUT_FILENO);
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        return 2;
    }
    MessageWriter::init("");
    try {
        measure(argv[1], {argv + 2, argv + argc}, report);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "transfer-benchmark: %s\n", error.what());
        return 1;
    }
}
