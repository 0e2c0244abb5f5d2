#include "support/tool_run.h"

#include <algorithm>
#include <cstdlib>
#include <iomanip>
#include <new>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "app/run.h"
#include "common/vanid_text.h"
#include "core/run_config.h"
#include "orvin-image/image_file.h"
#include "recording/lines.h"
#include "sim/bus_file/bus_file.h"
#include "sim/library/bus_opener.h"
#include "status/message_writer.h"
#include "support/files.h"

namespace {

using sim::Json;

// Splits the command line at blanks outside quotes.
std::vector<std::string> wordsOf(const std::string& commandLine) {
    std::vector<std::string> words;
    std::istringstream text(commandLine);
    for (std::string word; text >> std::quoted(word, '\'');) {
        words.push_back(word);
    }
    return words;
}

Json completed(const Json& member) {
    const char* const old = member.contains("type") ? "{}" : R"({"type": 64, "name": "Orvin",
        "versions": {"arm": "0x10000", "dsp": "0x10000", "booster_arm": "0x10000", "api": "0x30a"}})";
    Json whole = Json::parse(old);
    whole.update(member);
    const Json& id = member.at("id");
    whole["id"] = id.is_number() ? Json(orvinText(id)) : id;
    return whole;
}

std::string patched(std::string image, std::size_t offset, const std::string& bytes) {
    return image.replace(offset, bytes.size(), bytes);
}

