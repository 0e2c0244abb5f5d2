#include "recording/lines.h"

#include <array>
#include <boost/crc.hpp>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

#include "common/vanid_text.h"

namespace recording {

namespace {

using Json = nlohmann::ordered_json;
using talm::Function;
using talm::Signature;

// Acknowledgements are most of a recording, so they are written without the detour by JSON values.
void appendItem(std::string& list, std::int64_t number) {
    char digits[24];
    char* const end = std::to_chars(digits, std::end(digits), number).ptr;
    list.append(digits, end) += ',';
}

double seconds(Microseconds time) {
    return static_cast<double>(time) / 1e6;
}

// Replaces bytes that are not UTF-8.
std::string textOf(const Json& line) {
    return line.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void addNumbers(Json& line, const std::array<const char*, 5>& names,
                const std::vector<std::int64_t>& numbers) {
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        line[names.at(i)] = numbers[i];
    }
}

void addContent(Json& line, const std::string& content) {
    boost::crc_32_type crc;
    crc.process_bytes(content.data(), content.size());
    char sum[16];
    std::snprintf(sum, sizeof sum, "%08x", static_cast<unsigned>(crc.checksum()));
    line["bytes"] = content.size();
    line["crc32"] = sum;
}

void addOutcome(Json& line, const Call& call) {
    line["result"] = call.result;
    addNumbers(line, talm::signatureOf(call.function).answer, call.answer);
    if (call.function == Function::OrvinInfo && !call.answer.empty()) {
        line["name"] = call.name;
    }
    if (call.function == Function::GetBusMembers) {
        Json& members = line["members"] = Json::array();
        for (const vanid_t& member : call.members) {
            members.push_back(formatVanid(member));
        }
    }
}

void addCall(Json& line, const Call& call) {
    const Signature& signature = talm::signatureOf(call.function);
    line[talm::isCallback(call.function) ? "callback" : "call"] = signature.name;
    if (call.device) {
        line["device"] = isBroadcastVanid(*call.device) ? "all" : formatVanid(*call.device);
    }
    if (signature.text != nullptr) {
        line[signature.text] = call.text;
    }
    addNumbers(line, signature.given, call.given);
    if (!call.content.empty()) {
        addContent(line, call.content);
    }
    if (!talm::isCallback(call.function)) {
        addOutcome(line, call);
    }
}

constexpr std::uint32_t kUsualThread = 1;  // the tool's; a line does not name it

// One character for each thread keeps the line short.
char threadMark(std::uint32_t thread) {
    constexpr char kMarks[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    return thread < sizeof kMarks - 1 ? kMarks[thread] : '?';
}

Json beginningOf(Microseconds at, std::uint32_t thread) {
    Json line;
    line["t"] = seconds(at);
    if (thread != kUsualThread) {
        line["thread"] = thread;
    }
    return line;
}

// Empty if /proc is not available.
std::vector<std::string> commandLine() {
    std::vector<std::string> arguments;
    std::FILE* const file = std::fopen("/proc/self/cmdline", "re");
    if (file == nullptr) {
        return arguments;
    }
    char* argument = nullptr;
    std::size_t room = 0;
    while (getdelim(&argument, &room, '\0', file) > 0) {
        arguments.emplace_back(argument);
    }
    std::free(argument);
    std::fclose(file);
    return arguments;
}

// The version of the format and, unless it is empty, the invocation.
Json headerOf(const std::string& invocation) {
    constexpr int kVersion = 1;
    Json line;
    line["orvin-recording"] = kVersion;
    if (!invocation.empty()) {
        line["invocation"] = invocation;
    }
    return line;
}

}  // namespace

std::string Lines::beginningOfHeader(const std::string& invocation) {
    std::string beginning = textOf(headerOf(invocation));
    beginning.pop_back();  // the brace
    return beginning;
}

void Lines::addHeader(const std::string& invocation) {
    const std::time_t now = std::time(nullptr);
    char started[32];
    std::strftime(started, sizeof started, "%FT%TZ", std::gmtime(&now));
    Json line = headerOf(invocation);
    line["started"] = started;
    line["command"] = commandLine();
    text += textOf(line) + '\n';
}

void Lines::add(const Moment& moment, const Call& call) {
    if (call.function == Function::TransferCallback && call.given[0] == 0) {
        addAcknowledgement(moment, *call.device, static_cast<std::uint32_t>(call.given[1]));
        return;
    }
    finishAcknowledgements();
    Json line = beginningOf(moment.at, moment.thread);
    addCall(line, call);
    if (moment.took != 0 && !talm::isCallback(call.function)) {
        line["took"] = seconds(moment.took);
    }
    text += textOf(line) + '\n';
}

void Lines::addAcknowledgement(const Moment& moment, const vanid_t& device, std::uint32_t packet) {
    const std::uint32_t number = numberOf(device);
    if (pending.by.empty() || pending.packet != packet) {
        finishAcknowledgements();
        pending.first = moment;
        pending.last = moment.at;
        pending.packet = packet;
    }
    appendItem(pending.by, number);
    appendItem(pending.after, moment.at - pending.last);
    pending.threads += threadMark(moment.thread);
    pending.oneThread = pending.oneThread && moment.thread == pending.first.thread;
    pending.last = moment.at;
}

// Devices usually acknowledge in the same order, so the search begins after the last device.
std::uint32_t Lines::numberOf(const vanid_t& device) {
    for (std::size_t i = 0; i < devices.size(); ++i) {
        lastDevice = lastDevice + 1 < devices.size() ? lastDevice + 1 : 0;
        if (isSameVanid(devices[lastDevice], device)) {
            return static_cast<std::uint32_t>(lastDevice + 1);
        }
    }
    finishAcknowledgements();
    lastDevice = devices.size();
    devices.push_back(device);
    const auto number = static_cast<std::uint32_t>(devices.size());
    const Json line = {{"number", number}, {"device", formatVanid(device)}};
    text += textOf(line) + '\n';
    return number;
}

void Lines::finishAcknowledgements() {
    if (pending.by.empty()) {
        return;
    }
    Json line =
        beginningOf(pending.first.at, pending.oneThread ? pending.first.thread : kUsualThread);
    line["acknowledged"] = pending.packet;
    if (!pending.oneThread) {
        line["threads"] = pending.threads;
    }
    text += textOf(line);
    text.pop_back();        // the brace
    pending.by.pop_back();  // the trailing comma
    pending.after.pop_back();
    text += pending.by == lastBy ? "" : ",\"by\":[" + pending.by + ']';
    text += ",\"after\":[" + pending.after + "]}\n";
    lastBy.swap(pending.by);
    pending = {};
}

std::string Lines::take(bool isLast) {
    constexpr int kMostTimesLeft = 3;
    if (isLast || pending.timesLeft++ == kMostTimesLeft) {
        finishAcknowledgements();
    }
    constexpr int kRepeatBy = 10;  // limits the damage that one unreadable line does
    if (++timesTaken % kRepeatBy == 0) {
        lastBy.clear();
    }
    return std::exchange(text, {});
}

}  // namespace recording
