// The promises of docs/reliability.md. They check only the bus calls, the files and the output of a
// run.

#include <algorithm>
#include <map>
#include <sstream>

#include "common/vanid_text.h"
#include "search/case.h"

namespace {

using sim::Call;
using sim::Function;
using Texts = std::multiset<std::string>;

// The devices listed under every line that contains `title`.
Texts listedUnder(const std::string& title, const std::string& console) {
    Texts listed;
    std::istringstream lines(console);
    bool inList = false;
    for (std::string line; std::getline(lines, line);) {
        if (inList && line.compare(0, 2, "  ") == 0) {
            listed.insert(line.substr(2));
        } else {
            inList = line.find(title) != std::string::npos;
        }
    }
    return listed;
}

std::uint32_t versionIn(const sim::Versions& versions, std::uint32_t target) {
    return target == kArm ? versions.arm : target == kDsp ? versions.dsp : versions.boosterArm;
}

// What came of the image that was last announced to a device.
struct Upgrade {
    const Image* image = nullptr;
    std::map<const Image*, int> attempts;
    std::map<std::uint32_t, const Image*> announced;  // the last one for each target
    bool isAccepted = false;                          // by the device: the announcement
    bool isChecked = false;
    bool isAsked = false;              // for its version, since then
    std::size_t acknowledged = 0;      // bytes
    std::size_t completions = 0;       // attempts in which it accepted each step
    std::vector<std::int64_t> answer;  // the last one about its versions; empty: it did not answer
};

class Checker {
public:
    Checker(const Case& searchedCase, const ToolRun& checked)
        : searched(searchedCase), run(checked) {}

    Findings check() {
        for (const Record& record : run.records) {
            follow(record.call, upgrades[deviceOf(record.call)]);
            require(record.call.function != Function::Cleanup ||
                        record.consoleLength == run.system.console.size(),
                    "prints after the mode's end");
        }
        require(notUpgraded.empty() || run.printed("Retrying upgrade on following "),
                "not tried again");
        itTellsTheTruth();
        itReportsEachDeviceThatItDrops();
        require(!isRefused || run.printed("Failed to transfer data to the Orvins"),
                "a refused packet is not reported");
        theStatusFileIsComplete();
        itCleansUpTheBus();
        require(run.system.openFiles.empty(), "a file left open");
        return broken;
    }

private:
    void itTellsTheTruth() {
        require(run.exitStatus == expectedStatus(), "wrong exit status");
        for (const std::string& device : updated) {
            // A simulated device accepts a start only after a passed check.
            require(searched.has("-p") || updated.count(device) <= upgrades[device].completions,
                    "falsely named as updated", device);
        }
        for (const auto& [device, upgrade] : upgrades) {
            require(upgrade.image == nullptr || upgrade.isAsked || isDropped(device),
                    "not asked for its version again", device);
        }
        for (const std::string& device : notUpgraded) {
            const Upgrade& upgrade = upgrades[device];
            const auto isOld = [&upgrade](const Image& image) {
                return image.target <= kBooster && !upgrade.answer.empty() &&
                       upgrade.answer[image.target - kArm + 1] != image.version;
            };
            // A late fault can drop a device before the next image is announced to it.
            const bool lacksLater = isDropped(device) && std::any_of(searched.images.begin(),
                                                                     searched.images.end(), isOld);
            require(upgrade.image != nullptr && (isOld(*upgrade.image) || lacksLater),
                    "named as not upgraded, but did not answer so", device);
        }
    }

    void itReportsEachDeviceThatItDrops() {
        for (std::size_t i = 0; i < run.versions.size(); ++i) {
            const sim::MemberDescription& member = searched.setup.bus.members[i];
            const std::string device = formatVanid(member.id);
            checkNamed(device, run.versions[i]);
            if (searched.harm != Harm::AllDevices && searched.spoiled.count(device) == 0 &&
                !mayFallBehind(member)) {
                require(!isDropped(device), "dropped for another's fault", device);
                if (searched.harm == Harm::None) {
                    checkServed(member, device);
                }
            }
        }
    }

    void theStatusFileIsComplete() {
        for (const std::string& message : run.system.messages) {
            const std::string end = message.substr(message.find_last_not_of(".!") + 1);
            require(end == "..." || end == "!" || message.find(" completed") != std::string::npos,
                    "not a whole message", message);
        }
        const bool wanted = searched.has("-m") && hasSession && expectedStatus() != 128;
        require(wanted == !run.system.messages.empty() || !searched.setup.errors.empty(),
                "messages without -m, or none with it");
        const bool failed = run.printed("Error at write message: ") ||
                            run.printed("Incomplete write for message: ");
        const std::size_t status = run.system.files.count(MemorySystem::kStatusFile);
        require(run.system.files.size() == searched.setup.files.size() + status + (failed ? 1 : 0),
                "temporary files left");
    }

    void itCleansUpTheBus() {
        require(!isSet[Function::SetTransferCallback] && !isSet[Function::SetBusChangeCallback],
                "a callback left set");
        const int sessions = hasSession ? 1 : 0;
        require(calls[Function::Cleanup] == sessions && calls[Function::Close] == sessions,
                "the session is not closed once");
        require(!hasSession || run.records.back().call.function == Function::Close,
                "a call after the session's end");
    }

    // ---- what the calls tell ----

