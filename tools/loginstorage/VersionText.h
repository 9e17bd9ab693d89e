// Reads the version text block out of a library file without loading it.
#ifndef LOGINSTORAGE_TOOLS_VERSIONTEXT_H
#define LOGINSTORAGE_TOOLS_VERSIONTEXT_H

#include <string>
#include <utility>
#include <vector>

namespace tool {

// One line of the block: "Name=LoginStorage" gives {"Name", "LoginStorage"};
// a line without "=" (a dependency's line) gives {"", line}.
typedef std::vector<std::pair<std::string, std::string>> VersionFields;

// Finds the block by its signature line in the file's bytes and splits it
// into fields, the signature line left out. Returns false with a one-line
// error when the file cannot be read or holds no block.
bool readVersionText(const std::string& path, VersionFields& fields, std::string& error);

// The file of the LoginStorage library this program runs with.
std::string loadedLibraryPath();

}  // namespace tool

#endif
