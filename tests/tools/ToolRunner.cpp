#include "tests/tools/ToolRunner.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/Sandbox.h"

namespace kelo::test {

ToolRun runTool(const std::vector<std::string>& args) {
  TempDir dir("kelo-tool-run");
  const std::string outPath = dir.path() + "/out";
  const std::string errPath = dir.path() + "/err";
  ToolRun run;
  const pid_t pid = fork();
  if (pid == 0) {
    const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int in = ::open("/dev/null", O_RDONLY);
    dup2(out, 1);
    dup2(err, 2);
    dup2(in, 0);
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.out = Sandbox::readFile(outPath);
  run.err = Sandbox::readFile(errPath);
  return run;
}

}  // namespace kelo::test
