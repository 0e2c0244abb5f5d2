#ifndef COMMON_REPLACE_FILE_H
#define COMMON_REPLACE_FILE_H

#include <functional>
#include <string>
#include <string_view>

// Writes a new file beside the old one and puts it in its place, so that a reader finds the one or
// the other whole. Follows links, also to a file that is not there yet, and keeps the permissions;
// what is no regular file is written to as it is. On failure the old file stays as it was and
// nothing new stays behind; false has the reason in errno. A process that is killed meanwhile
// leaves the new file as PATH.new-XXXXXX, with other characters for the X.
//
// `prepare` gets the path of the new file when that is complete and not yet in the old one's place;
// false from it, with the reason in errno, is a failure.
[[nodiscard]] bool replaceFile(
    const std::string& path, std::string_view content,
    const std::function<bool(const std::string& newPath)>& prepare = nullptr);

#endif
