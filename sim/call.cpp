#include "sim/call.h"

#include <sstream>

#include "sim/identifier.h"

namespace sim {

const char* nameOf(Function function) {
    switch (function) {
    case Function::Initialize:
        return "TalmApiInitialize";
    case Function::Open:
        return "TalmApiOpen";
    case Function::GetLinkState:
        return "TalmApiGetLinkState";
    case Function::Cleanup:
        return "TalmApiCleanup";
    case Function::Close:
        return "TalmApiClose";
    case Function::GetBusMembers:
        return "TalmApiGetBusMembers";
    case Function::GetType:
        return "BusMember_get_type";
    case Function::IsTalm:
        return "TalmApiIsTalm";
    case Function::OrvinInfo:
        return "OrvinInfo";
    case Function::WriteRequest:
        return "ImageTransfer_write_request";
    case Function::Data:
        return "ImageTransfer_data";
    case Function::CheckImage:
        return "OrvinImageMaintenance_check_image";
    case Function::StartUpdate:
        return "OrvinImageMaintenance_start_update";
    case Function::SetTransferCallback:
        return "TalmApiSetCallback";
    case Function::SetBusChangeCallback:
        return "TalmApiSetBusChangeCallback";
    case Function::TransferCallback:
        return "transferCallback";
    case Function::BusChangeCallback:
        return "busChangeCallback";
    }
    return "";
}

namespace {

// Puts a separator between what is written, beginning with the second.
class Joined {
public:
    Joined(std::ostream& stream, const char* between) : out(stream), separator(between) {}

    template <typename Value>
    void add(const Value& value) {
        out << (first ? "" : separator) << value;
        first = false;
    }

private:
    std::ostream& out;
    const char* const separator;
    bool first = true;
};

void writeArguments(std::ostream& out, const Call& call) {
    Joined arguments(out, ", ");
    if (call.device) {
        arguments.add(identifierText(*call.device));
    }
    if (!call.text.empty()) {
        arguments.add(call.text);
    }
    for (const std::int64_t number : call.given) {
        arguments.add(number);
    }
}

void writeAnswer(std::ostream& out, const Call& call) {
    Joined answer(out, " ");
    for (const std::int64_t number : call.answer) {
        answer.add(number);
    }
    for (const vanid_t& member : call.members) {
        answer.add(identifierText(member));
    }
    if (!call.name.empty()) {
        answer.add(call.name);
    }
}

}  // namespace

std::string describe(const Call& call) {
    std::ostringstream line;
    line << nameOf(call.function) << '(';
    writeArguments(line, call);
    line << ')';
    if (isCallback(call.function)) {
        return line.str();
    }
    line << " = " << call.result;
    if (!call.answer.empty() || !call.members.empty()) {
        line << std::hex << std::showbase << " -> ";
        writeAnswer(line, call);
    }
    if (!call.content.empty()) {
        const auto* const bytes = reinterpret_cast<const std::uint8_t*>(call.content.data());
        line << " <- " << hexText(bytes, call.content.size(), "");
    }
    return line.str();
}

std::vector<Observer*>& observers() {
    static auto& all = *new std::vector<Observer*>;  // as long as buses may be open
    return all;
}

}  // namespace sim
