// The switches that decide which trace lines the library writes.
//
// Nothing is written by default. Raise activate_tellu_debug_output to see
// messages: a message of severity N is written when the level is above N
// (level 2 shows errors, level 4 shows everything but method entries). Entry
// lines ("<Class>::<method>: begin") need m_coverage as well and level 7.
// g_MsgTypeMaxThr below 4 silences the sink whatever the level.
//
// The settings are plain globals read without locks: set them before the
// stores are used from several threads.
#ifndef LOGINSTORAGE_PLATFORM_DEBUGSETTINGS_H
#define LOGINSTORAGE_PLATFORM_DEBUGSETTINGS_H

#include <map>
#include <string>
#include <vector>

#include "../storage/Export.h"

class LOGINSTORAGE_EXPORT VelLoginDebug {
 public:
  // Method entry lines are written only when this is set (and the level is 7+).
  static bool m_coverage;
  // Selects the coloured layout: severity and topic colours around the label.
  static bool m_printColor;
  // Severity names, printed in square brackets; entry lines use index 6.
  static const char* sev2StrArr[7];
  // Escape written before the severity name, by severity index.
  static std::vector<std::string> m_svrColors;
  // Escape written before the label, by topic ("COVERAGE", "STORAGE").
  static std::map<std::string, std::string> m_topicsColors;
};

// Debug level; 0 (the default) writes nothing.
extern LOGINSTORAGE_EXPORT int activate_tellu_debug_output;
// Sink threshold; lines reach the trace handler only while it is 4 or more.
extern LOGINSTORAGE_EXPORT int g_MsgTypeMaxThr;

#endif
