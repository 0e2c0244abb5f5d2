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
#include <stdexcept>
#include <string>

#include "image/firmware_target.h"
#include "orvin-image/create.h"
#include "orvin-image/show.h"
#include "sim/one_line.h"

namespace {

constexpr int kFailure = 2;

constexpr std::uint32_t code(FirmwareTarget target) {
    return static_cast<std::uint32_t>(target);
}

const std::map<std::string, std::uint32_t> kTargets = {
    {"arm", code(FirmwareTarget::Arm)},
    {"dsp", code(FirmwareTarget::Dsp)},
    {"booster-arm", code(FirmwareTarget::BoosterArm)},
};

// Decimal, or hexadecimal with 0x in front, of 32 bits. Empty, or what is wrong.
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

// A target's name has become its code before.
std::string checkTarget(const std::string& text) {
    const bool isNumber = !text.empty() && std::isdigit(static_cast<unsigned char>(text[0])) != 0;
    return isNumber ? checkNumber(text)
                    : "'" + onOneLine(text) + "' is not arm, dsp, booster-arm or a number";
}

void addCreate(CLI::App& app, orvin_image::CreateOptions& options) {
    CLI::App* const create = app.add_subcommand("create", "Make an image file");
    create->add_option("output", options.output, "The image file to write")->required();
    create
        ->add_option("--target", options.target, "What it is for: arm, dsp, booster-arm or a code")
        ->required()
        ->transform(CLI::Transformer(kTargets))
        ->check(checkTarget);
    create->add_option("--version", options.version, "Version of the firmware")
        ->required()
        ->check(checkNumber);
    create->add_option("--manufacturer", options.manufacturer, "Manufacturer code")
        ->check(checkNumber);
    create->add_option("--content-type", options.contentType, "Content type code")
        ->check(checkNumber);

    CLI::Option_group* const content = create->add_option_group("content");
    CLI::Option* const file =
        content->add_option("--content", options.contentFile, "File with the content");
    content->add_option("--size", options.size, "Generate so many bytes of content")
        ->check(checkNumber);
    content->require_option(1);
    create
        ->add_flag("--add-descriptor", options.addDescriptor,
                   "Put the descriptor that simulated devices read in front of the content")
        ->needs(file);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Makes and shows the firmware image files of Orvin devices.", "orvin-image");
    app.require_subcommand(1);

    orvin_image::CreateOptions createOptions;
    addCreate(app, createOptions);

    std::string shownImage;
    bool asJson = false;
    CLI::App* const show = app.add_subcommand(
        "show", "Print the header of an image file, and whether the upgrade tool would refuse it");
    show->add_option("image", shownImage, "The image file")->required();
    show->add_flag("--json", asJson, "Print JSON");

    CLI11_PARSE(app, argc, argv);
    std::signal(SIGXFSZ, SIG_IGN);  // a write beyond the limit fails instead, and is told of
    try {
        const int result = show->parsed() ? orvin_image::show(shownImage, asJson)
                                          : orvin_image::create(createOptions);
        if (!std::cout.flush() || std::fflush(stdout) != 0) {
            throw std::runtime_error("the output cannot be written");
        }
        return result;
    } catch (const std::exception& error) {
        std::cerr << "orvin-image: " << error.what() << std::endl;
        return kFailure;
    }
}
