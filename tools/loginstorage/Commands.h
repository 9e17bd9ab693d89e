// The commands of the loginstorage tool. Each returns the tool's exit status
// and writes its errors to stderr as one line.
#ifndef LOGINSTORAGE_TOOLS_COMMANDS_H
#define LOGINSTORAGE_TOOLS_COMMANDS_H

#include "CommandLine.h"

namespace tool {

int listRecords(const CommandLine& line);    // ls [-l] FOLDER
int getRecord(const CommandLine& line);      // get [--hex] FOLDER KEY
int putRecord(const CommandLine& line);      // put FOLDER KEY [FILE]
int removeRecords(const CommandLine& line);  // rm FOLDER KEY...
int clearFolder(const CommandLine& line);    // clear --yes FOLDER
int showVersion(const CommandLine& line);    // version [LIBRARY-FILE]

// Prints one line to stderr, "loginstorage: <message>", and returns status.
int fail(int status, const std::string& message);

}  // namespace tool

#endif
