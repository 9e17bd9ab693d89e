// The commands of the loginstorage tool. Each returns the tool's exit status
// (CommandLine.h) and writes its errors to stderr, one line each, naming the
// cause.
#ifndef LOGINSTORAGE_TOOLS_COMMANDS_H
#define LOGINSTORAGE_TOOLS_COMMANDS_H

#include <string>

#include "CommandLine.h"

namespace tool {

int listRecords(const CommandLine& line);     // ls [-l] [-0 | --json] LOCATION
int getRecord(const CommandLine& line);       // get [--hex] LOCATION KEY
int putRecord(const CommandLine& line);       // put LOCATION KEY [FILE]
int removeRecords(const CommandLine& line);   // rm LOCATION KEY...
int clearRecords(const CommandLine& line);    // clear --yes LOCATION
int showStatistics(const CommandLine& line);  // stat [--json] LOCATION
int collectGarbage(const CommandLine& line);  // gc FOLDER
int showVersion(const CommandLine& line);     // version [LIBRARY-FILE]
int showToolVersion();                        // --version

// Writes text to standard output: kSuccess, or kFailure (3) after saying
// why the write failed.
int writeOut(const std::string& text);

// Prints one line to stderr, "loginstorage: <message>", and returns status.
int fail(int status, const std::string& message);

}  // namespace tool

#endif
