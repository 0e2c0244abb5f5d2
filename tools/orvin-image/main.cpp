// orvin-image: makes and shows firmware image files.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <iostream>
#include <regex>
#include <stdexcept>

#include "image/firmware_target.h"
#include "orvin-image/commands.h"

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

// Decimal, or hexadecimal with 0x in front: a leading zero does not make a number octal here.
std::string checkNumber(const std::string& text) {
    static const std::regex number("0|[1-9][0-9]*|0[xX][0-9a-fA-F]+");
    return std::regex_match(text, number) ? "" : "'" + text + "' is not a number";
}

void addCreate(CLI::App& app, orvin_image::CreateOptions& options) {
    CLI::App* const create = app.add_subcommand("create", "Make an image file");
    create->add_option("output", options.output, "The image file to write")->required();
    create
        ->add_option("--target", options.target, "What it is for: arm, dsp, booster-arm or a code")
        ->required()
        ->transform(CLI::Transformer(kTargets))
        ->check(checkNumber);
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
