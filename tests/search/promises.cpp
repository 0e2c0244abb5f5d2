// The promises of docs/reliability.md, one function each, in the same order. They check only the
// bus calls, the files and the output of a run.

#include "search/promises.h"

#include <algorithm>
#include <map>
#include <sstream>

#include "common/vanid_text.h"

namespace {

using sim::Call;
using sim::Function;
using Texts = std::set<std::string>;

constexpr char kNextImage[] = "Downloading image ";
constexpr char kUpdated[] = "Successfully updated ";
constexpr char kTransferFailed[] = "Failed to transfer data to the Orvins";

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The devices listed under every line that contains `title`.
Texts listedUnder(const std::string& title, const std::string& console) {
    Texts listed;
    std::istringstream lines(console);
    bool inList = false;
    for (std::string line; std::getline(lines, line);) {
        if (inList && line.compare(0, 2, "  ") == 0) {
            listed.insert(line.substr(2));
        } else {
            inList = contains(line, title);
        }
    }
    return listed;
}

using Calls = std::vector<const Call*>;

bool accepted(const Calls& calls) {
    return !calls.empty() && calls.back()->result == 0;
}

// One transfer of one image, from its first write request until the tool names another.
struct Attempt {
    const Image* image = nullptr;
    int number = 0;        // 1 or 2: first or second attempt with the image
    std::size_t end = 0;   // its end in the console
    std::string transfer;  // its console output up to the end of the transfer
    std::string rest;      // the rest of its console output
    Texts updated;         // devices that the console names as updated
    std::map<std::string, std::map<Function, Calls>> devices;  // the calls by device
    std::set<std::int64_t> packets;                            // numbers of the sent packets
    bool repeatsPackets = false;  // for a device that asked or was silent

    // Because the device does not answer, or because of a late fault.
    bool isDroppedLate(const std::string& device) const {
        return contains(rest, "Removing Orvin " + device);
    }
};

bool carriesItsContent(const Call& data, const Image& image) {
    const std::size_t start = static_cast<std::size_t>(data.given[0]) * sim::kPacketBytes;
    return isBroadcastVanid(*data.device) && start < image.content.size() &&
           image.content.compare(start, sim::kPacketBytes, data.content, 0,
                                 image.content.size() - start) == 0;
}

std::uint32_t versionIn(const sim::Versions& versions, std::uint32_t target) {
    return target == kArm ? versions.arm : target == kDsp ? versions.dsp : versions.boosterArm;
}

class Checker {
public:
    Checker(const Case& searchedCase, const ToolRun& checked)
        : searched(searchedCase), run(checked) {
        findAttempts();
    }

    std::vector<std::string> check() {
        itEnds();
        itTellsTheTruth();
        itReportsEachDeviceThatItDrops();
        itSendsWhatIsInTheFile();
        theStatusFileIsComplete();
        itCleansUpTheBus();
        itSurvivesItsEnvironment();
        return broken;
    }

private:
    void itEnds() {
        for (const Attempt& attempt : attempts) {
            require(attempt.number <= 2, "more than two attempts");
        }
        for (std::size_t at = 0; (at = run.console.find("\nUpgrading ", at)) != std::string::npos;
             ++at) {
            const std::string rest = run.console.substr(at, run.console.find(kNextImage, at) - at);
            require(contains(rest, "Update took") || contains(rest, "Failed to transfer data") ||
                        contains(rest, "Removing image files"),
                    "announces an upgrade that does not come");
        }
        require(notUpgraded.empty() || run.printed("Retrying upgrade on following "),
                "not tried again");
    }

