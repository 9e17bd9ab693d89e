// loginstorage: looks after the storage folders of LoginStorage, one file per
// record, and the records of the Redis store. Built on the libraries' public
// interfaces only.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "CommandLine.h"
#include "Commands.h"
#include "LoginStorage/LoginStorage.h"

namespace {

struct Command {
  const char* name;
  int (*run)(const tool::CommandLine&);
  const char* help;
};

const Command kCommands[] = {
    {"ls", tool::listRecords,
     "usage: loginstorage ls [-l] FOLDER\n"
     "Lists the records of FOLDER, sorted by key: size in bytes and key.\n"
     "  -l  also the file's permissions and modification time\n"},
    {"get", tool::getRecord,
     "usage: loginstorage get [--hex] FOLDER KEY\n"
     "Writes the bytes of record KEY to standard output, unchanged.\n"
     "  --hex  a hex dump instead of the raw bytes\n"},
    {"put", tool::putRecord,
     "usage: loginstorage put FOLDER KEY [FILE]\n"
     "Stores the bytes of FILE (or of standard input, or with FILE \"-\") as record KEY,\n"
     "replacing it atomically. The folder is created when missing.\n"},
    {"rm", tool::removeRecords,
     "usage: loginstorage rm FOLDER KEY...\n"
     "Removes the records KEY... Exit status 1 when any of them was missing.\n"},
    {"clear", tool::clearFolder,
     "usage: loginstorage clear --yes FOLDER\n"
     "Removes every record of FOLDER; refuses without --yes.\n"},
    {"version", tool::showVersion,
     "usage: loginstorage version [LIBRARY-FILE]\n"
     "Prints the version information of a LoginStorage library file, read without\n"
     "loading it (default: the library this tool runs with).\n"},
};

const char kUsage[] =
    "usage: loginstorage [--trace LEVEL] [--raw-key] COMMAND [ARGS]\n"
    "\n"
    "Commands:\n"
    "  ls [-l] FOLDER           list records (size and key)\n"
    "  get [--hex] FOLDER KEY   write a record's bytes to standard output\n"
    "  put FOLDER KEY [FILE]    store a record from FILE or standard input\n"
    "  rm FOLDER KEY...         remove records\n"
    "  clear --yes FOLDER       remove every record\n"
    "  version [LIBRARY-FILE]   show a library's version information\n"
    "\n"
    "Wherever FOLDER stands, a location redis://HOST:PORT/PREFIX names the records\n"
    "under PREFIX on a Redis server instead (in builds with the Redis store).\n"
    "\n"
    "Options:\n"
    "  --trace LEVEL   show the library's trace lines on stderr (2 errors ... 4 all\n"
    "                  messages, 7 also method entries)\n"
    "  --raw-key       accept keys with \"/\" and the keys \".\" and \"..\", which name\n"
    "                  paths outside the folder's own files\n"
    "  --help          this text, or a command's own with COMMAND --help\n"
    "  --              ends the options (for keys that begin with \"-\")\n"
    "\n"
    "Exit status: 0 success, 1 a record missing or an operation failed, 2 usage error.\n";

void setUpTracing(int level) {
  activate_tellu_debug_output = level;
  if (level >= 7) VelLoginDebug::m_coverage = true;
  VelLoginDebug::m_printColor = isatty(STDERR_FILENO) != 0;
}

}  // namespace

int main(int argc, char** argv) {
  tool::CommandLine line;
  std::string error;
  if (!tool::parseCommandLine(argc, argv, line, error)) return tool::fail(tool::kUsage, error);

  if (line.command.empty()) {
    std::fputs(kUsage, line.help ? stdout : stderr);
    return line.help ? tool::kSuccess : tool::kUsage;
  }
  for (const Command& command : kCommands) {
    if (line.command != command.name) continue;
    if (line.help) {
      std::fputs(command.help, stdout);
      return tool::kSuccess;
    }
    setUpTracing(line.traceLevel);
    return command.run(line);
  }
  return tool::fail(tool::kUsage, "unknown command '" + line.command + "' (see --help)");
}
