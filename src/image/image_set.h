#ifndef IMAGE_IMAGE_SET_H
#define IMAGE_IMAGE_SET_H

#include <cstdint>
#include <list>
#include <string>

class OrvinGroup;
struct RunConfig;

// The `device` code of the image at `path`; 0 for an empty path, and for an image that cannot be
// opened, which is reported on the console.
std::uint32_t getImageTarget(const std::string& path);

// Puts DSP and Booster ARM images last, in the order given; all others first, in reverse order.
void orderImages(std::list<std::string>& images);

// Upgrades the group with every image of the configuration, in the order of orderImages, which the
// configuration keeps. Returns the number of distinct Orvins updated, or the first upgrade's result
// that is not 0, which ends the set. Main thread.
[[nodiscard]] int runImageSet(RunConfig& config, OrvinGroup& group);

#endif