    void itTellsTheTruth() {
        require(run.exitStatus == expectedStatus(), "wrong exit status");
        for (Attempt& attempt : attempts) {
            for (auto& [device, calls] : attempt.devices) {
                require(calls[Function::WriteRequest].empty() ||
                            !calls[Function::OrvinInfo].empty() || attempt.isDroppedLate(device),
                        "not asked for its version again", device);
            }
            for (const std::string& device : attempt.updated) {
                // A simulated device accepts a start only after a passed check.
                auto& calls = attempt.devices[device];
                for (const auto step :
                     {Function::WriteRequest, Function::CheckImage, Function::StartUpdate}) {
                    require(accepted(calls[step]), "falsely named as updated", device);
                }
            }
        }
        for (const std::string& device : notUpgraded) {
            require(lastAnswerDiffers(device), "named as not upgraded, but did not answer so",
                    device);
        }
    }

    void itReportsEachDeviceThatItDrops() {
        for (std::size_t i = 0; i < attempts.size(); ++i) {
            for (auto& [device, calls] : attempts[i].devices) {
                if (!calls[Function::WriteRequest].empty()) {
                    checkNamed(i, device);
                }
            }
        }
        const auto& members = searched.setup.bus.members;
        for (std::size_t i = 0; i < members.size(); ++i) {
            checkNewOrNamed(formatVanid(members[i].id), run.versions[i]);
        }
        for (const sim::MemberDescription& member : members) {
            const std::string device = formatVanid(member.id);
            if (searched.harm == Harm::AllDevices || searched.spoiled.count(device) != 0) {
                continue;
            }
            checkKept(member, device);
            if (searched.harm == Harm::None) {
                checkServed(member, device);
            }
        }
    }

    void itSendsWhatIsInTheFile() {
        for (Attempt& attempt : attempts) {
            const bool failed = contains(attempt.rest, kTransferFailed);
            const std::size_t size = attempt.image->content.size();
            for (auto& [device, calls] : attempt.devices) {
                for (const Call* const data : calls[Function::Data]) {
                    require(carriesItsContent(*data, *attempt.image), "another packet's content");
                    require(failed || data->result == sim::result::kBroadcast,
                            "a refused packet is not reported");
                }
                require(calls[Function::CheckImage].empty() ||
                            calls[Function::TransferCallback].size() * sim::kPacketBytes >= size,
                        "checked, though it did not acknowledge each packet", device);
            }
        }
    }

    void theStatusFileIsComplete() {
        for (const std::string& message : run.messages) {
            const std::string end = message.substr(message.find_last_not_of(".!") + 1);
            require(end == "..." || end == "!" || contains(message, " completed"),
                    "not a whole message", message);
        }
        const bool wanted = searched.has("-m") && hasSession && expectedStatus() != 128;
        require(wanted == !run.messages.empty() || searched.statusFault.number == 1,
                "messages without -m, or none with it");
        const bool failed = run.printed("Error at write message: ") ||
                            run.printed("Incomplete write for message: ");
        const std::size_t status = run.filesNow.count(MemorySystem::kStatusFile);
        require(run.filesNow.size() == searched.setup.files.size() + status + (failed ? 1 : 0),
                "temporary files left");
    }

    void itCleansUpTheBus() {
        const bool readsOnly = searched.has("-p") || searched.has("-l") || searched.has("-V");
        std::map<Function, bool> isSet;
        for (const Record& record : run.records) {
            const Function function = record.call.function;
            require(
                !readsOnly || function < Function::WriteRequest || function > Function::StartUpdate,
                "writes though it must not");
            isSet[function] = record.call.text == "set";
            require(function != Function::Cleanup || record.consoleLength == run.console.size(),
                    "prints after the mode's end");
        }
        require(!isSet[Function::SetTransferCallback] && !isSet[Function::SetBusChangeCallback],
                "a callback left set");
        const int sessions = hasSession ? 1 : 0;
        require(run.calls(Function::Cleanup) == sessions && run.calls(Function::Close) == sessions,
                "the session is not closed once");
        require(!hasSession || run.records.back().call.function == Function::Close,
                "a call after the session's end");
    }

    void itSurvivesItsEnvironment() { require(run.filesOpen == 0, "a file left open"); }

    // ---- parts of the promises ----

