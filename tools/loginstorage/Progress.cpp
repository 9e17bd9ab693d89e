#include "Progress.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>

namespace tool {

namespace {

double now() {
  struct timespec t {};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

constexpr double kFirstDrawAfter = 0.5;  // seconds: quick operations stay silent
constexpr double kRedrawEvery = 0.1;
constexpr unsigned long kClockEvery = 256;  // items between clock reads

}  // namespace

Progress::Progress(const char* what, unsigned long total)
    : m_what(what), m_terminal(isatty(STDERR_FILENO) != 0), m_total(total) {
  if (m_terminal) m_start = m_lastDraw = now();
}

Progress::~Progress() {
  if (m_drawn) std::fputs("\r\033[K", stderr);
}

void Progress::step() {
  ++m_count;
  if (!m_terminal || m_count % kClockEvery != 0) return;
  const double t = now();
  if (t - m_start < kFirstDrawAfter || t - m_lastDraw < kRedrawEvery) return;
  m_lastDraw = t;
  m_drawn = true;
  if (m_total != 0) {
    std::fprintf(stderr, "\rloginstorage: %s %lu of %lu...", m_what, m_count, m_total);
  } else {
    std::fprintf(stderr, "\rloginstorage: %s %lu entries...", m_what, m_count);
  }
  std::fflush(stderr);
}

}  // namespace tool
