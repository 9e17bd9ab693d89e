#include "support/ToolRun.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "support/TempFolder.h"

namespace testsupport {

ToolRun runTool(const std::string& program, const std::vector<std::string>& args,
                const ToolRunOptions& options) {
  TempFolder scratch;
  const std::string inPath = scratch / "in", errPath = scratch / "err";
  const std::string outPath = options.outPath.empty() ? scratch / "out" : options.outPath;
  writeFileBytes(inPath, options.input);
  // Everything the child needs is built before the fork.
  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    if (!std::freopen(inPath.c_str(), "rb", stdin) ||
        !std::freopen(outPath.c_str(), "wb", stdout) ||
        !std::freopen(errPath.c_str(), "wb", stderr)) {
      ::_exit(126);
    }
    ::setenv("TZ", "UTC", 1);
    for (const std::string& variable : options.environment) {
      ::putenv(const_cast<char*>(variable.c_str()));
    }
    const struct rlimit limit = {options.fileSizeLimit, options.fileSizeLimit};
    if (options.fileSizeLimit != RLIM_INFINITY && ::setrlimit(RLIMIT_FSIZE, &limit) != 0) {
      ::_exit(126);
    }
    if (options.unprivileged && ::geteuid() == 0 &&
        (::setgid(65534) != 0 || ::setuid(65534) != 0)) {
      ::_exit(126);
    }
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
  }
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child) return {-1, "", "cannot run " + program};
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
          options.outPath.empty() ? readFileBytes(outPath) : "", readFileBytes(errPath)};
}

pid_t goneProcessId() {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  if (child > 0) ::waitpid(child, nullptr, 0);
  return child;
}

}  // namespace testsupport