    int expectedStatus() const {
        if (!hasSession) {
            return 132;
        }
        if (run.printed("Coult not initialize message writer!")) {
            return 128;
        }
        if (run.printed("Bus not ACTIVE, exiting.")) {
            return 133;
        }
        if (!notUpgraded.empty()) {
            return 139;
        }
        const bool failed = run.printed("Error while reading") || run.printed("Error: invalid");
        return failed ? 255 : static_cast<int>(updated.size());
    }

    // Whether the device answered with another version than that of the image that was named last.
    bool lastAnswerDiffers(const std::string& device) const {
        const std::size_t line = run.console.rfind(kNextImage);
        const auto isNamed = [&](const Image& image) {
            return run.console.find(kNextImage + image.name, line) == line;
        };
        const auto image = std::find_if(searched.images.begin(), searched.images.end(), isNamed);
        const auto answer =
            std::find_if(run.records.rbegin(), run.records.rend(), [&](const Record& record) {
                return record.call.function == Function::OrvinInfo &&
                       deviceOf(record.call) == device;
            });
        return image != searched.images.end() && answer != run.records.rend() &&
               answer->call.result == 0 &&
               answer->call.answer[image->target - kArm + 1] != image->version;
    }

    static bool isDropped(const std::string& console, const std::string& device) {
        return contains(console, "Removing Orvin " + device) ||
               contains(console, "Removing orvin '" + device);
    }

    // The console names the device as updated, or as dropped with the reason. If the transfer
    // failed, one line stands for all devices.
    void checkNamed(std::size_t number, const std::string& device) {
        Attempt& attempt = attempts[number];
        require(isDropped(attempt.transfer, device) || attempt.updated.count(device) != 0 ||
                    contains(attempt.transfer, "Error in sendChunk(): "),
                "left without a word", device);
    }

    // A device to which an image was announced runs its version at the end, or the console says
    // that it may not.
    void checkNewOrNamed(const std::string& device, const sim::Versions& versions) {
        std::map<std::uint32_t, Attempt*> last;  // by target
        for (Attempt& attempt : attempts) {
            if (!attempt.devices[device][Function::WriteRequest].empty()) {
                last[attempt.image->target] = &attempt;
            }
        }
        for (const auto& [target, attempt] : last) {
            require(versionIn(versions, target) == attempt->image->version ||
                        isDropped(attempt->transfer + attempt->rest, device) ||
                        contains(attempt->transfer, "Error in sendChunk(): ") ||
                        notUpgraded.count(device) != 0,
                    "runs another version in the end, and the tool does not say so", device);
        }
    }

    // Whether the device may fail the attempt for another one's fault: it is busy when the packet
    // after a repeated one comes, or it is silent when the tool goes back for the other one.
    static bool mayFallBehind(const sim::MemberDescription& member, const Attempt& attempt) {
        return (member.timing.busy > 0 && attempt.repeatsPackets) ||
               (member.faults.ignoresRepeats && contains(attempt.transfer, "Go back in fw"));
    }

    void checkKept(const sim::MemberDescription& member, const std::string& device) {
        bool mayFail = false;
        for (const Attempt& attempt : attempts) {
            const bool excused = mayFallBehind(member, attempt);
            mayFail |= excused;
            require(excused || !isDropped(attempt.transfer + attempt.rest, device),
                    "dropped for another's fault", device);
        }
        require(mayFail || !isDropped(run.console, device), "dropped for another's fault", device);
    }

    // Whether a healthy device may miss an image: it fell behind in both attempts, or in the first
    // attempt with an image whose version it already had, which has no second attempt.
    bool isLeftBehind(const sim::MemberDescription& member) const {
        const auto fallsBehindAgain = [&](const Attempt& before, const Attempt& attempt) {
            return attempt.number == 2 && mayFallBehind(member, before) &&
                   mayFallBehind(member, attempt);
        };
        const auto needsNoneAndFallsBehind = [&](const Attempt& attempt) {
            return mayFallBehind(member, attempt) &&
                   versionIn(member.versions, attempt.image->target) == attempt.image->version;
        };
        return std::any_of(attempts.begin(), attempts.end(), needsNoneAndFallsBehind) ||
               std::adjacent_find(attempts.begin(), attempts.end(), fallsBehindAgain) !=
                   attempts.end();
    }

