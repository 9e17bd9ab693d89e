#include "KeyText.h"

#include <cstdint>
#include <cstdio>

namespace tool {

namespace {

const char kHex[] = "0123456789abcdef";

// The code point of the well-formed sequence at text[i], advancing i past it;
// -1 (i unchanged) when the bytes there are not one.
long decodeUtf8(const std::string& text, size_t& i) {
  const unsigned char lead = static_cast<unsigned char>(text[i]);
  if (lead < 0x80) return text[i++];
  size_t length;
  long point, minimum;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, point = lead & 0x1F, minimum = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, point = lead & 0x0F, minimum = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, point = lead & 0x07, minimum = 0x10000;
  } else {
    return -1;
  }
  if (text.size() - i < length) return -1;
  for (size_t k = 1; k < length; ++k) {
    const unsigned char next = static_cast<unsigned char>(text[i + k]);
    if ((next & 0xC0) != 0x80) return -1;
    point = (point << 6) | (next & 0x3F);
  }
  if (point < minimum || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return -1;
  i += length;
  return point;
}

void appendUnicodeEscape(std::string& out, long unit) {
  char escape[8];
  std::snprintf(escape, sizeof escape, "\\u%04lx", unit);
  out += escape;
}

}  // namespace

std::string escapeKey(const std::string& key) {
  std::string out;
  out.reserve(key.size());
  for (const char c : key) {
    const unsigned char byte = static_cast<unsigned char>(c);
    switch (c) {
      case '\\':
        out += "\\\\";
        continue;
      case '\n':
        out += "\\n";
        continue;
      case '\t':
        out += "\\t";
        continue;
      case '\r':
        out += "\\r";
        continue;
      default:
        break;
    }
    if (byte >= 0x20 && byte <= 0x7E) {
      out += c;
    } else {
      out += "\\x";
      out += kHex[byte >> 4];
      out += kHex[byte & 0x0F];
    }
  }
  return out;
}

bool isValidUtf8(const std::string& bytes) {
  for (size_t i = 0; i < bytes.size();) {
    if (decodeUtf8(bytes, i) < 0) return false;
  }
  return true;
}

std::string jsonString(const std::string& text) {
  std::string out = "\"";
  for (size_t i = 0; i < text.size();) {
    long point = decodeUtf8(text, i);
    if (point < 0) point = static_cast<unsigned char>(text[i++]);  // not for invalid text
    if (point == '"' || point == '\\') {
      out += '\\';
      out += static_cast<char>(point);
    } else if (point >= 0x20 && point < 0x7F) {
      out += static_cast<char>(point);
    } else if (point == '\n') {
      out += "\\n";
    } else if (point == '\t') {
      out += "\\t";
    } else if (point > 0xFFFF) {
      point -= 0x10000;
      appendUnicodeEscape(out, 0xD800 + (point >> 10));
      appendUnicodeEscape(out, 0xDC00 + (point & 0x3FF));
    } else {
      appendUnicodeEscape(out, point);
    }
  }
  return out + "\"";
}

std::string base64(const std::string& bytes) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t group = static_cast<uint32_t>(static_cast<unsigned char>(bytes[i])) << 16 |
                           static_cast<uint32_t>(static_cast<unsigned char>(bytes[i + 1])) << 8 |
                           static_cast<unsigned char>(bytes[i + 2]);
    for (int shift = 18; shift >= 0; shift -= 6) out += kAlphabet[(group >> shift) & 0x3F];
  }
  const size_t left = bytes.size() - i;
  if (left > 0) {
    uint32_t group = static_cast<uint32_t>(static_cast<unsigned char>(bytes[i])) << 16;
    if (left == 2) group |= static_cast<uint32_t>(static_cast<unsigned char>(bytes[i + 1])) << 8;
    out += kAlphabet[(group >> 18) & 0x3F];
    out += kAlphabet[(group >> 12) & 0x3F];
    out += left == 2 ? kAlphabet[(group >> 6) & 0x3F] : '=';
    out += '=';
  }
  return out;
}

}  // namespace tool
