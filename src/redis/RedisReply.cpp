#include "redis/RedisReply.h"

#include <cstring>
#include <limits>

namespace VelLogin {

namespace {

// Status and error lines longer than this are not from a Redis server.
constexpr size_t kMaxLine = 64 * 1024;
// Arrays nested deeper than this answer none of the store's commands.
constexpr size_t kMaxDepth = 4;

// The decimal number of a header line; false unless the whole text is one
// that fits a long long.
bool parseNumber(const char* text, size_t size, long long& value) {
  size_t i = 0;
  const bool negative = size > 0 && text[0] == '-';
  if (negative) i = 1;
  if (i == size || size - i > 19) return false;
  unsigned long long magnitude = 0;
  for (; i < size; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    magnitude = magnitude * 10 + static_cast<unsigned>(text[i] - '0');
  }
  constexpr auto kMax = static_cast<unsigned long long>(std::numeric_limits<long long>::max());
  if (magnitude > kMax) return false;
  value = negative ? -static_cast<long long>(magnitude) : static_cast<long long>(magnitude);
  return true;
}

}  // namespace

RedisReply::Type RedisReply::Node::type() const { return m_reply->m_entries[m_index].type; }

std::string_view RedisReply::Node::text() const {
  const Entry& entry = m_reply->m_entries[m_index];
  return std::string_view(m_reply->m_data + entry.offset, entry.length);
}

long long RedisReply::Node::integer() const { return m_reply->m_entries[m_index].integer; }

size_t RedisReply::Node::size() const {
  const Entry& entry = m_reply->m_entries[m_index];
  return entry.type == Type::Array ? entry.length : 0;
}

RedisReply::Node RedisReply::Node::next() const {
  return Node(m_reply, m_reply->m_entries[m_index].end);
}

void RedisReply::start(const Limits& limits) {
  m_limits = limits;
  m_entries.clear();
  m_open.clear();
  m_pos = 0;
  m_elements = 0;
  m_problem.clear();
}

RedisReply::Progress RedisReply::invalid(std::string problem) {
  m_problem = std::move(problem);
  return Progress::Invalid;
}

void RedisReply::close(size_t index) {
  m_entries[index].end = m_entries.size();
  while (!m_open.empty()) {
    Open& parent = m_open.back();
    if (--parent.remaining != 0) return;
    m_entries[parent.index].end = m_entries.size();
    m_open.pop_back();
  }
}

RedisReply::Progress RedisReply::parse(const char* data, size_t size) {
  m_data = data;
  if (size > m_limits.maxBytes) {
    return invalid("a reply above " + std::to_string(m_limits.maxBytes) + " bytes");
  }
  while (m_entries.empty() || !m_open.empty()) {
    const size_t available = size - m_pos;
    if (available == 0) return Progress::Incomplete;
    const char* line = data + m_pos;
    const size_t window = available < kMaxLine + 2 ? available : kMaxLine + 2;
    const char* newline = static_cast<const char*>(std::memchr(line, '\n', window));
    if (newline == nullptr) {
      return window == available ? Progress::Incomplete : invalid("a line without an end");
    }
    const size_t lineSize = static_cast<size_t>(newline - line) + 1;
    if (lineSize < 3 || newline[-1] != '\r') return invalid("a line not ended by CRLF");
    const char* body = line + 1;
    const size_t bodySize = lineSize - 3;
    Entry entry{Type::Nil, 0, 0, 0, 0};
    long long number = 0;
    size_t next = m_pos + lineSize;
    switch (line[0]) {
      case '+':
      case '-':
        entry.type = line[0] == '+' ? Type::Status : Type::Error;
        entry.offset = m_pos + 1;
        entry.length = bodySize;
        break;
      case ':':
        if (!parseNumber(body, bodySize, number)) return invalid("an integer that is not one");
        entry.type = Type::Integer;
        entry.integer = number;
        break;
      case '$':
        if (!parseNumber(body, bodySize, number) || number < -1) {
          return invalid("a bulk length that is not one");
        }
        if (number == -1) break;
        if (static_cast<unsigned long long>(number) > m_limits.maxBulk) {
          return invalid("a bulk string of " + std::to_string(number) + " bytes, above " +
                         std::to_string(m_limits.maxBulk));
        }
        // Waits for the whole string; the buffer grows only as bytes arrive.
        if (available - lineSize < static_cast<size_t>(number) + 2) return Progress::Incomplete;
        entry.type = Type::String;
        entry.offset = next;
        entry.length = static_cast<size_t>(number);
        next += entry.length + 2;
        if (data[next - 2] != '\r' || data[next - 1] != '\n') {
          return invalid("a bulk string not ended by CRLF");
        }
        break;
      case '*':
        if (!parseNumber(body, bodySize, number) || number < -1) {
          return invalid("an array length that is not one");
        }
        if (number == -1) break;
        if (static_cast<unsigned long long>(number) > m_limits.maxElements - m_elements) {
          return invalid("an array of " + std::to_string(number) + " elements, above " +
                         std::to_string(m_limits.maxElements));
        }
        if (m_open.size() == kMaxDepth) return invalid("arrays nested too deep");
        entry.type = Type::Array;
        entry.length = static_cast<size_t>(number);
        m_elements += entry.length;
        break;
      default:
        return invalid("an unexpected byte " + std::to_string(static_cast<unsigned char>(line[0])));
    }
    m_pos = next;
    m_entries.push_back(entry);
    const size_t index = m_entries.size() - 1;
    if (entry.type == Type::Array && entry.length != 0) {
      m_open.push_back(Open{index, entry.length});
    } else {
      close(index);
    }
  }
  return Progress::Complete;
}

}  // namespace VelLogin
