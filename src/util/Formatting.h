// printf-style formatting into a growing buffer, for the trace sink. Private.
#ifndef LOGINSTORAGE_UTIL_FORMATTING_H
#define LOGINSTORAGE_UTIL_FORMATTING_H

#include <cstdarg>
#include <vector>

// Formats like vprintf into out, growing it to the text's length (always
// NUL-terminated; an encoding error gives ""). out keeps its capacity between
// calls, so steady tracing does not allocate.
void formatInto(std::vector<char>& out, const char* format, va_list args)
    __attribute__((format(printf, 2, 0)));

#endif
