#include "CommandLine.h"

#include <cstdlib>

namespace tool {

namespace {

bool parseLevel(const std::string& text, int& level) {
  if (text.empty() || text.size() > 2) return false;
  char* end = nullptr;
  long value = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || value < 0 || value > 10) return false;
  level = static_cast<int>(value);
  return true;
}

}  // namespace

bool parseCommandLine(int argc, char** argv, CommandLine& line, std::string& error) {
  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i];
    if (optionsEnded || word.empty() || word[0] != '-' || word == "-") {
      if (line.command.empty()) {
        line.command = word;
      } else {
        line.operands.push_back(word);
      }
    } else if (word == "--") {
      optionsEnded = true;
    } else if (word == "-h" || word == "--help") {
      line.help = true;
    } else if (word == "-l") {
      line.longListing = true;
    } else if (word == "--hex") {
      line.hex = true;
    } else if (word == "--yes") {
      line.yes = true;
    } else if (word == "--raw-key") {
      line.rawKey = true;
    } else if (word == "--trace") {
      if (i + 1 >= argc || !parseLevel(argv[i + 1], line.traceLevel)) {
        error = "--trace needs a level from 0 to 10";
        return false;
      }
      ++i;
    } else {
      error = "unknown option '" + word + "'";
      return false;
    }
  }
  return true;
}

}  // namespace tool
