#include <cxxabi.h>

#include <cstdlib>
#include <cstring>

#include "util/Demangler.h"

namespace {

// Appends text to buffer at position, never past the last character slot.
size_t appendBounded(char* buffer, size_t position, const char* text) {
  while (*text != '\0' && position + 1 < Demangler::kLabelSize) {
    buffer[position++] = *text++;
  }
  buffer[position] = '\0';
  return position;
}

}  // namespace

const char* Demangler::demangle(const char* typeName, const char* methodName,
                                char* buffer) {
  static const char kNamespacePrefix[] = "VelLogin::";
  int status = 0;
  char* readable = abi::__cxa_demangle(typeName, nullptr, nullptr, &status);
  const char* className = (status == 0 && readable != nullptr) ? readable : typeName;
  if (std::strncmp(className, kNamespacePrefix, sizeof kNamespacePrefix - 1) == 0) {
    className += sizeof kNamespacePrefix - 1;
  }
  size_t position = appendBounded(buffer, 0, className);
  position = appendBounded(buffer, position, "::");
  appendBounded(buffer, position, methodName);
  std::free(readable);
  return buffer;
}
