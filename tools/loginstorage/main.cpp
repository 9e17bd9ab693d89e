// loginstorage: looks after the storage folders of LoginStorage, one file per
// record, and the records of the Redis store.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "CommandLine.h"
#include "Commands.h"
#include "KeyText.h"
#include "LoginStorage/LoginStorage.h"

namespace {

struct Command {
  const char* name;
  int (*run)(const tool::CommandLine&);
  const char* help;
};

const Command kCommands[] = {
    {"ls", tool::listRecords,
     "usage: loginstorage ls [-l] [-0 | --json] LOCATION\n"
     "Lists the keys of LOCATION's records, sorted, one per line. Every byte of a\n"
     "key that is not printable ASCII, and the backslash, is written as an escape\n"
     "(\\n \\t \\r \\\\ or \\xHH with two hex digits), so that one line is one record\n"
     "and no key reaches the terminal raw. Only records are listed: regular files\n"
     "(symbolic links followed), never sub-folders or the store's temporary files.\n"
     "Nothing is read: sizes and the rest come from the file system.\n"
     "  -l      also permissions, owner, size in bytes and modification time\n"
     "  -0      raw keys, each ended by a NUL byte instead of a newline (for xargs -0)\n"
     "  --json  one JSON object per line: \"key\" and \"key_encoding\", \"utf-8\" when the\n"
     "          key is valid UTF-8 (then in ASCII-only JSON), else \"base64\"; with -l\n"
     "          also \"size\", \"mode\", \"uid\", \"owner\" and \"mtime\" (seconds)\n"},
    {"get", tool::getRecord,
     "usage: loginstorage get [--hex] LOCATION KEY\n"
     "Writes the bytes of record KEY to standard output, unchanged.\n"
     "  --hex  a hex dump instead of the raw bytes\n"},
    {"put", tool::putRecord,
     "usage: loginstorage put LOCATION KEY [FILE]\n"
     "Stores the bytes of FILE (or of standard input, or with FILE \"-\") as record KEY,\n"
     "replacing it atomically. A missing folder is created. In a folder, keys of the\n"
     "form of its temporary files (\".lstmp-PID-N\") are refused.\n"},
    {"rm", tool::removeRecords,
     "usage: loginstorage rm LOCATION KEY...\n"
     "Removes the records KEY... Exit status 1 when one was missing, 3 when one could\n"
     "not be removed.\n"},
    {"clear", tool::clearRecords,
     "usage: loginstorage clear --yes LOCATION\n"
     "Removes every record of LOCATION, and the temporary files of writers that are\n"
     "gone; refuses without --yes. Sub-folders and other entries that are not\n"
     "records stay.\n"},
    {"stat", tool::showStatistics,
     "usage: loginstorage stat [--json] LOCATION\n"
     "Counts the records and their bytes and names the largest; in a folder, also\n"
     "the temporary files that writers which are gone left behind (see gc) and those\n"
     "of writes in progress.\n"},
    {"gc", tool::collectGarbage,
     "usage: loginstorage gc FOLDER\n"
     "Removes the temporary files (\".lstmp-PID-N\") that writers which are gone left\n"
     "in FOLDER. Never a record, never the file of a writer that still runs.\n"},
    {"version", tool::showVersion,
     "usage: loginstorage version [LIBRARY-FILE]\n"
     "Prints the version information of a LoginStorage library file, read without\n"
     "loading it (default: the library this tool runs with).\n"},
};

const char kUsage[] =
    "usage: loginstorage [--trace LEVEL] [--raw-key] COMMAND [ARGS]\n"
    "       loginstorage --version | --help | COMMAND --help\n"
    "\n"
    "Commands:\n"
    "  ls [-l] [-0|--json] LOCATION  list records (keys escaped; see ls --help)\n"
    "  get [--hex] LOCATION KEY      write a record's bytes to standard output\n"
    "  put LOCATION KEY [FILE]       store a record from FILE or standard input\n"
    "  rm LOCATION KEY...            remove records\n"
    "  clear --yes LOCATION          remove every record\n"
    "  stat [--json] LOCATION        count records and bytes, find leftovers\n"
    "  gc FOLDER                     remove temporary files of writers that are gone\n"
    "  version [LIBRARY-FILE]        show a library's version information\n"
    "\n"
    "LOCATION is a storage folder or, in builds with the Redis store, one of\n"
    "  redis://[[USER]:PASSWORD@]HOST[:PORT][/DB][?prefix=PREFIX]\n"
    "  unix://[[USER]:PASSWORD@]/PATH/TO/SOCKET[?db=DB&prefix=PREFIX]\n"
    "  redis-sentinel://[[USER]:PASSWORD@]SENTINELS/MASTER[/DB][?prefix=PREFIX]\n"
    "with SENTINELS as HOST[:PORT],HOST[:PORT]... (also ?timeout=MS and\n"
    "?sentinel_password=P; all parts percent-decoded; as with redis-cli, USER@ alone\n"
    "is a password, USER:@ a user). Without a password in LOCATION,\n"
    "$LOGINSTORAGE_REDIS_PASSWORD, else $REDISCLI_AUTH, gives it; a password on the\n"
    "command line is visible to other users.\n"
    "\n"
    "Options:\n"
    "  --trace LEVEL   show the library's trace lines on stderr (2 errors ... 4 all\n"
    "                  messages, 7 also method entries)\n"
    "  --raw-key       accept keys with \"/\" and the keys \".\" and \"..\", which name\n"
    "                  paths outside the folder's own files\n"
    "  --version       the tool's and the library's versions, and Redis support\n"
    "  --help          this text, or a command's own with COMMAND --help\n"
    "  --              ends the options (for keys that begin with \"-\")\n"
    "\n"
    "Long operations show their progress on standard error when it is a terminal.\n"
    "\n"
    "Exit status: 0 success, 1 a record missing, 2 usage error, 3 any other failure\n"
    "(file system, permission, server, or a failed write to standard output).\n";

void setUpTracing(int level) {
  activate_tellu_debug_output = level;
  if (level >= 7) VelLoginDebug::m_coverage = true;
  VelLoginDebug::m_printColor = isatty(STDERR_FILENO) != 0;
}

}  // namespace

int main(int argc, char** argv) {
  // A write beyond the file size limit (ulimit -f) then fails with EFBIG,
  // which the command reports, instead of killing the tool with a core dump.
  std::signal(SIGXFSZ, SIG_IGN);
  tool::CommandLine line;
  std::string error;
  if (!tool::parseCommandLine(argc, argv, line, error)) return tool::fail(tool::kUsage, error);

  if (line.version) return tool::showToolVersion();
  if (line.command.empty()) {
    if (line.help) return tool::writeOut(kUsage);
    std::fputs(kUsage, stderr);
    return tool::kUsage;
  }
  for (const Command& command : kCommands) {
    if (line.command != command.name) continue;
    if (line.help) return tool::writeOut(command.help);
    setUpTracing(line.traceLevel);
    return command.run(line);
  }
  return tool::fail(tool::kUsage,
                    "unknown command '" + tool::escapeKey(line.command) + "' (see --help)");
}
