#include "orvin-image/create.h"

#include <iostream>

#include "common/firmware_descriptor.h"
#include "common/replace_file.h"
#include "orvin-image/failure.h"
#include "orvin-image/image_file.h"

namespace orvin_image {

namespace {

Bytes makeContent(const CreateOptions& options) {
    const firmware::Descriptor descriptor{options.header.device, options.header.version};
    if (options.size) {
        return generateContent(descriptor.target, descriptor.version, *options.size);
    }
    if (!options.addDescriptor) {
        return readContent(options.contentFile, kMaxContent, options.output);
    }
    Bytes content =
        readContent(options.contentFile, kMaxContent - firmware::Descriptor::kSize, options.output);
    const auto bytes = descriptor.encode();
    content.insert(content.begin(), bytes.begin(), bytes.end());
    return content;
}

// Whether a simulated device would accept the content as this firmware.
bool isFirmware(const Bytes& content, const FirmwareImageHeader& header) {
    const auto descriptor = firmware::Descriptor::decode(content.data(), content.size());
    return descriptor && descriptor->target == header.device &&
           descriptor->version == header.version;
}

}  // namespace

void create(const CreateOptions& options) {
    const Bytes content = makeContent(options);
    if (!isFirmware(content, options.header)) {
        std::cerr
            << "note: the content has no descriptor of this target and version, so a simulated "
               "device will not run it (see --add-descriptor)"
            << std::endl;
    }
    const Bytes image = encodeImage(options.header, content);
    if (!replaceFile(options.output, {reinterpret_cast<const char*>(image.data()), image.size()})) {
        failWithErrno(options.output, "cannot be written");
    }
}

}  // namespace orvin_image
