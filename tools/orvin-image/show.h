#ifndef ORVIN_IMAGE_SHOW_H
#define ORVIN_IMAGE_SHOW_H

#include <string>

namespace orvin_image {

// Returns the exit status: 1 if the upgrade tool would refuse the image. Throws std::runtime_error
// with a message for the user.
int show(const std::string& path, bool asJson);

}  // namespace orvin_image

#endif
