#include "histories/history.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "app/run.h"
#include "core/run_config.h"
#include "histories/memory_system.h"
#include "histories/observed_bus.h"
#include "sim/identifier.h"
#include "sim/virtual_time.h"
#include "status/message_writer.h"

namespace histories {

namespace {

constexpr Microseconds kSecond = 1'000'000;

// What the link wait's failure, or an aborted run, leaves behind.
void dropMessageWriter() {
    try {
        delete MessageWriter::instance();
    } catch (const std::runtime_error&) {
        // there is none
    }
}

// A little more than the wait for n devices may take, all of its phases at their longest.
Microseconds rejoinLimit(std::int64_t n) {
    const std::int64_t base = (n + 10) * (n > 40 ? 2 : 1);
    const std::int64_t budget = base * base / 2;
    const std::int64_t link = 25;
    const std::int64_t answers = (budget / 15 + 2) * (15 + n);
    return (link + budget + 5 + 15 + answers + 10) * kSecond;
}

}  // namespace

const char* nameOf(Call call) {
    switch (call) {
    case Call::Initialize:
        return "TalmApiInitialize";
    case Call::Open:
        return "TalmApiOpen";
    case Call::LinkState:
        return "TalmApiGetLinkState";
    case Call::Cleanup:
        return "TalmApiCleanup";
    case Call::Close:
        return "TalmApiClose";
    case Call::Members:
        return "TalmApiGetBusMembers";
    case Call::Type:
        return "BusMember_get_type";
    case Call::IsMaster:
        return "TalmApiIsTalm";
    case Call::Info:
        return "OrvinInfo";
    case Call::WriteRequest:
        return "ImageTransfer_write_request";
    case Call::Data:
        return "ImageTransfer_data";
    case Call::Check:
        return "OrvinImageMaintenance_check_image";
    case Call::Start:
        return "OrvinImageMaintenance_start_update";
    case Call::SetTransferCallback:
        return "TalmApiSetCallback";
    case Call::SetBusChangeCallback:
        return "TalmApiSetBusChangeCallback";
    }
    return "";
}

bool Scenario::has(const char* argument) const {
    return std::find(arguments.begin(), arguments.end(), argument) != arguments.end();
}

History run(const Scenario& scenario, const std::vector<Fault>& faults) {
    auto& time = sim::VirtualTime::instance();
    auto& system = MemorySystem::instance();
    time.reset();
    time.setLimit(timeLimit(scenario, faults));
    system.reset();
    system.statusFault = scenario.statusFault;
    std::vector<std::string> arguments = {"orvin-firmware-upgrade"};
    arguments.insert(arguments.end(), scenario.arguments.begin(), scenario.arguments.end());
    for (const ImageFile& image : scenario.images) {
        arguments.push_back(image.name);
        if (!image.bytes.empty()) {
            system.files[image.name] = image.bytes;
        }
    }
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const std::size_t imageFiles = system.files.size();

    History history;
    ObservedBus bus(scenario, faults);
    system.captureConsole([&] {
        RunConfig config;
        try {
            history.exitStatus =
                ::run(config, static_cast<int>(arguments.size()), argv.data()) & 0xff;
            history.ended = true;
        } catch (const sim::TimeLimitReached&) {
            history.ended = false;
        }
        dropMessageWriter();
    });
    history.duration = time.now();
    history.console = system.console;
    history.messages = system.messages;
    const std::size_t statusFiles = system.files.count(MemorySystem::kStatusFile);
    history.filesLeft = system.files.size() - imageFiles - statusFiles;
    for (const sim::MemberDescription& member : scenario.bus.members) {
        history.finalVersions.push_back(bus.bus().findDevice(member.id)->versions());
    }
    history.calls = std::move(bus.calls());
    return history;
}

namespace {

std::size_t goBackRequests(const Scenario& scenario, const std::vector<Fault>& faults) {
    std::size_t requests = 0;
    for (const Fault& fault : faults) {
        requests += fault.kind == FaultKind::GoBack ? 1 : 0;
    }
    for (const sim::MemberDescription& member : scenario.bus.members) {
        for (const sim::GoBack& goBack : member.faults.goBack) {
            requests += goBack.times.value_or(1'000);
        }
    }
    return requests;
}

}  // namespace

std::size_t callLimit(const Scenario& scenario, const std::vector<Fault>& faults) {
    constexpr std::size_t kCallsPerMember = 5'000;  // of the longest wait for 63 devices
    std::size_t limit = 1'000;
    for (const ImageFile& image : scenario.images) {
        limit += 4 * image.packets() * (1 + goBackRequests(scenario, faults)) +
                 kCallsPerMember * (scenario.bus.members.size() + 1);
    }
    return limit;
}

// Per image: two attempts, in which each packet, and each of those that a device asks for once
// more, takes at most 10 s (and a poll), and the wait for the devices.
Microseconds timeLimit(const Scenario& scenario, const std::vector<Fault>& faults) {
    const std::size_t backwards = goBackRequests(scenario, faults);
    const auto devices = static_cast<std::int64_t>(scenario.bus.members.size()) + 1;
    Microseconds limit = 110 * kSecond + devices * kSecond;
    for (const ImageFile& image : scenario.images) {
        const auto packets = static_cast<Microseconds>(image.packets() * (1 + backwards));
        limit += 2 * (packets * (10 * kSecond + 2'000) + 10 * kSecond + rejoinLimit(devices));
    }
    return limit;
}

std::string describe(const Fault& fault) {
    std::ostringstream text;
    text << "call " << fault.call << ": ";
    switch (fault.kind) {
    case FaultKind::Result:
        text << "gives " << fault.value;
        break;
    case FaultKind::ResultLost:
        text << "is carried out, but gives " << fault.value;
        break;
    case FaultKind::WrongChecksum:
        text << "fails the check";
        break;
    case FaultKind::Lost:
        text << "packet lost";
        break;
    case FaultKind::Answer:
        text << "packet answered with " << fault.value;
        break;
    case FaultKind::GoBack:
        text << "asks for packet " << fault.value;
        break;
    case FaultKind::Late:
        text << "answers " << fault.value << " us later";
        break;
    case FaultKind::Twice:
        text << "answers twice";
        break;
    case FaultKind::DeviceLeaves:
        text << "leaves the bus for " << fault.value << " us";
        break;
    case FaultKind::LinkDrops:
        text << "link down for " << fault.value << " us";
        break;
    }
    if (fault.member >= 0) {
        text << " (member " << fault.member << ')';
    }
    return text.str();
}

std::string describe(const Scenario& scenario, const History& history) {
    std::ostringstream text;
    text << "arguments:";
    for (const std::string& argument : scenario.arguments) {
        text << ' ' << argument;
    }
    text << "\nimages:";
    for (const ImageFile& image : scenario.images) {
        text << ' ' << image.name << " (" << image.packets() << " packets)";
    }
    text << "\ncalls:\n";
    for (std::size_t i = 0; i < history.calls.size(); ++i) {
        const CallRecord& call = history.calls[i];
        text << "  " << i << "  " << static_cast<double>(call.time) / 1e6 << " s  "
             << nameOf(call.call);
        if (call.member >= 0) {
            text << "  member " << call.member;
        }
        text << "  number " << call.number << " = " << call.result << (call.good ? " good" : "")
             << '\n';
    }
    text << "messages:\n";
    for (const std::string& message : history.messages) {
        text << "  " << message << '\n';
    }
    text << "console:\n" << history.console << "exit status: " << history.exitStatus << '\n';
    return text.str();
}

}  // namespace histories
