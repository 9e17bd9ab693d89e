// The parsed command line of the loginstorage tool: a command, its operands
// and the options that may stand anywhere among them.
#ifndef LOGINSTORAGE_TOOLS_COMMANDLINE_H
#define LOGINSTORAGE_TOOLS_COMMANDLINE_H

#include <string>
#include <vector>

namespace tool {

// Exit statuses of the tool; scripts tell a missing record from a failure.
enum ExitStatus { kSuccess = 0, kMissing = 1, kUsage = 2, kFailure = 3 };

struct CommandLine {
  std::string command;
  std::vector<std::string> operands;
  bool help = false;
  bool version = false;       // --version
  bool longListing = false;   // ls -l
  bool nulSeparated = false;  // ls -0
  bool json = false;          // ls --json, stat --json
  bool hex = false;           // get --hex
  bool yes = false;           // clear --yes
  bool rawKey = false;        // --raw-key
  int traceLevel = 0;         // --trace LEVEL
};

// Parses argv. On a usage error returns false and sets error to a one-line
// message. "--" ends the options, so keys that begin with "-" can be given;
// short options may be grouped ("-l0").
bool parseCommandLine(int argc, char** argv, CommandLine& line, std::string& error);

}  // namespace tool

#endif
