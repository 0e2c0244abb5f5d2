#include "recording/lines.h"

#include <algorithm>
#include <boost/crc.hpp>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <nlohmann/json.hpp>

#include "common/vanid_text.h"

namespace recording {

namespace {

using Json = nlohmann::json;
using talm::Function;
using talm::Signature;

void appendNumber(std::string& text, std::int64_t number) {
    char digits[24];
    const char* const end = std::to_chars(digits, std::end(digits), number).ptr;
    text.append(digits, static_cast<std::size_t>(end - digits));
}

void appendItem(std::string& list, std::int64_t number) {
    appendNumber(list, number);
    list += ',';
}

// Formats microseconds as seconds.
void appendTime(std::string& text, Microseconds time) {
    constexpr Microseconds kSecond = 1'000'000;
    appendNumber(text, time / kSecond);
    const std::string digits = std::to_string(kSecond + time % kSecond);  // keeps leading zeros
    text += '.' + digits.substr(1);
}

// Appends fields to a line, separated by commas.
class Fields {
public:
    explicit Fields(std::string& line) : text(line) {}

    void add(const char* name, std::int64_t number) {
        begin(name);
        appendNumber(text, number);
    }
    // For text that needs no escapes.
    void addPlain(const char* name, const std::string& plain) {
        begin(name);
        text += '"' + plain + '"';
    }
    // Replaces bytes that are not UTF-8.
    void addJson(const char* name, const Json& json) {
        begin(name);
        text += json.dump(-1, ' ', false, Json::error_handler_t::replace);
    }
    void addTime(const char* name, Microseconds time) {
        begin(name);
        appendTime(text, time);
    }
    void addAll(const std::array<const char*, 5>& names, const std::vector<std::int64_t>& numbers) {
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            add(names.at(i), numbers[i]);
        }
    }

private:
    void begin(const char* name) {
        text += text.back() == '{' ? "\"" : ",\"";
        text += name;
        text += "\":";
    }

    std::string& text;
};

void addContent(Fields& line, const std::string& content) {
    boost::crc_32_type crc;
    crc.process_bytes(content.data(), content.size());
    char sum[16];
    std::snprintf(sum, sizeof sum, "%08x", static_cast<unsigned>(crc.checksum()));
    line.add("bytes", static_cast<std::int64_t>(content.size()));
    line.addPlain("crc32", sum);
}

void addOutcome(Fields& line, const Call& call) {
    line.add("result", call.result);
    line.addAll(talm::signatureOf(call.function).answer, call.answer);
    if (call.function == Function::OrvinInfo && !call.answer.empty()) {
        line.addJson("name", call.name);
    }
    if (call.function == Function::GetBusMembers) {
        std::vector<std::string> members;
        std::transform(call.members.begin(), call.members.end(), std::back_inserter(members),
                       formatVanid);
        line.addJson("members", members);
    }
}

void addCall(Fields& line, const Call& call) {
    const Signature& signature = talm::signatureOf(call.function);
    line.addPlain(talm::isCallback(call.function) ? "callback" : "call", signature.name);
    if (call.device) {
        line.addPlain("device", isBroadcastVanid(*call.device) ? "all" : formatVanid(*call.device));
    }
    if (signature.text != nullptr) {
        line.addJson(signature.text, call.text);
    }
    line.addAll(signature.given, call.given);
    if (!call.content.empty()) {
        addContent(line, call.content);
    }
    if (!talm::isCallback(call.function)) {
        addOutcome(line, call);
    }
}

// One character for each thread keeps the line short.
char threadMark(std::uint32_t thread) {
    constexpr char kMarks[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    return thread < sizeof kMarks - 1 ? kMarks[thread] : '?';
}

void addBeginning(Fields& line, const Moment& moment, bool withThread) {
    line.addTime("t", moment.at);
    if (withThread && moment.thread != 1) {
        line.add("thread", moment.thread);
    }
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

}  // namespace

std::string Lines::beginningOfHeader(const std::string& invocation) {
    constexpr int kVersion = 1;
    std::string beginning = "{";
    Fields line(beginning);
    line.add("orvin-recording", kVersion);
    if (!invocation.empty()) {
        line.addJson("invocation", invocation);
    }
    return beginning;
}

void Lines::addHeader(const std::string& invocation) {
    const std::time_t now = std::time(nullptr);
    char started[32];
    std::strftime(started, sizeof started, "%FT%TZ", std::gmtime(&now));
    text += beginningOfHeader(invocation);
    Fields line(text);
    line.addPlain("started", started);
    line.addJson("command", commandLine());
    text += "}\n";
}

void Lines::add(const Moment& moment, const Call& call) {
    if (call.function == Function::TransferCallback && call.given[0] == 0) {
        addAcknowledgement(moment, *call.device, static_cast<std::uint32_t>(call.given[1]));
        return;
    }
    finishAcknowledgements();
    text += '{';
    Fields line(text);
    addBeginning(line, moment, true);
    addCall(line, call);
    if (moment.took != 0 && !talm::isCallback(call.function)) {
        line.addTime("took", moment.took);
    }
    text += "}\n";
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
    text += '{';
    Fields line(text);
    line.add("number", number);
    line.addPlain("device", formatVanid(device));
    text += "}\n";
    return number;
}

void Lines::finishAcknowledgements() {
    if (pending.by.empty()) {
        return;
    }
    pending.by.pop_back();  // the trailing comma
    pending.after.pop_back();
    text += '{';
    Fields line(text);
    addBeginning(line, pending.first, pending.oneThread);
    line.add("acknowledged", pending.packet);
    text += pending.by == lastBy ? "" : ",\"by\":[" + pending.by + ']';
    text += ",\"after\":[" + pending.after + ']';
    text += pending.oneThread ? "" : ",\"threads\":\"" + pending.threads + '"';
    text += "}\n";
    lastBy.swap(pending.by);
    for (std::string* const list : {&pending.by, &pending.after, &pending.threads}) {
        list->clear();
    }
    pending.oneThread = true;
    pending.timesLeft = 0;
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
