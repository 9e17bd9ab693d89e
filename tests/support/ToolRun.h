// Runs a program as a real child process, as a user at a shell would: with
// arguments, standard input, added environment variables and a file-size
// limit, in the UTC time zone, and captures what it wrote and how it ended.
#ifndef LOGINSTORAGE_TESTS_SUPPORT_TOOLRUN_H
#define LOGINSTORAGE_TESTS_SUPPORT_TOOLRUN_H

#include <sys/resource.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace testsupport {

struct ToolRunOptions {
  std::string input = {};
  std::string outPath = {};                   // standard output goes here instead (/dev/full)
  bool unprivileged = false;                  // run as nobody when the test runs as root
  rlim_t fileSizeLimit = RLIM_INFINITY;       // as ulimit -f sets it, in bytes
  std::vector<std::string> environment = {};  // NAME=VALUE
};

struct ToolRun {
  int status;       // the exit status; 128 + the signal that ended it, as a shell says
  std::string out;  // empty when options.outPath took standard output
  std::string err;
};

ToolRun runTool(const std::string& program, const std::vector<std::string>& args,
                const ToolRunOptions& options = {});

// The id of a child process that has just ended: no writer of that id is
// alive (until the system hands the id out again).
pid_t goneProcessId();

}  // namespace testsupport

#endif
