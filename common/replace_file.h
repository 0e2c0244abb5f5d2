#ifndef COMMON_REPLACE_FILE_H
#define COMMON_REPLACE_FILE_H

#include <functional>
#include <string>
#include <string_view>

// Replaces a file atomically: writes a new file beside the old one and renames it. Follows symbolic
// links, also to a file that does not exist yet, and keeps the permissions. Writes directly to a
// file that is not regular. On failure, returns false with the reason in errno; the old file is
// unchanged and the new one removed. A process that is killed meanwhile leaves the new file behind
// as PATH.new-XXXXXX, with other characters for the X.
//
// `prepare` is called with the path of the complete new file before the rename. It may fail the
// replacement by returning false with the reason in errno.
[[nodiscard]] bool replaceFile(
    const std::string& path, std::string_view content,
    const std::function<bool(const std::string& newPath)>& prepare = nullptr);

#endif
