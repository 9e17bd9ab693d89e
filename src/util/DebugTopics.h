// Registration of trace topics, which VelLogin::registeredTraceTopics()
// lists. Private.
#ifndef LOGINSTORAGE_UTIL_DEBUGTOPICS_H
#define LOGINSTORAGE_UTIL_DEBUGTOPICS_H

#include <string>
#include <vector>

// Constructing one registers topicName with the trace system.
class DebugTopics {
 public:
  explicit DebugTopics(const char* topicName);

  // Every topic registered so far, in registration order.
  static std::vector<std::string> names();
};

#endif
