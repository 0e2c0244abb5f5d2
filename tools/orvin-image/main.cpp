// orvin-image: makes and shows firmware image files.

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <iostream>
#include <limits>
#include <map>
#include <new>
#include <stdexcept>
#include <string>

#include "common/firmware_descriptor.h"
#include "common/firmware_target.h"
#include "common/one_line.h"
#include "orvin-image/create.h"
#include "orvin-image/image_file.h"
#include "orvin-image/show.h"

namespace {

constexpr int kFailure = 2;

const std::map<std::string, std::uint32_t> kTargets = {
    {"arm", codeOf(FirmwareTarget::Arm)},
    {"dsp", codeOf(FirmwareTarget::Dsp)},
    {"booster-arm", codeOf(FirmwareTarget::BoosterArm)},
};

// Returns an error text, empty if it is a number. CLI11 itself reads octal numbers, too.
std::string checkNumber(const std::string& text) {
    const CLI::Range range(0U, std::numeric_limits<std::uint32_t>::max());
    const bool isOctal = text.size() > 1 && text[0] == '0' && text[1] >= '0' && text[1] <= '9';
    if (!isOctal && range(text).empty()) {
        return "";
    }
    return "'" + onOneLine(text) + "' is not a number from 0 to 4294967295: decimal without a " +
           "leading zero, or hexadecimal with 0x in front";
}

// Converts a version with dots to its number. It is written like an IPv4 address: decimal parts
// from 0 to 255 without leading zeros, but the first of four may be left out.
std::string numberOfVersion(const std::string& text) {
    const auto dots = std::count(text.begin(), text.end(), '.');
    if (dots == 0) {
        return text;
    }
    in_addr parts{};
    if (inet_pton(AF_INET, (dots == 2 ? "0." + text : text).c_str(), &parts) != 1) {
        throw CLI::ValidationError("'" + onOneLine(text) +
                                   "' is not a version: a number, or three or four numbers from 0 "
                                   "to 255 with dots between them, like 1.3.0");
    }
    return std::to_string(ntohl(parts.s_addr));
}

void addCreate(CLI::App& app, orvin_image::CreateOptions& options) {
    CLI::App* const create = app.add_subcommand("create", "Make an image file");
    create->add_option("OUTPUT", options.output, "The image file to write")
        ->required()
        ->option_text(" ");
    FirmwareImageHeader& header = options.header;
    create
        ->add_option("--target", header.device,
                     "What it is for: arm, dsp, booster-arm or a number (required)")
        ->option_text("TARGET")
        ->required()
        ->transform(CLI::Transformer(kTargets))
        ->check(checkNumber);
    create
        ->add_option("--version", header.version,
                     "Version of the firmware: a number, or like 1.3.0 (required)")
        ->option_text("VERSION")
        ->required()
        ->transform(numberOfVersion)
        ->check(checkNumber);
    CLI::Option* const file = create->add_option(
        "--content", options.contentFile, "File with the content [one of --content, --size]");
    CLI::Option* const size = create->add_option(
        "--size", options.size, "Generate so many bytes of content [one of --content, --size]");
    file->option_text("FILE");
    size->option_text("BYTES")->excludes(file);
    size->check(CLI::Range(std::uint32_t{firmware::Descriptor::kSize}, orvin_image::kMaxContent));
    size->check(checkNumber);
    create->callback([file, size] {
        if (file->count() + size->count() == 0) {
            throw CLI::RequiredError("--content or --size");
        }
    });
    create
        ->add_flag("--add-descriptor", options.addDescriptor,
                   "Put the descriptor that simulated devices read in front of --content")
        ->option_text(" ")
        ->needs(file);
    create->add_option("--manufacturer", header.manufacturer, "Manufacturer code, 0 if not given")
        ->option_text("NUMBER")
        ->check(checkNumber);
    create->add_option("--content-type", header.contentType, "Content type code, 0 if not given")
        ->option_text("NUMBER")
        ->check(checkNumber);
}

}  // namespace

int main(int argc, char** argv) try {
    CLI::App app("Makes and shows the firmware image files of Orvin devices.", "orvin-image");
    app.require_subcommand(1);
    app.get_formatter()->label("Positionals", "Arguments");
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.set_version_flag("--version", "orvin-image " ORVIN_VERSION, "Print the version and exit");

    orvin_image::CreateOptions createOptions;
    addCreate(app, createOptions);

    std::string shownImage;
    bool asJson = false;
    CLI::App* const show = app.add_subcommand(
        "show", "Print the header of an image file, and whether the upgrade tool would refuse it");
    show->add_option("IMAGE", shownImage, "The image file")->required()->option_text(" ");
    show->add_flag("--json", asJson, "Print JSON");

    CLI11_PARSE(app, argc, argv);
    std::signal(SIGXFSZ, SIG_IGN);  // a write beyond the limit then fails, and is reported
    int result = 0;
    if (show->parsed()) {
        result = orvin_image::show(shownImage, asJson);
    } else {
        orvin_image::create(createOptions);
    }
    if (!std::cout.flush() || std::fflush(stdout) != 0) {
        throw std::runtime_error("the output cannot be written");
    }
    return result;
} catch (const std::bad_alloc&) {
    std::cerr << "orvin-image: not enough memory" << std::endl;
    return kFailure;
} catch (const std::exception& error) {
    std::cerr << "orvin-image: " << error.what() << std::endl;
    return kFailure;
}
