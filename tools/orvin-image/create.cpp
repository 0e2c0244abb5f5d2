#include "orvin-image/create.h"

#include <iostream>
#include <stdexcept>

#include "common/firmware_descriptor.h"
#include "common/replace_file.h"
#include "orvin-image/failure.h"
#include "orvin-image/image_file.h"

namespace orvin_image {

namespace {

Bytes generate(const CreateOptions& options, std::uint32_t size) {
    if (size < firmware::Descriptor::kSize) {
        throw std::runtime_error("generated content has at least " +
                                 std::to_string(firmware::Descriptor::kSize) +
                                 " bytes: it begins with a descriptor");
    }
    if (size > kMaxContent) {
        throw std::runtime_error("generated content has at most " + std::to_string(kMaxContent) +
                                 " bytes: an image has less than 2 GiB");
    }
    return generateContent(options.target, options.version, size);
}

Bytes makeContent(const CreateOptions& options) {
    if (options.size) {
        return generate(options, *options.size);
    }
    if (!options.addDescriptor) {
        return readContent(options.contentFile, kMaxContent, options.output);
    }
    return withDescriptor(options.target, options.version,
                          readContent(options.contentFile,
                                      kMaxContent - firmware::Descriptor::kSize, options.output));
}

// Whether a simulated device would accept the content as this firmware.
bool isFirmware(const Bytes& content, const CreateOptions& options) {
    const auto descriptor = firmware::Descriptor::decode(content.data(), content.size());
    return descriptor && descriptor->target == options.target &&
           descriptor->version == options.version;
}

}  // namespace

void create(const CreateOptions& options) {
    const Bytes content = makeContent(options);
    if (!isFirmware(content, options)) {
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
    const Bytes image = encodeImage(header, content);
    if (!replaceFile(options.output, {reinterpret_cast<const char*>(image.data()), image.size()})) {
        failWithErrno(options.output, "cannot be written");
    }
}

}  // namespace orvin_image
