// What goes into an image, in pieces: it may be long, and takes no memory.
#ifndef ORVIN_IMAGE_CONTENT_H
#define ORVIN_IMAGE_CONTENT_H

#include <cstdint>
#include <functional>
#include <limits>
#include <string>

namespace orvin_image {

constexpr std::uint32_t kHeaderSize = 36;

// The upgrade tool takes files of less than 2 GiB.
constexpr std::uint32_t kMaxContent = std::numeric_limits<std::int32_t>::max() - kHeaderSize;

// Takes the next piece. False to get no more.
using Sink = std::function<bool(const std::uint8_t* bytes, std::size_t length)>;

// Hands all pieces to the sink, the same bytes at every call. False when the sink wanted no more.
using Content = std::function<bool(const Sink& sink)>;

// Content that a simulated device takes for firmware: a descriptor, then bytes that look random but
// are the same for the same arguments. Shorter than a descriptor it is just a part of one.
Content generatedContent(std::uint32_t target, std::uint32_t version, std::size_t size);

// What the file holds. Throws std::runtime_error, also when it is used, naming the file when it
// cannot be read, has more than `limit` bytes, is an image already or is the output.
Content fileContent(const std::string& path, std::uint32_t limit, const std::string& output);

// The content with a descriptor in front.
Content withDescriptor(std::uint32_t target, std::uint32_t version, const Content& content);

}  // namespace orvin_image

#endif
