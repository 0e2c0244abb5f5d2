#include "support/described_run.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

#include "sim/bus_file/bus_file.h"

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
    const Json& id = member.at("id");
    Json whole;
    if (!member.contains("type")) {
        const Json old = {{"arm", kOldVersion},
                          {"dsp", kOldVersion},
                          {"booster_arm", kOldVersion},
                          {"api", 0x30a}};
        whole = {{"type", kOrvinType}, {"name", "Orvin"}, {"versions", old}};
    }
    whole.update(member);
    whole["id"] = id.is_number() ? Json(orvinText(id)) : id;
    return whole;
}

std::string patched(std::string image, std::size_t offset, const std::string& bytes) {
    return image.replace(offset, bytes.size(), bytes);
}

}  // namespace

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
