// A one-line count on standard error for operations over many records,
// drawn only when standard error is a terminal (never in logs or pipes) and
// only once the operation has run for a moment.
#ifndef LOGINSTORAGE_TOOLS_PROGRESS_H
#define LOGINSTORAGE_TOOLS_PROGRESS_H

#include <string>

namespace tool {

class Progress {
 public:
  // what: "listed", "removed", ... shown before the count; total, when
  // known, after it.
  explicit Progress(const char* what, unsigned long total = 0);
  ~Progress();  // erases the line
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // One more item done.
  void step();

 private:
  const char* m_what;
  bool m_terminal;
  bool m_drawn = false;
  unsigned long m_total;
  unsigned long m_count = 0;
  double m_start = 0;
  double m_lastDraw = 0;
};

}  // namespace tool

#endif