    // A healthy device on a sound bus gets every image that it needs, and no other.
    void checkServed(const sim::MemberDescription& member, const std::string& device) {
        require(!searched.has("-l") || run.printed(device), "not listed", device);
        if (isLeftBehind(member)) {
            return;
        }
        require(notUpgraded.count(device) == 0, "healthy, but not upgraded", device);
        const bool chosen = !searched.has("-l") && !searched.has("-V") &&
                            (searched.has("-B") || searched.has(device));
        const bool needed =
            std::any_of(searched.images.begin(), searched.images.end(), [&](const Image& image) {
                return !image.content.empty() && image.target <= kBooster &&
                       (searched.has("-f") ||
                        versionIn(member.versions, image.target) != image.version);
            });
        const bool endedEarly = !notUpgraded.empty();  // because of other devices
        require(endedEarly || (updated.count(device) != 0) == (chosen && needed),
                "passed over, or updated without need", device);
    }

    void findAttempts() {
        Function last = Function::Initialize;
        for (const Record& record : run.records) {
            const Call& call = record.call;
            if (call.function == Function::WriteRequest && last != Function::WriteRequest) {
                beginAttempt(record.consoleLength);
            }
            last = sim::isCallback(call.function) ? last : call.function;
            if (!attempts.empty() && record.consoleLength <= attempts.back().end) {
                attempts.back().devices[deviceOf(call)][call.function].push_back(&call);
                markRepeats(attempts.back(), call);
            }
        }
    }

    static void markRepeats(Attempt& attempt, const Call& call) {
        if (call.function == Function::Data) {
            attempt.repeatsPackets |= !attempt.packets.insert(call.given[0]).second;
        }
    }

    void beginAttempt(std::size_t begin) {
        const std::size_t line = run.console.rfind(kNextImage, begin);
        Attempt attempt;
        for (const Image& image : searched.images) {
            const bool named = run.console.find(kNextImage + image.name, line) == line;
            attempt.image = named ? &image : attempt.image;
        }
        if (attempt.image == nullptr) {
            return require(false, "sends an image that it has not named");
        }
        const bool again = !attempts.empty() && attempts.back().image == attempt.image;
        attempt.number = again ? attempts.back().number + 1 : 1;
        attempt.end = std::min({run.console.find(kNextImage, begin), run.console.size(),
                                run.console.find("Retrying upgrade on following ", begin)});
        const std::string text = run.console.substr(begin, attempt.end - begin);
        const std::size_t transferred =
            std::min({text.find(kTransferFailed), text.find("Update took "), text.size()});
        attempt.transfer = text.substr(0, transferred);
        attempt.rest = text.substr(transferred);
        attempt.updated = listedUnder(kUpdated, attempt.transfer);
        attempts.push_back(attempt);
    }

    void require(bool holds, const char* what, const std::string& about = {}) {
        if (!holds) {
            broken.push_back(std::string(what) + ' ' + about);
        }
    }

    const Case& searched;
    const ToolRun& run;
    const bool hasSession = !run.printed("Failed to initialize lumnet lib on ");
    const Texts updated = listedUnder(kUpdated, run.console);
    const Texts notUpgraded = listedUnder("could not be upgraded", run.console);
    std::vector<Attempt> attempts;
    std::vector<std::string> broken;
};

}  // namespace

std::vector<std::string> brokenPromises(const Case& searched, const ToolRun& run) {
    if (run.lacksMemory) {  // the process ends, from which nothing more can be expected
        const auto isTemporary = [](const auto& file) { return file.first.rfind("mem:", 0) != 0; };
        const bool left = std::any_of(run.filesNow.begin(), run.filesNow.end(), isTemporary);
        return std::vector<std::string>(left ? 1 : 0, "a temporary file left");
    }
    if (!run.ended) {
        return {"does not end in time"};
    }
    return Checker(searched, run).check();
}