    void follow(const Call& call, Upgrade& upgrade) {
        const Function function = call.function;
        const bool succeeds = call.result == 0;
        if (function == Function::SetTransferCallback) {
            sent = nullptr;
        } else if (function == Function::WriteRequest) {
            announce(call, upgrade);
        } else if (function == Function::Data) {
            send(call);
        } else if (function == Function::TransferCallback) {
            upgrade.acknowledged += sim::kPacketBytes;
        } else if (function == Function::CheckImage) {
            upgrade.isChecked = succeeds;
            const Image* const image = upgrade.image;
            require(image != nullptr && upgrade.acknowledged >= image->content.size(),
                    "checked, though it did not acknowledge each packet", deviceOf(call));
        } else if (function == Function::StartUpdate) {
            upgrade.completions += upgrade.isAccepted && upgrade.isChecked && succeeds ? 1 : 0;
        } else if (function == Function::OrvinInfo) {
            upgrade.isAsked = true;
            upgrade.answer = succeeds ? call.answer : std::vector<std::int64_t>();
        }
        require(!readsOnly || function < Function::WriteRequest || function > Function::StartUpdate,
                "writes though it must not");
        ++calls[function];
        isSet[function] = call.text == talm::slotText(true);
    }

    void announce(const Call& call, Upgrade& upgrade) {
        for (const Image& image : searched.images) {
            const bool isIt = call.given[1] == image.target &&
                              call.given[3] == static_cast<std::int64_t>(image.content.size());
            sent = isIt ? &image : sent;
        }
        if (sent == nullptr) {
            return require(false, "announces what is in no file");
        }
        require(++upgrade.attempts[sent] <= 2, "more than two attempts", deviceOf(call));
        upgrade.image = upgrade.announced[sent->target] = sent;
        upgrade.isAccepted = call.result == 0;
        upgrade.isChecked = upgrade.isAsked = false;
        upgrade.acknowledged = 0;
        packets.clear();
    }

    void send(const Call& data) {
        const std::size_t start = static_cast<std::size_t>(data.given[0]) * sim::kPacketBytes;
        const bool isContent =
            sent == nullptr || (start < sent->content.size() &&
                                sent->content.substr(start, sim::kPacketBytes) ==
                                    data.content.substr(0, sent->content.size() - start));
        require(isContent && isBroadcastVanid(*data.device), "another packet's content");
        isRefused |= data.result != sim::result::kBroadcast;
        repeatsPackets |= !packets.insert(data.given[0]).second;
    }

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
        const std::set<std::string> distinct(updated.begin(), updated.end());
        return failed ? 255 : static_cast<int>(distinct.size());
    }

    bool isDropped(const std::string& device) const {
        return run.printed("Removing Orvin " + device) || run.printed("Removing orvin '" + device);
    }

    // A device to which an image was announced is named: as updated, as dropped with the reason, or
    // by the one line for all devices of a failed transfer. It runs the last version of each
    // target, or the console says that it may not.
    void checkNamed(const std::string& device, const sim::Versions& versions) {
        const Upgrade& upgrade = upgrades[device];
        const bool mayBeOld = isDropped(device) || run.printed("Error in sendChunk(): ");
        require(upgrade.image == nullptr || mayBeOld || updated.count(device) != 0,
                "left without a word", device);
        for (const auto& [target, image] : upgrade.announced) {
            require(versionIn(versions, target) == image->version || mayBeOld ||
                        notUpgraded.count(device) != 0,
                    "runs another version in the end, and the tool does not say so", device);
        }
    }

    // Whether the device may fail for another one's fault: it is busy when the packet after a
    // repeated one comes, or it is silent when the tool goes back for the other one.
    bool mayFallBehind(const sim::MemberDescription& member) const {
        return (member.timing.busy > 0 && repeatsPackets) ||
               (member.faults.ignoresRepeats && run.printed("Go back in fw"));
    }

    // A healthy device on a sound bus gets every image that it needs, and no other.
    void checkServed(const sim::MemberDescription& member, const std::string& device) {
        require(!searched.has("-l") || run.printed(device), "not listed", device);
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

    void require(bool holds, const char* what, const std::string& about = {}) {
        if (!holds) {
            broken.push_back(std::string(what) + ' ' + about);
        }
    }

    const Case& searched;
    const ToolRun& run;
    const bool readsOnly = searched.has("-p") || searched.has("-l") || searched.has("-V");
    const bool hasSession = !run.printed("Failed to initialize lumnet lib on ");
    const Texts updated = listedUnder("Successfully updated ", run.system.console);
    const Texts notUpgraded = listedUnder("could not be upgraded", run.system.console);
    std::map<std::string, Upgrade> upgrades;  // by device
    const Image* sent = nullptr;              // in the transfer
    std::set<std::int64_t> packets;           // sent in it
    std::map<Function, int> calls;
    std::map<Function, bool> isSet;  // as the last call said
    bool repeatsPackets = false;
    bool isRefused = false;
    Findings broken;
};

}  // namespace

Findings brokenPromises(const Case& searched, const ToolRun& run) {
    if (run.lacksMemory) {  // the process ends, from which nothing more can be expected
        const auto isTemporary = [](const auto& file) { return file.first.rfind("mem:", 0) != 0; };
        const bool left =
            std::any_of(run.system.files.begin(), run.system.files.end(), isTemporary);
        return Findings(left ? 1 : 0, "a temporary file left");
    }
    if (!run.ended) {
        return {"does not end in time"};
    }
    return Checker(searched, run).check();
}
