// How the tool shows keys, which are arbitrary bytes, without letting any of
// them reach a terminal raw or split a line.
#ifndef LOGINSTORAGE_TOOLS_KEYTEXT_H
#define LOGINSTORAGE_TOOLS_KEYTEXT_H

#include <string>

namespace tool {

// key with every byte outside printable ASCII (0x20-0x7E), and the backslash,
// written as a C escape: \n \t \r \\ or \xHH (always two lower-case hex
// digits). The result is printable ASCII, so one line stays one record.
std::string escapeKey(const std::string& key);

// True when bytes are well-formed UTF-8 (no overlong forms, no surrogates,
// nothing above U+10FFFF).
bool isValidUtf8(const std::string& bytes);

// A JSON string literal, quotes included, of text (valid UTF-8), in ASCII
// only: control characters, DEL and everything beyond ASCII as \uXXXX.
std::string jsonString(const std::string& text);

// Standard base64 (RFC 4648) with padding.
std::string base64(const std::string& bytes);

}  // namespace tool

#endif