// After a failed wait for the link or an aborted run, the writer lives until the process ends.
// Tests continue, so they drop it here. False if there is none.
bool dropMessageWriter() {
    try {
        delete MessageWriter::instance();
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
}

// Records what happens. Asked first of the interceptors, so that no memory of theirs is the tool's.
class Recorder : public sim::Interceptor {
public:
    std::optional<sim::InjectedResult> before(const sim::Call& call) override {
        ++MemorySystem::outside;
        MemorySystem::instance().tell("");
        underWay.push_back(records.size());
        records.push_back(
            {sim::VirtualTime::time, 0, MemorySystem::instance().console.size(), call});
        const bool fails = call.function == sim::Function::Initialize &&
                           MemorySystem::instance().fails("initialize");
        return fails ? std::optional(sim::InjectedResult{-1}) : std::nullopt;
    }
    void after(const sim::Call& call) override {
        Record& record = records[underWay.back()];
        record.call = call;
        record.took = sim::VirtualTime::time - record.time;
        underWay.pop_back();
        --MemorySystem::outside;
    }

    std::vector<Record> records;

private:
    std::vector<std::size_t> underWay;  // a callback may come while a call sleeps
};

void runMain(const ToolSetup& setup, ToolRun& run) {
    std::vector<std::string> arguments = {"/usr/bin/orvin-firmware-upgrade", "-c", "sim:bus"};
    arguments.insert(arguments.end(), setup.arguments.begin(), setup.arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    RunConfig config;
    MemorySystem::outside = 0;
    MemorySystem::allocationsUntilFailure = setup.failingAllocation;
    try {
        run.exitStatus = ::run(config, static_cast<int>(arguments.size()), argv.data()) & 0xff;
        run.ended = true;
    } catch (const sim::TimeLimitReached&) {
        run.ended = false;
    } catch (const std::bad_alloc&) {
        run.lacksMemory = true;
    }
    run.allocationsLeft = std::exchange(MemorySystem::allocationsUntilFailure, 0);
    run.writerLeft = dropMessageWriter();
}

}  // namespace

std::string ToolRun::trace() const {
    recording::Lines lines;
    for (const Record& record : records) {
        const std::uint32_t thread = sim::isCallback(record.call.function) ? 2 : 1;
        lines.add({record.time, record.took, thread}, record.call);
    }
    return lines.take(true);
}

ToolRun runTool(const ToolSetup& setup, sim::Interceptor* interceptor,
                const std::function<void(const std::string& call)>& before) {
    MemorySystem& memory = MemorySystem::instance() = {};
    memory.files = setup.files;
    memory.errors = setup.errors;
    memory.before = before;
    sim::VirtualTime::reset(setup.timeLimit);
    Recorder recorder;
    sim::interceptors() = {&recorder};
    if (interceptor != nullptr) {
        sim::interceptors().push_back(interceptor);
    }
    auto bus = std::make_shared<sim::Bus>(setup.bus);
    sim::busOpener() = [&](const std::string&) {
        if (setup.onOpen) {
            setup.onOpen(*bus);
        }
        return bus;
    };

    ToolRun run;
    captureOutput([&] { runMain(setup, run); });
    memory.before = nullptr;
    sim::busOpener() = nullptr;
    sim::interceptors().clear();
    for (const sim::MemberDescription& member : setup.bus.members) {
        run.versions.push_back(bus->findDevice(member.id)->installedVersions());
    }
    run.records = std::move(recorder.records);
    run.system = memory;
    return run;
}

RecordingAnswer askRecordingTool(const ToolRun& run, const std::string& subcommand) {
    static const TemporaryDirectory directory;
    const std::string recording = directory / "recording";
    writeText(recording, "{\"orvin-recording\":1}\n" + run.trace());
    const std::string command = "'" ORVIN_RECORDING "' " + subcommand + ' ' + recording + " >" +
                                directory / "output" + " 2>" + directory / "complaint";
    static_cast<void>(std::system(command.c_str()));  // a complaint tells of a failure
    return {readText(directory / "output"), readText(directory / "complaint")};
}

vanid_t orvinId(int number) {
    return {{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd,
             0xee, 0xff, static_cast<std::uint8_t>(number)}};
}

std::string orvinText(int number) {
    return formatVanid(orvinId(number));
}

sim::MemberDescription orvin(int number) {
    const std::string id = std::to_string(number);
    return describedRun(R"({"run": "", "members": [{"id": )" + id + "}]}").bus.members[0];
}

std::string makeImage(std::uint32_t target, std::uint32_t version, std::size_t contentSize) {
    constexpr std::uint32_t kManufacturer = 0x1234;
    constexpr std::uint32_t kContentType = 7;
    const orvin_image::Bytes bytes =
        orvin_image::encodeImage({0, kManufacturer, target, kContentType, 0, 0, version},
                                 orvin_image::generateContent(target, version, contentSize));
    return {bytes.begin(), bytes.end()};
}

ToolSetup describedRun(const std::string& json) {
    Json description = sim::parseBusFile(json);
    ToolSetup setup;
    setup.arguments = wordsOf(description.at("run"));
    setup.files = standardImages();
    setup.errors = description.value("errors", setup.errors);
    for (const char* field : {"run", "errors"}) {
        description.erase(field);
    }
    Json& members = description.emplace("members", Json::array()).first.value();
    std::transform(members.begin(), members.end(), members.begin(), completed);
    setup.bus = sim::describeBus(description);
    return setup;
}

std::map<std::string, std::string> standardImages() {
    const std::string arm = makeImage(kArm, kNewVersion, 150);
    const std::string large = makeImage(kArm, kNewVersion, 64 * 20 + 1);
    const std::string largestSize = "\xff\xff\xff\xff";
    return {
        {"mem:arm", arm},
        {"mem:dsp", makeImage(kDsp, kNewVersion, 50)},
        {"mem:booster", makeImage(kBooster, kNewVersion, 64)},
        {"mem:old", makeImage(kArm, kOldVersion, 65)},
        {"mem:empty", makeImage(kArm, kNewVersion, 0)},
        {"mem:long-header", patched(large, 4, "\x40").insert(36, 28, '\xaa')},
        {"mem:unknown", makeImage(0x203, kNewVersion, 64)},
        {"mem:small-header", patched(arm, 4, "\x14")  // 16 bytes less, so as many more of content
                                 .replace(20, 1, "\xa6")},
        {"mem:wrong-magic", patched(arm, 3, "U")},
        {"mem:wrong-both", patched(arm, 3, "U") + "x"},
        {"mem:short", arm.substr(0, 35)},
        {"mem:longer", arm + "x"},
        {"mem:shorter", arm.substr(0, arm.size() - 1)},
        {"mem:overflow", patched(arm.substr(0, 149), 4, largestSize)},  // of the sum of the sizes
    };
}
