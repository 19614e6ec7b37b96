#include "host/cli/cli.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace arvo::host {
namespace {

bool Parse(std::vector<const char*> args, CommandLine& line, std::string& error) {
  args.insert(args.begin(), "arvo-fim");
  return ParseCommandLine(static_cast<int>(args.size()), args.data(), line, error);
}

TEST(CliTest, WatchTakesGlobalAndOwnOptionsAndPaths) {
  CommandLine line;
  std::string error;
  ASSERT_TRUE(Parse({"--module", "/m.so", "--trace-level=800", "watch", "/a", "--exclude", "*.o",
                     "--exclude=*.tmp", "--format", "text", "--output=/out", "--detections",
                     "--trace-file", "/t", "--", "--not-an-option"},
                    line, error))
      << error;
  EXPECT_EQ(line.command, Command::kWatch);
  EXPECT_EQ(line.modulePath, "/m.so");
  EXPECT_EQ(line.traceLevel, 800u);
  EXPECT_EQ(line.traceFile, "/t");
  EXPECT_EQ(line.excludes, (std::vector<std::string>{"*.o", "*.tmp"}));
  EXPECT_EQ(line.format, OutputFormat::kText);
  EXPECT_EQ(line.outputFile, "/out");
  EXPECT_TRUE(line.detections);
  EXPECT_EQ(line.paths, (std::vector<std::string>{"/a", "--not-an-option"}));
}

TEST(CliTest, ScanAndDaemonFlags) {
  CommandLine scan;
  std::string error;
  ASSERT_TRUE(Parse(
      {"scan", "--config", "c.toml", "--no-hash", "--auto-update", "--report-atime", "--no-wait"},
      scan, error))
      << error;
  EXPECT_EQ(scan.command, Command::kScan);
  EXPECT_EQ(scan.configFile, "c.toml");
  EXPECT_EQ(scan.hash, false);
  EXPECT_TRUE(scan.autoUpdate && scan.reportAccessTime && scan.noWait);
  EXPECT_EQ(scan.traceLevel, 300u);

  CommandLine daemon;
  EXPECT_FALSE(scan.journal);
  ASSERT_TRUE(Parse({"daemon", "--config", "c.toml", "--interval", "60", "--hash", "--journal"},
                    daemon, error));
  EXPECT_EQ(daemon.intervalSeconds, 60u);
  EXPECT_EQ(daemon.hash, true);
  EXPECT_TRUE(daemon.journal);
  CommandLine unscheduled;
  ASSERT_TRUE(Parse({"daemon", "--interval", "0", "/srv"}, unscheduled, error)) << error;
  EXPECT_EQ(unscheduled.intervalSeconds, 0u);  // set: overrides the configuration
  CommandLine configured;
  ASSERT_TRUE(Parse({"daemon", "/srv"}, configured, error)) << error;
  EXPECT_FALSE(configured.intervalSeconds);

  CommandLine status, accept, check;
  ASSERT_TRUE(Parse({"status", "--config", "c.toml"}, status, error)) << error;
  EXPECT_EQ(status.command, Command::kStatus);
  EXPECT_EQ(status.configFile, "c.toml");
  ASSERT_TRUE(Parse({"accept", "--config", "c.toml", "/srv"}, accept, error)) << error;
  EXPECT_EQ(accept.command, Command::kAccept);
  EXPECT_EQ(accept.paths, std::vector<std::string>{"/srv"});
  ASSERT_TRUE(Parse({"check-config"}, check, error)) << error;
  EXPECT_EQ(check.command, Command::kCheckConfig);

  CommandLine list;
  ASSERT_TRUE(Parse({"modules"}, list, error));
  EXPECT_EQ(list.command, Command::kList);
  CommandLine version;
  ASSERT_TRUE(Parse({"--module", "x.so", "--version"}, version, error));
  EXPECT_EQ(version.command, Command::kVersion);
}

TEST(CliTest, BadUsageIsExplained) {
  struct Case {
    std::vector<const char*> args;
    const char* error;
  };
  const Case cases[] = {
      {{}, "no command given"},
      {{"frobnicate"}, "unknown command 'frobnicate'"},
      {{"--trace-level", "400", "list"}, "invalid trace level '400'"},
      {{"--trace-level"}, "option --trace-level needs a value"},
      {{"watch", "--hash"}, "unknown option '--hash' for 'watch'"},
      {{"daemon", "--no-wait"}, "unknown option '--no-wait' for 'daemon'"},
      {{"scan", "--interval", "5"}, "unknown option '--interval' for 'scan'"},
      {{"scan", "--format", "xml"}, "invalid format 'xml'"},
      {{"scan", "--auto-update=yes"}, "option --auto-update takes no value"},
      {{"daemon", "--interval", "2000001"}, "invalid interval '2000001'"},
      {{"status", "--exclude", "x"}, "unknown option '--exclude' for 'status'"},
      {{"check-config", "/etc"}, "unexpected argument '/etc' for 'check-config'"},
      {{"daemon", "--interval", "1x"}, "invalid interval '1x'"},
      {{"list", "/path"}, "unexpected argument '/path' for 'list'"},
      {{"watch", "--config="}, "option --config needs a non-empty value"},
      {{"--detections", "watch"}, "unknown option '--detections'"},
  };
  for (const Case& c : cases) {
    CommandLine line;
    std::string error;
    EXPECT_FALSE(Parse(c.args, line, error)) << c.error;
    EXPECT_EQ(error.rfind(c.error, 0), 0u) << "expected: " << c.error << "\ngot: " << error;
  }
}

TEST(CliTest, HelpDescribesTheProgramAndEachCommand) {
  CommandLine line;
  std::string error;
  for (const auto& args : {std::vector<const char*>{"--help"}, {"help"}, {"-h"}}) {
    ASSERT_TRUE(Parse(args, line, error)) << error;
    EXPECT_EQ(line.command, Command::kHelp);
    EXPECT_NE(line.helpText.find("Usage: arvo-fim [OPTIONS] [SUBCOMMAND]"), std::string::npos)
        << line.helpText;
  }
  for (const char* command : {"list", "watch", "scan", "daemon"}) {
    ASSERT_TRUE(Parse({command, "--help"}, line, error)) << error;
    EXPECT_EQ(line.command, Command::kHelp);
    EXPECT_NE(line.helpText.find(std::string("Usage: arvo-fim ") + command), std::string::npos)
        << line.helpText;
  }
  ASSERT_TRUE(Parse({"scan", "--help"}, line, error));
  for (const char* option : {"--config", "--no-hash", "--auto-update", "--report-atime"})
    EXPECT_NE(line.helpText.find(option), std::string::npos) << option;
}

}  // namespace
}  // namespace arvo::host
