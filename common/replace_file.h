#ifndef COMMON_REPLACE_FILE_H
#define COMMON_REPLACE_FILE_H

#include <cstddef>
#include <functional>
#include <string>

// Takes the next bytes of a file. False, with the reason in errno, when they cannot be written.
using WriteBytes = std::function<bool(const void* bytes, std::size_t length)>;

// Has `produce` write a new file beside the old one, which then takes its place, so that a reader
// finds the one or the other whole. Follows links, also to a file that is not there yet, and keeps
// the permissions; what is no regular file is written to as it is. When `produce` returns false or
// throws, or on failure, the old file stays as it was and nothing new stays behind; false has the
// reason in errno.
//
// `prepare` gets the path of the new file when that is complete and not yet in the old one's place;
// false from it, with the reason in errno, is a failure.
bool replaceFile(const std::string& path,
                 const std::function<bool(const WriteBytes& write)>& produce,
                 const std::function<bool(const std::string& newPath)>& prepare = nullptr);

#endif
