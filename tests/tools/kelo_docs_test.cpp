// The manual pages and the bash completion generated from the tools' option definitions.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/Sandbox.h"
#include "tests/tools/ToolRunner.h"

namespace kelo::test {
namespace {

std::string trimmed(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
  return s;
}

// The manual pages and completions come from the parsers' definitions: every command and
// option the parser takes is in them.
TEST(KeloDocs, ManualPagesAndCompletionFollowTheParsers) {
  const std::string docs = KELO_DOCS_DIR;
  const std::string kelo = Sandbox::readFile(docs + "/man/kelo.1");
  for (const char* text : {".TH KELO 1", ".SS \"kelo config check [BUNDLE]\"", "\\-\\-override",
                           ".SS \"kelo logs tail\"", ".B \\-F\n", "\\-\\-textfile",
                           ".SS \"kelo report nondisc DATA ENERGY\"", ".SH EXIT STATUS"}) {
    EXPECT_NE(kelo.find(text), std::string::npos) << text;
  }
  const std::string sim = Sandbox::readFile(docs + "/man/kelo-sim.1");
  for (const char* text : {"\\-\\-sweep \\fIKEY=V1,V2,...", "\\-\\-set", "\\-\\-plot"}) {
    EXPECT_NE(sim.find(text), std::string::npos) << text;
  }
  EXPECT_NE(Sandbox::readFile(docs + "/man/kelo-powerd.8").find(".SH OPTIONS"), std::string::npos);
  // The completion, run by bash: what it offers after each command line.
  const struct {
    std::string tool;
    std::string line;  // the words typed, the last one being completed
    std::string offered;
  } cases[] = {
      {"kelo", "kelo con", "config"},
      {"kelo", "kelo config ch", "check"},
      {"kelo", "kelo config check --o", "--override"},
      {"kelo", "kelo logs tail --fo", "--follow"},
      {"kelo", "kelo --root /tmp metrics --t", "--textfile"},
      {"kelo-sim", "kelo-sim --sw", "--sweep"},
      {"kelo-powerd", "kelo-powerd --on", "--once"},
  };
  for (const auto& c : cases) {
    const std::string fn = c.tool == "kelo"       ? "_kelo"
                           : c.tool == "kelo-sim" ? "_kelo_sim"
                                                  : "_kelo_powerd";
    const std::string script = "source " + docs + "/completions/" + c.tool + "; COMP_WORDS=(" +
                               c.line + "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); " + fn +
                               "; echo \"${COMPREPLY[*]}\"";
    const ToolRun run = runTool({"/bin/bash", "-c", script});
    EXPECT_EQ(trimmed(run.out), c.offered) << c.line << run.err;
  }
}

}  // namespace
}  // namespace kelo::test
