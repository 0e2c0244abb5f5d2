#include "orvin-image/create.h"

#include <iostream>
#include <stdexcept>

#include "orvin-image/image_file.h"

namespace orvin_image {

namespace {

Content generate(const CreateOptions& options, std::uint32_t size) {
    if (size < firmware::Descriptor::kSize) {
        throw std::runtime_error("generated content has at least " +
                                 std::to_string(firmware::Descriptor::kSize) +
                                 " bytes: it begins with a descriptor");
    }
    if (size > kMaxContent) {
        throw std::runtime_error("generated content has at most " + std::to_string(kMaxContent) +
                                 " bytes: an image has less than 2 GiB");
    }
    return generatedContent(options.target, options.version, size);
}

Content makeContent(const CreateOptions& options) {
    if (options.size) {
        return generate(options, *options.size);
    }
    if (!options.addDescriptor) {
        return fileContent(options.contentFile, kMaxContent, options.output);
    }
    return withDescriptor(options.target, options.version,
                          fileContent(options.contentFile,
                                      kMaxContent - firmware::Descriptor::kSize, options.output));
}

}  // namespace

int create(const CreateOptions& options) {
    const Content content = makeContent(options);
    const Summary summary = summarize(content);
    if (!summary.isFirmware(options.target, options.version)) {
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
    writeImage(options.output, header, content, summary);
    return 0;
}

}  // namespace orvin_image
