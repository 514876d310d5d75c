// Runs a tool as a separate process and collects what it printed and how it ended.
#ifndef KELO_TESTS_TOOLS_TOOLRUNNER_H_
#define KELO_TESTS_TOOLS_TOOLRUNNER_H_

#include <string>
#include <vector>

namespace kelo::test {

struct ToolRun {
  int exitCode = -1;  // -1 when the process did not exit normally
  std::string out;
  std::string err;
};

ToolRun runTool(const std::vector<std::string>& args);

}  // namespace kelo::test

#endif  // KELO_TESTS_TOOLS_TOOLRUNNER_H_
