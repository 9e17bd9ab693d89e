// Standard output of the tool, buffered, remembering the first failed write
// (a full disk, a closed pipe's EPIPE) so that the command can exit with 3
// and the system's reason instead of reporting success.
#ifndef LOGINSTORAGE_TOOLS_OUTPUT_H
#define LOGINSTORAGE_TOOLS_OUTPUT_H

#include <string>

namespace tool {

class Output {
 public:
  Output() = default;
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  // Appends bytes; writes the buffer out once it is large. False once any
  // write has failed (later bytes are dropped).
  bool write(const char* data, size_t len);
  bool write(const std::string& text) { return write(text.data(), text.size()); }

  // Writes out what is buffered. True when every write so far succeeded;
  // else error() says why.
  bool flush();
  const std::string& error() const { return m_error; }

 private:
  bool writeOut(const char* data, size_t len);

  std::string m_buffer;
  std::string m_error;
};

}  // namespace tool

#endif
