#include "support/timeline.h"

#include <algorithm>
#include <boost/algorithm/string/replace.hpp>
#include <boost/crc.hpp>
#include <optional>
#include <tuple>
#include <vector>

#include "common/vanid_text.h"
#include "status/format_message.h"

namespace {

constexpr std::size_t kTimeWidth = 11;

std::string idOf(const vanid_t& id) {
    return ' ' + (isBroadcastVanid(id) ? "all" : formatVanid(id));
}

std::string seconds(sim::Microseconds time) {
    return formatMessage("%.12g", static_cast<double>(time) / 1e6);
}

std::string numbers(const std::vector<std::int64_t>& all) {
    std::string text;
    for (const std::int64_t number : all) {
        text += ' ' + formatMessage(number > 0xff ? "0x%lx" : "%ld", static_cast<long>(number));
    }
    return text;
}

std::string outcomeOf(const sim::Call& call) {
    std::string text = " -> " + std::to_string(call.result) + numbers(call.answer);
    for (const vanid_t& member : call.members) {
        text += idOf(member);
    }
    return text + (call.name.empty() ? "" : " '" + call.name + '\'');
}

std::string crcOf(const std::string& content) {
    boost::crc_32_type crc;
    crc.process_bytes(content.data(), content.size());
    return content.empty() ? "" : formatMessage(", crc 0x%x", crc.checksum());
}

struct Entry {
    sim::Microseconds time = 0;
    std::string held = {};
    std::string event = {};
    std::string object = {};                  // the device, file or percentage of the event
    std::string details = {};                 // what stands behind it
    std::optional<std::int64_t> packet = {};  // that it is about
    std::string content = {};                 // of the packet
};
using Entries = std::vector<Entry>;

std::string packetOf(const Entry& entry) {
    return entry.packet ? ", packet " + std::to_string(*entry.packet) : "";
}

void describe(Entry& entry, const sim::Call& call) {
    const bool isCallback = sim::isCallback(call.function);
    std::vector<std::int64_t> given = call.given;
    if (call.function == sim::Function::Data || call.function == sim::Function::TransferCallback) {
        entry.packet = given.back();
        given.pop_back();
    }
    entry.event = (isCallback ? "< " : "") + std::string(sim::nameOf(call.function));
    entry.object = call.device ? idOf(*call.device) : "";
    entry.details = (call.text.empty() ? "" : ' ' + call.text) + numbers(given) +
                    (isCallback ? "" : outcomeOf(call));
    entry.content = call.content;
}

// Whether the text could be added to the last entry, of the same moment.
bool join(std::string& last, const std::string& text) {
    if (last[0] == '|' && text[0] == '|') {
        last += text.substr(1);
        return true;
    }
    if (text.rfind("close ", 0) == 0 && last == "open " + text.substr(6)) {
        last = "open and " + text;
        return true;
    }
    return false;
}

// Takes the file's name or the percentage out of the event.
void separateObject(Entry& entry) {
    const std::string text = entry.event;
    const std::size_t end = text[0] == '=' ? text.find('%') : text.size();
    const bool hasObject = text.rfind("open", 0) == 0 || (text[0] == '=' && end < text.size());
    if (hasObject) {
        const std::size_t begin = text.rfind(' ', end);
        entry.event = text.substr(0, begin);
        entry.object = text.substr(begin, end - begin);
        entry.details = text.substr(end);
    }
}

Entries entriesOf(const ToolRun& run) {
    Entries all;
    auto record = run.records.begin();
    for (const Event& event : run.system.events) {
        Entry entry{event.time, event.held, event.text};
        if (event.text.empty()) {
            describe(entry, (record++)->call);
        }
        const bool isSameMoment = !all.empty() && std::tie(all.back().time, all.back().held) ==
                                                      std::tie(entry.time, entry.held);
        if (!isSameMoment || !join(all.back().event, entry.event)) {
            all.push_back(entry);
        }
    }
    std::for_each(all.begin(), all.end(), separateObject);
    return all;
}

auto allButObject(const Entry& entry) {
    return std::tie(entry.time, entry.held, entry.event, entry.details, entry.packet,
                    entry.content);
}

Entries joined(const Entries& entries) {
    Entries result;
    for (const Entry& entry : entries) {
        if (!entry.object.empty() && !result.empty() &&
            allButObject(result.back()) == allButObject(entry)) {
            result.back().object += entry.object;
        } else {
            result.push_back(entry);
        }
    }
    return result;
}

// How often the entries of that length come again behind these: each time as much later, perhaps
// with other objects or with another packet.
std::size_t repetitions(const Entries& entries, std::size_t begin, std::size_t length) {
    const auto isLike = [](const Entry& now, const Entry& again, std::int64_t later) {
        return std::tie(now.held, now.event, now.details) ==
                   std::tie(again.held, again.event, again.details) &&
               now.packet.has_value() == again.packet.has_value() && again.time - now.time == later;
    };
    std::size_t end = begin + length;
    for (; end < entries.size(); ++end) {
        const sim::Microseconds later = entries[begin + length].time - entries[begin].time;
        if (!isLike(entries[end - length], entries[end], later)) {
            break;
        }
    }
    return (end - begin) / length - 1;
}

// Each line gets that margin. A blank line is a "\n" at the end of the line before it or, if it is
// the first, in front of the next one.
std::string printedLines(std::string text, const std::string& margin) {
    boost::replace_all(text, "\n\n", "\\n\n");
    if (text[0] == '\n') {
        text.replace(0, 1, "\\n");
    }
    if (text.back() == '\n') {
        text.pop_back();
    } else {
        text += '\\';
    }
    boost::replace_all(text, "\n", '\n' + margin + "| ");
    return "| " + text;
}

std::string linesOf(const Entry& entry, bool withTime) {
    const std::string time = withTime ? seconds(entry.time) : "";
    const std::string held = entry.held.empty() ? "" : '[' + entry.held + "] ";
    const std::string margin(kTimeWidth, ' ');
    const std::string text =
        entry.event[0] == '|'
            ? printedLines(entry.event.substr(1), margin + held)
            : entry.event + entry.object + entry.details + packetOf(entry) + crcOf(entry.content);
    return time + margin.substr(time.size()) + held + text + '\n';
}

// The line about the entries from `first` on that repeat those of that length before them.
std::string repeatedLine(const Entry* first, std::size_t length, std::size_t times) {
    const Entry* const end = first + times * length;
    std::string objects;
    std::string packet;
    std::string content;
    for (const Entry* entry = first; entry != end; ++entry) {
        objects += entry->object == (entry - length)->object ? "" : entry->object;
        packet = entry->packet ? packetOf(*entry) : packet;
        content += entry->content;
    }
    return std::string(kTimeWidth, ' ') + "... " + std::to_string(times) + " more" +
           (objects.empty() ? "" : " for" + objects) + ", until " + seconds(end[-1].time) + packet +
           crcOf(content) + '\n';
}

}  // namespace

std::string timelineOf(const ToolRun& run) {
    constexpr std::size_t kLongest = 8;  // entries that repeat themselves
    constexpr std::size_t kLeast = 3;    // entries that a line about repetitions replaces
    const Entries entries = joined(entriesOf(run));
    std::string text;
    sim::Microseconds last = -1;
    for (std::size_t at = 0; at < entries.size();) {
        std::size_t length = 1;
        while (length <= kLongest && repetitions(entries, at, length) * length < kLeast) {
            ++length;
        }
        const bool repeats = length <= kLongest;
        const std::size_t times = repeats ? repetitions(entries, at, length) : 0;
        for (const std::size_t end = at + (repeats ? length : 1); at < end; ++at) {
            text += linesOf(entries[at], entries[at].time != last);
            last = entries[at].time;
        }
        if (repeats) {
            text += repeatedLine(&entries[at], length, times);
            at += times * length;
            last = entries[at - 1].time;
        }
    }
    return text;
}
