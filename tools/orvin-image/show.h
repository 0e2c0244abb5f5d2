#ifndef ORVIN_IMAGE_SHOW_H
#define ORVIN_IMAGE_SHOW_H

#include <string>

namespace orvin_image {

// Returns the exit status: 1 when the upgrade tool would refuse the image. Throws
// std::runtime_error for what the user must be told.
int show(const std::string& path, bool asJson);

}  // namespace orvin_image

#endif
