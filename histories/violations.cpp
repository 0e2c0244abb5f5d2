// What no history may show, checked from outside: by the bus calls, the files and the output.

#include <algorithm>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "histories/history.h"
#include "histories/memory_system.h"
#include "sim/identifier.h"

namespace histories {

namespace {

using Texts = std::set<std::string>;

constexpr char kTransferFailed[] = "Failed to transfer data to the Orvins";
constexpr char kNextImage[] = "Downloading image ";
constexpr int kSentToAll = -2;

// One transfer of one image: from its first write request to the next one's, or to the end.
struct Attempt {
    std::vector<const CallRecord*> calls;
    std::set<int> members;  // who got a write request
    std::string console;    // from the first write request on
    std::string transfer;   // of that, what belongs to the transfer itself
};

bool isWriting(Call call) {
    return call == Call::WriteRequest || call == Call::Data || call == Call::Check ||
           call == Call::Start;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::vector<Attempt> attemptsOf(const History& history) {
    std::vector<Attempt> attempts;
    std::vector<std::size_t> starts;
    bool requesting = false;
    for (const CallRecord& call : history.calls) {
        const bool request = call.call == Call::WriteRequest;
        if (request && !requesting) {
            attempts.emplace_back();
            starts.push_back(call.consoleLength);
        }
        requesting = request;
        // What is asked for the next image is not part of this one's attempt.
        if (attempts.empty() ||
            history.console.find(kNextImage, starts.back()) < call.consoleLength) {
            continue;
        }
        attempts.back().calls.push_back(&call);
        if (request) {
            attempts.back().members.insert(call.member);
        }
    }
    starts.push_back(history.console.size());
    for (std::size_t i = 0; i < attempts.size(); ++i) {
        Attempt& attempt = attempts[i];
        attempt.console = history.console.substr(starts[i], starts[i + 1] - starts[i]);
        const std::size_t end =
            std::min(attempt.console.find(kTransferFailed), attempt.console.find("Update took "));
        attempt.transfer = attempt.console.substr(0, end);
    }
    return attempts;
}

// The devices listed under every line that contains `title`.
Texts listedUnder(const std::string& console, const std::string& title) {
    Texts listed;
    std::istringstream lines(console);
    bool inList = false;
    for (std::string line; std::getline(lines, line);) {
        if (inList && line.compare(0, 2, "  ") == 0) {
            listed.insert(line.substr(2));
            continue;
        }
        inList = contains(line, title);
    }
    return listed;
}

class Checker {
public:
    Checker(const Scenario& scenario, const std::vector<Fault>& faults, const History& history)
        : scenario_(scenario), faults_(faults), history_(history), attempts_(attemptsOf(history)) {}

    std::vector<std::string> check() {
        if (!history_.ended) {
            report("does not end in time");
            return violations_;
        }
        checkExitStatus();
        checkEnd();
        checkMessages();
        checkReadOnlyModes();
        checkHealthyDevices();
        checkNamedAsNotUpgraded();
        for (std::size_t i = 0; i < attempts_.size(); ++i) {
            checkPackets(attempts_[i]);
            checkDevices(attempts_[i]);
            checkAskedAgain(i);
        }
        return violations_;
    }

private:
    void report(const std::string& what) { violations_.push_back(what); }
    void require(bool condition, const std::string& what) {
        if (!condition) {
            report(what);
        }
    }

    // A member that the bus does not have is the one that was asked for with -d.
    std::string idOf(int member) const {
        if (member >= 0) {
            return sim::identifierText(scenario_.bus.members[static_cast<std::size_t>(member)].id);
        }
        const auto& arguments = scenario_.arguments;
        const auto option = std::find(arguments.begin(), arguments.end(), "-d");
        return option == arguments.end() ? "nobody" : *(option + 1);
    }

    bool printed(const char* text) const { return contains(history_.console, text); }

    void checkExitStatus() {
        const int status = history_.exitStatus;
        const bool failed = printed("could not be upgraded");
        require((status == 132) == printed("Failed to initialize lumnet lib on "), "status 132");
        require((status == 133) == printed("Bus not ACTIVE, exiting."), "status 133");
        require((status == 139) == failed, "status 139");
        if (status == 132 || status == 133 || status == 139) {
            return;
        }
        if (scenario_.has("-V")) {
            require(
                status == (printed("Error while reading") || printed("Error: invalid") ? 255 : 0),
                "status of the version query");
            return;
        }
        const auto updated = listedUnder(history_.console, "Successfully updated ").size();
        require(static_cast<std::size_t>(status) == updated, "status is not the number of updated");
    }

    std::size_t count(Call call) const {
        return static_cast<std::size_t>(
            std::count_if(history_.calls.begin(), history_.calls.end(),
                          [&](const CallRecord& record) { return record.call == call; }));
    }

    // Cleared after each setting, before the next and at the end.
    bool isClearedEachTime(Call call) const {
        bool set = false;
        for (const CallRecord& record : history_.calls) {
            if (record.call != call) {
                continue;
            }
            if (set && !record.good) {
                return false;
            }
            set = !record.good;
        }
        return !set;
    }

    void checkEnd() {
        require(isClearedEachTime(Call::SetTransferCallback), "transfer callback left set");
        require(isClearedEachTime(Call::SetBusChangeCallback), "bus change callback left set");
        const std::size_t expected = history_.exitStatus == 132 ? 0 : 1;
        require(count(Call::Cleanup) == expected && count(Call::Close) == expected,
                "session not closed exactly once");
        const std::size_t calls = history_.calls.size();
        require(expected == 0 || (calls > 2 && history_.calls[calls - 2].call == Call::Cleanup &&
                                  history_.calls[calls - 1].call == Call::Close),
                "the session's end is not the last that the bus sees");
    }

    void checkMessages() {
        static const std::regex known(
            "Waiting for Lumnet bus to become active\\.\\.\\."
            "|Lumnet bus not active, please try again later!"
            "|Orvin firmware upgrade in progress\\. Uploading Pellix (ARM|DSP|Booster ARM) "
            "firmware, "
            "(100|[1-9]?[05])% completed\\.\\.\\."
            "|Failed to transfer firmware!|Verifying uploaded firmware image\\.\\.\\.|Please "
            "wait\\.\\.\\."
            "|Installing Orvin firmware: \\d+ / \\d+ completed"
            "|Retrying Pellix (ARM|DSP|Booster ARM) update\\.\\.\\.");
        static std::set<std::string> seen;
        for (const std::string& message : history_.messages) {
            if (seen.count(message) == 0 && std::regex_match(message, known)) {
                seen.insert(message);
            }
            require(seen.count(message) != 0, "unknown message: " + message);
        }
        checkStatusFault();
        const bool follows = scenario_.has("-m") && history_.exitStatus != 132;
        const bool lostTheOnlyOne = scenario_.statusFault.message == 1;
        require(follows == !history_.messages.empty() || lostTheOnlyOne,
                "messages without -m, or none with it");
    }

    // Only a failed write leaves its temporary file, and each failure is told.
    void checkStatusFault() {
        using Kind = StatusFault::Kind;
        const Kind kind = scenario_.statusFault.kind;
        const bool leaves = kind == Kind::Write || kind == Kind::ShortWrite;
        const bool told = printed("Could not create temporary file /tmp/talmfw") ||
                          printed("Error at write message: ") ||
                          printed("Incomplete write for message: ") ||
                          printed("Could not apply message to file mem:status: ");
        require(history_.filesLeft == (leaves && told ? 1U : 0U), "temporary files left");
        require(kind != Kind::None || !told, "tells of a failure that was none");
    }

    void checkReadOnlyModes() {
        if (scenario_.has("-p") || scenario_.has("-l") || scenario_.has("-V")) {
            require(std::none_of(history_.calls.begin(), history_.calls.end(),
                                 [](const CallRecord& call) { return isWriting(call.call); }),
                    "writes though it must not");
        }
    }

    // What strikes the whole bus, but makes nobody drop a device: at worst nobody is upgraded.
    static bool dropsNobody(const Fault& fault, const std::vector<CallRecord>& calls) {
        return fault.kind == FaultKind::Result && fault.member == -1 && fault.call < calls.size() &&
               calls[fault.call].call != Call::SetTransferCallback;
    }

    bool hasBusFault() const {
        const sim::BusDescription& bus = scenario_.bus;
        return bus.linkActiveAfter > 0 || isFaulty(bus.getMembers) || isFaulty(bus.data) ||
               std::any_of(faults_.begin(), faults_.end(),
                           [](const Fault& fault) { return fault.member == -1; });
    }

    // Whether there is no reason to drop the device: nothing is wrong with it, or only what the
    // protocol makes good again.
    bool isHealthy(int member) const {
        const sim::MemberDescription& device =
            scenario_.bus.members[static_cast<std::size_t>(member)];
        int harmless = 0;
        for (const Fault& fault : faults_) {
            if (fault.member == -1 && !dropsNobody(fault, history_.calls)) {
                return false;
            }
            if (fault.member != member) {
                continue;
            }
            if (fault.kind != FaultKind::GoBack && fault.kind != FaultKind::Twice) {
                return false;
            }
            ++harmless;
        }
        // A faulty sending may look like a good one, and reach nobody.
        return device.type == sim::kOrvinType && scenario_.bus.linkActiveAfter == 0 &&
               !isFaulty(scenario_.bus.data) && (harmless == 0 || answersAtOnce(device)) &&
               (!device.faults.present || (harmless == 0 && recovers(device)));
    }

    static bool isFaulty(const sim::CallFault& fault) { return isAny(fault.calls); }
    static bool isAny(const sim::Selection& selection) {
        return selection.all || selection.every != 0 || !selection.numbers.empty();
    }

    // Before the next poll: a later request to go back may come after the last packet's end.
    static bool answersAtOnce(const sim::MemberDescription& device) {
        return device.timing.acknowledge < 1'000 && device.timing.acknowledgeJitter == 0;
    }

    // A device that answers at once and sometimes asks to go back, or sometimes answers twice.
    static bool recovers(const sim::MemberDescription& device) {
        const sim::DeviceFaults& faults = device.faults;
        const bool oneOfThem = faults.goBack.empty() != !isAny(faults.acknowledgesTwice);
        const bool finite =
            std::all_of(faults.goBack.begin(), faults.goBack.end(),
                        [](const sim::GoBack& goBack) { return goBack.times.has_value(); });
        const bool nothingElse = !isAny(faults.losesPackets) && faults.faultResults.empty() &&
                                 !isFaulty(faults.typeQuery) && !isFaulty(faults.versionQuery) &&
                                 !isFaulty(faults.writeRequest) && !isFaulty(faults.check) &&
                                 !isFaulty(faults.start) && !faults.neverReturns &&
                                 faults.reportsBack == 1 &&
                                 faults.keepsOldVersion == sim::KeepsOldVersion::Never;
        return oneOfThem && finite && nothingElse && answersAtOnce(device);
    }

    // Nobody is dropped, or named as not upgraded, for another's fault.
    void checkHealthyDevices() {
        for (int member = 0; member < static_cast<int>(scenario_.bus.members.size()); ++member) {
            if (!isHealthy(member)) {
                continue;
            }
            const std::string id = idOf(member);
            require(!contains(history_.console, "Removing Orvin " + id) &&
                        !contains(history_.console, "Removing orvin '" + id),
                    "healthy device dropped: " + id);
            if (!hasBusFault()) {
                checkServed(member);
            }
        }
    }

    // A healthy device on a sound bus gets all that it was chosen for.
    void checkServed(int member) {
        const std::string id = idOf(member);
        constexpr int kMostMembers = 63;
        if (member >= kMostMembers || scenario_.has("-V")) {
            return;
        }
        if (scenario_.has("-l")) {
            require(contains(history_.console, id), "not listed: " + id);
            return;
        }
        const Texts notUpgraded = listedUnder(history_.console, "could not be upgraded");
        require(notUpgraded.count(id) == 0, "healthy device not upgraded: " + id);
        if (!notUpgraded.empty() || !(scenario_.has("-B") || scenario_.has(id.c_str()))) {
            return;  // the set ended early, for others, or is not for this device
        }
        sim::Versions expected = scenario_.bus.members[static_cast<std::size_t>(member)].versions;
        bool needsOne = false;
        for (const ImageFile* image : inRunningOrder()) {
            std::uint32_t& version = versionOf(expected, image->target);
            needsOne = needsOne || scenario_.has("-f") || version != image->version;
            version = image->version;
        }
        const Texts updated = listedUnder(history_.console, "Successfully updated ");
        require(updated.count(id) == (needsOne ? 1U : 0U), "passed over, or served in vain: " + id);
        const sim::Versions& final = history_.finalVersions[static_cast<std::size_t>(member)];
        require(scenario_.has("-p") || (final.arm == expected.arm && final.dsp == expected.dsp &&
                                        final.boosterArm == expected.boosterArm),
                "does not run what it was to run: " + id);
    }

    // ARM images from last to first, then the others from first to last.
    std::vector<const ImageFile*> inRunningOrder() const {
        std::vector<const ImageFile*> order;
        for (const ImageFile& image : scenario_.images) {
            if (image.content.empty() || image.target > 0x202) {
                continue;
            }
            order.insert(image.target == 0x200 ? order.begin() : order.end(), &image);
        }
        return order;
    }

    static std::uint32_t& versionOf(sim::Versions& versions, std::uint32_t target) {
        return target == 0x200   ? versions.arm
               : target == 0x201 ? versions.dsp
                                 : versions.boosterArm;
    }

    // Who is named so has answered last with another version than the image's.
    void checkNamedAsNotUpgraded() {
        const Texts named = listedUnder(history_.console, "could not be upgraded");
        require((history_.exitStatus == 139) == !named.empty(), "139 names nobody");
        std::map<std::string, const CallRecord*> lastAnswer;
        std::uint32_t target = 0;
        for (const CallRecord& call : history_.calls) {
            if (call.call == Call::Info) {
                lastAnswer[idOf(call.member)] = &call;
            } else if (call.call == Call::WriteRequest) {
                target = call.number;
            }
        }
        for (const std::string& id : named) {
            const CallRecord* const answer = lastAnswer[id];
            require(answer != nullptr && answer->result == 0 && differs(answer->versions, target),
                    "named as not upgraded, but did not answer so: " + id);
        }
    }

    bool differs(const sim::Versions& versions, std::uint32_t target) const {
        sim::Versions answered = versions;
        const std::uint32_t current = versionOf(answered, target);
        return std::any_of(scenario_.images.begin(), scenario_.images.end(),
                           [&](const ImageFile& image) {
                               return image.target == target && image.version != current;
                           });
    }

    void checkPackets(const Attempt& attempt) {
        std::set<std::uint32_t> sent;
        bool refused = false;
        for (const CallRecord* call : attempt.calls) {
            if (call->call == Call::Data) {
                require(call->good, "packet " + std::to_string(call->number) +
                                        " with another packet's content");
                sent.insert(call->number);
                refused = refused || call->result != kSentToAll;
            }
        }
        const bool failed = contains(attempt.console, kTransferFailed);
        require(!refused || failed, "a refused packet is not reported");
        const std::size_t packets = (attempt.calls.front()->size + std::size_t{63}) / 64;
        require(failed || sent.size() == packets, "a transfer without all of its packets");
    }

    // Each device of the attempt is either reported as updated, and was, or named with a reason.
    void checkDevices(const Attempt& attempt) {
        // A transfer that ended for lack of devices has dropped each of them.
        const bool excused = contains(attempt.transfer, "Error in sendChunk(): ") ||
                             contains(attempt.transfer, "Error reading firmware file");
        const Texts updated = listedUnder(attempt.console, "Successfully updated ");
        Texts addressed;
        for (const int member : attempt.members) {
            const std::string id = idOf(member);
            addressed.insert(id);
            const bool dropped = contains(attempt.transfer, "Removing Orvin " + id + " due to ") ||
                                 contains(attempt.transfer, "Removing orvin '" + id + "' after ");
            const bool named = updated.count(id) != 0;
            require(named || dropped || excused, "left without a word: " + id);
            require(!named || !dropped, "dropped and reported as updated: " + id);
            require(!named || tookEverything(attempt, member),
                    "falsely reported as updated: " + id);
        }
        require(std::includes(addressed.begin(), addressed.end(), updated.begin(), updated.end()),
                "reported as updated without having been asked");
    }

    // Each device of the attempt, dropped or not, is asked for its version again, and one that
    // still has another is tried again or named in the end.
    void checkAskedAgain(std::size_t number) {
        const Attempt& attempt = attempts_[number];
        const CallRecord& request = *attempt.calls.front();
        const Texts named = listedUnder(history_.console, "could not be upgraded");
        for (const int member : attempt.members) {
            const auto last = std::find_if(
                attempt.calls.rbegin(), attempt.calls.rend(), [&](const CallRecord* call) {
                    return call->call == Call::Info && call->member == member;
                });
            // A faulty result that was still on its way drops the device once more, with a line.
            const std::string afterwards = attempt.console.substr(attempt.transfer.size());
            if (contains(afterwards,
                         "Removing Orvin " + idOf(member) + " due to faulty callback")) {
                continue;
            }
            if (last == attempt.calls.rend()) {
                report("not asked again: " + idOf(member));
                continue;
            }
            const bool retried = number + 1 < attempts_.size() &&
                                 attempts_[number + 1].calls.front()->size == request.size &&
                                 attempts_[number + 1].members.count(member) != 0;
            // Who does not answer when it counts is dropped with a line, and may answer later.
            const bool dropped = contains(
                attempt.console, "Removing Orvin " + idOf(member) + " because getVersion failed");
            const bool differs = (*last)->result == 0 && !hasImage((*last)->versions, request);
            require(!differs || retried || dropped || named.count(idOf(member)) != 0,
                    "still another version, and nobody says so: " + idOf(member));
        }
    }

    // Whether the device runs the image that was announced so.
    bool hasImage(const sim::Versions& versions, const CallRecord& request) const {
        sim::Versions answered = versions;
        const std::uint32_t current = versionOf(answered, request.number);
        return std::any_of(
            scenario_.images.begin(), scenario_.images.end(), [&](const ImageFile& image) {
                return image.target == request.number && image.content.size() == request.size &&
                       image.version == current;
            });
    }

    static bool tookEverything(const Attempt& attempt, int member) {
        int steps = 0;
        for (const CallRecord* call : attempt.calls) {
            if (call->member != member || call->result != 0) {
                continue;
            }
            const bool passed =
                call->call == Call::WriteRequest ||
                ((call->call == Call::Check || call->call == Call::Start) && call->good);
            steps += passed ? 1 : 0;
        }
        return steps == 3;
    }

    const Scenario& scenario_;
    const std::vector<Fault>& faults_;
    const History& history_;
    const std::vector<Attempt> attempts_;
    std::vector<std::string> violations_;
};

}  // namespace

std::vector<std::string> violations(const Scenario& scenario, const std::vector<Fault>& faults,
                                    const History& history) {
    return Checker(scenario, faults, history).check();
}

}  // namespace histories
