#include "VersionText.h"

#include <dlfcn.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "LoginStorage/LoginStorage.h"

namespace tool {

namespace {

// The first line of every version text block, control bytes included.
const char kSignatureLine[] = "VELVI Magic Signiture=-\x01l\x02o\x03V\x04" "E%.\n";

bool readWholeFile(const std::string& path, std::string& bytes, std::string& error) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) {
    error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  char chunk[65536];
  size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) bytes.append(chunk, got);
  bool failed = std::ferror(file) != 0;
  std::fclose(file);
  if (failed) error = "cannot read " + path;
  return !failed;
}

}  // namespace

bool readVersionText(const std::string& path, VersionFields& fields, std::string& error) {
  std::string bytes;
  if (!readWholeFile(path, bytes, error)) return false;
  const std::string signature(kSignatureLine, sizeof kSignatureLine - 1);
  size_t start = bytes.find(signature);
  if (start == std::string::npos) {
    error = path + " holds no version information";
    return false;
  }
  start += signature.size();
  size_t end = bytes.find('\0', start);
  if (end == std::string::npos) end = bytes.size();
  const std::string block = bytes.substr(start, end - start);
  size_t lineStart = 0;
  while (lineStart < block.size()) {
    size_t lineEnd = block.find('\n', lineStart);
    if (lineEnd == std::string::npos) lineEnd = block.size();
    std::string line = block.substr(lineStart, lineEnd - lineStart);
    size_t equals = line.find('=');
    if (equals == std::string::npos) {
      fields.emplace_back("", line);
    } else {
      fields.emplace_back(line.substr(0, equals), line.substr(equals + 1));
    }
    lineStart = lineEnd + 1;
  }
  return true;
}

std::string loadedLibraryPath() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&VelLogin::setTraceHandler), &info) == 0 ||
      info.dli_fname == nullptr) {
    return std::string();
  }
  return info.dli_fname;
}

}  // namespace tool
