#include "CommandLine.h"

#include <cstdlib>

#include "KeyText.h"

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

bool parseShortOptions(const std::string& word, CommandLine& line) {
  for (size_t i = 1; i < word.size(); ++i) {
    switch (word[i]) {
      case 'h':
        line.help = true;
        break;
      case 'l':
        line.longListing = true;
        break;
      case '0':
        line.nulSeparated = true;
        break;
      default:
        return false;
    }
  }
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
    } else if (word == "--help") {
      line.help = true;
    } else if (word == "--version") {
      line.version = true;
    } else if (word == "--json") {
      line.json = true;
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
    } else if (word[1] == '-' || !parseShortOptions(word, line)) {
      error = "unknown option '" + escapeKey(word) + "' (see --help)";
      return false;
    }
  }
  return true;
}

}  // namespace tool
