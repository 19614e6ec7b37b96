// arvo-fim's command line as a user meets it: usage errors, bad
// configurations and a missing module end with exit code 2 and a message
// before anything starts.
#include "tests/e2e/e2e_util.h"

namespace arvo::e2e {
namespace {

TEST(CliE2eTest, ListShowsWhatTheModuleOffers) {
  Process list({"list"});
  std::string out;
  while (auto line = list.ReadLine(Stream::kOut)) out += *line + "\n";
  EXPECT_EQ(list.Finish(), 0) << list.Stderr();
  for (const char* id : {"0xBD321DA2", "0x186EA113", "0x2507FBA4", "0x1C2A6E6B", "0x4C323CCB"})
    EXPECT_NE(out.find(id), std::string::npos) << id << "\n" << out;
  EXPECT_EQ(out.find("0x8"), std::string::npos) << "a failure code in:\n" << out;
}

TEST(CliE2eTest, BadUsageConfigurationOrModuleExitsTwoWithAMessage) {
  TempTree tree;
  WriteFile(tree / "bad.toml", "[[area]]\npath = \"relative\"\n");
  WriteFile(tree / "typo.toml", "[[area]]\npath = \"/tmp\"\nenabeld = true\n");
  struct Case {
    std::vector<std::string> args;
    std::string message;
  };
  const Case cases[] = {
      {{}, "arvo-fim: no command given"},
      {{"watch", "--frobnicate"}, "arvo-fim: unknown option '--frobnicate' for 'watch'"},
      {{"scan", "--config", tree / "missing.toml"},
       "arvo-fim: cannot read configuration '" + (tree / "missing.toml") + "'"},
      {{"watch", "--config", tree / "bad.toml"},
       "arvo-fim: " + (tree / "bad.toml") + ":2:8: area[1].path: area path must be absolute"},
      {{"scan", "--config", tree / "typo.toml"},
       "arvo-fim: " + (tree / "typo.toml") + ":3:1: area[1].enabeld: unknown key"},
      {{"watch"}, "arvo-fim: nothing to monitor"},
      {{"--module", tree / "none.so", "watch", tree.Path()},
       "arvo-fim: cannot load module '" + (tree / "none.so") + "': "},
  };
  for (const Case& c : cases) {
    const RunResult r = RunFim(c.args);
    EXPECT_EQ(r.exitCode, 2) << c.message;
    EXPECT_EQ(r.stderrText.rfind(c.message, 0), 0u)
        << "expected: " << c.message << "\ngot: " << r.stderrText;
    EXPECT_TRUE(r.events.empty());
  }
}

}  // namespace
}  // namespace arvo::e2e
