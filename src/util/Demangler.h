// The "<Class>::<method>" label of a trace line, from type information.
// Private.
#ifndef LOGINSTORAGE_UTIL_DEMANGLER_H
#define LOGINSTORAGE_UTIL_DEMANGLER_H

class Demangler {
 public:
  // Buffer size that demangle() writes into.
  static constexpr unsigned kLabelSize = 100;

  // Writes "<Class>::<method>" into buffer (kLabelSize characters, always
  // NUL-terminated within them), the class taken from a type-information name
  // with a leading "VelLogin::" dropped. Returns buffer.
  static const char* demangle(const char* typeName, const char* methodName,
                              char* buffer);
};

#endif
