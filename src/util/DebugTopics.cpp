#include "util/DebugTopics.h"

namespace {

// A function-local table, so registrations from other files' static
// initialisers find it constructed whatever the initialisation order.
std::vector<std::string>& topicTable() {
  static std::vector<std::string> topics;
  return topics;
}

}  // namespace

DebugTopics::DebugTopics(const char* topicName) { topicTable().emplace_back(topicName); }

std::vector<std::string> DebugTopics::names() { return topicTable(); }
