// orvin-image: makes and shows firmware image files.

#include <CLI/CLI.hpp>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <limits>
#include <map>
#include <new>
#include <stdexcept>
#include <string>

#include "common/firmware_target.h"
#include "common/one_line.h"
#include "orvin-image/create.h"
#include "orvin-image/show.h"
#include "orvin-image/version.h"

namespace {

constexpr int kFailure = 2;

const std::map<std::string, std::uint32_t> kTargets = {
    {"arm", codeOf(FirmwareTarget::Arm)},
    {"dsp", codeOf(FirmwareTarget::Dsp)},
    {"booster-arm", codeOf(FirmwareTarget::BoosterArm)},
};

// Checks a decimal or hexadecimal number of 32 bits. Returns an error text, empty if it is valid.
std::string checkNumber(const std::string& text) {
    const bool isDecimal = text.rfind("0x", 0) != 0 && text.rfind("0X", 0) != 0;
    const std::string digits = isDecimal ? text : text.substr(2);
    const char* const allowed = isDecimal ? "0123456789" : "0123456789abcdefABCDEF";
    const std::string shown = "'" + onOneLine(text) + "'";
    if (digits.empty() || digits.find_first_not_of(allowed) != std::string::npos) {
        return shown + " is not a number: decimal, or hexadecimal with 0x in front";
    }
    if (isDecimal && digits.size() > 1 && text[0] == '0') {
        return shown + " begins with 0, but numbers are not octal: decimal, or hexadecimal with 0x";
    }
    errno = 0;
    const auto value = std::strtoull(digits.c_str(), nullptr, isDecimal ? 10 : 16);
    const bool fits = errno == 0 && value <= std::numeric_limits<std::uint32_t>::max();
    return fits ? "" : shown + " is too large: the range is 0 to 4294967295 (0xffffffff)";
}

// Runs after the name of a target was replaced by its code.
std::string checkTarget(const std::string& text) {
    const bool isNumber = !text.empty() && std::isdigit(static_cast<unsigned char>(text[0])) != 0;
    return isNumber ? checkNumber(text)
                    : "'" + onOneLine(text) + "' is not arm, dsp, booster-arm or a number";
}

// Converts a version with dots to its number.
std::string numberOfVersion(const std::string& text) {
    if (text.find('.') == std::string::npos) {
        return text;
    }
    if (const auto version = orvin_image::parseDotted(text)) {
        return std::to_string(*version);
    }
    throw CLI::ValidationError("'" + onOneLine(text) +
                               "' is not a version: a number, or three or four numbers from 0 to "
                               "255 with dots between them, like 1.3.0");
}

void addCreate(CLI::App& app, orvin_image::CreateOptions& options) {
    CLI::App* const create = app.add_subcommand("create", "Make an image file");
    create->add_option("OUTPUT", options.output, "The image file to write")
        ->required()
        ->option_text(" ");
    create
        ->add_option("--target", options.target,
                     "What it is for: arm, dsp, booster-arm or a number (required)")
        ->option_text("TARGET")
        ->required()
        ->transform(CLI::Transformer(kTargets))
        ->check(checkTarget);
    create
        ->add_option("--version", options.version,
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
    size->option_text("BYTES")->check(checkNumber)->excludes(file);
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
    create->add_option("--manufacturer", options.manufacturer, "Manufacturer code, 0 if not given")
        ->option_text("NUMBER")
        ->check(checkNumber);
    create->add_option("--content-type", options.contentType, "Content type code, 0 if not given")
        ->option_text("NUMBER")
        ->check(checkNumber);
}

}  // namespace

int main(int argc, char** argv) {
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
    try {
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
}
