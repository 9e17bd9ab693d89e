// The parsed command line of the loginstorage tool: a command, its operands
// and the options that may stand anywhere among them.
#ifndef LOGINSTORAGE_TOOLS_COMMANDLINE_H
#define LOGINSTORAGE_TOOLS_COMMANDLINE_H

#include <string>
#include <vector>

namespace tool {

// Exit statuses of the tool.
enum ExitStatus { kSuccess = 0, kFailed = 1, kUsage = 2 };

struct CommandLine {
  std::string command;
  std::vector<std::string> operands;
  bool help = false;
  bool longListing = false;  // ls -l
  bool hex = false;          // get --hex
  bool yes = false;          // clear --yes
  bool rawKey = false;       // --raw-key
  int traceLevel = 0;        // --trace LEVEL
};

// Parses argv. On a usage error returns false and sets error to a one-line
// message. "--" ends the options, so keys that begin with "-" can be given.
bool parseCommandLine(int argc, char** argv, CommandLine& line, std::string& error);

}  // namespace tool

#endif
