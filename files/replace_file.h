#ifndef FILES_REPLACE_FILE_H
#define FILES_REPLACE_FILE_H

#include <string>

// Writes the bytes to a new file beside the old one, which then takes its place, so that a reader
// finds the one or the other whole. Follows links and keeps the permissions; what is no regular
// file is written to as it is. False, with the reason in errno and the old file as it was, on
// failure.
bool replaceFile(const std::string& path, const std::string& bytes);

#endif
