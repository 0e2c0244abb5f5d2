#include <iostream>
#include <limits>
#include <stdexcept>

#include "firmware/descriptor.h"
#include "orvin-image/commands.h"
#include "orvin-image/image_file.h"

namespace orvin_image {

namespace {

constexpr std::size_t kMaxContent = std::numeric_limits<std::int32_t>::max() - 1024;
constexpr char kTooLong[] = "the content is too long: an image has less than 2 GiB";

Bytes generate(const CreateOptions& options, std::size_t size) {
    if (size < firmware::Descriptor::kSize) {
        throw std::runtime_error("generated content has at least " +
                                 std::to_string(firmware::Descriptor::kSize) +
                                 " bytes: it begins with a descriptor");
    }
    if (size > kMaxContent) {
        throw std::runtime_error(kTooLong);
    }
    return generateContent(options.target, options.version, size);
}

Bytes makeContent(const CreateOptions& options) {
    if (options.size) {
        return generate(options, *options.size);
    }
    const Bytes content = readFile(options.contentFile);
    return options.addDescriptor ? addDescriptor(options.target, options.version, content)
                                 : content;
}

}  // namespace

int create(const CreateOptions& options) {
    const Bytes content = makeContent(options);
    if (content.size() > kMaxContent) {
        throw std::runtime_error(kTooLong);
    }
    if (!isFirmware(content, options.target, options.version)) {
        std::cerr
            << "note: the content has no descriptor of this target and version, so a simulated "
               "device will not run it (see --add-descriptor)"
            << std::endl;
    }
    FirmwareImageHeader header;
    header.manufacturer = options.manufacturer;
    header.device = options.target;
    header.contentType = options.contentType;
    header.version = options.version;
    writeFile(options.output, encodeImage(header, content));
    return 0;
}

}  // namespace orvin_image
