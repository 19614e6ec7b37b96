// arvo-fim scan killed with SIGKILL at seeded random points of a baseline,
// a check, an automatic update and a forced rebuild, in a loop over a
// generated tree. After each kill the database must pass SQLite's integrity
// check, and no later run may say "SystemIntegrityOk" while a change made
// before it was never reported (a change folded into a baseline the scan
// built is not reportable, by design).
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/e2e/e2e_util.h"
#include "tests/sqlite_probe.h"

namespace arvo::e2e {
namespace {

constexpr int kAreas = 3;
constexpr int kIterations = 24;

enum class Kind { kBaseline, kCheck, kAutoUpdate, kRebuild };
const char* Name(Kind k) {
  switch (k) {
    case Kind::kBaseline:
      return "baseline";
    case Kind::kCheck:
      return "check";
    case Kind::kAutoUpdate:
      return "auto-update";
    case Kind::kRebuild:
      return "rebuild";
  }
  return "?";
}

class CrashSafetyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int a = 0; a < kAreas; ++a) {
      const std::string area = Area(a);
      ASSERT_EQ(::mkdir(area.c_str(), 0755), 0);
      for (int d = 0; d < 3; ++d) {
        const std::string dir = area + "/d" + std::to_string(d);
        ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
        for (int f = 0; f < 15; ++f)
          WriteFile(dir + "/f" + std::to_string(f), std::string(1 + (f * 37) % 300, 'x'));
      }
    }
    WriteConfig();
  }

  std::string Area(int a) const { return m_tree / ("area" + std::to_string(a)); }
  std::string Db() const { return m_tree / "private/fim.db"; }
  std::string Storage() const { return m_tree / "private/fim_storage.dat"; }
  std::map<std::string, std::string> Env() const {
    return {{"ARVO_FIM_DB", Db()}, {"ARVO_FIM_STORAGE", Storage()}};
  }

  void WriteConfig() {
    std::string text = "[scan]\ncompute_content_hash = " + std::string(m_hash ? "true" : "false") +
                       "\nrebuild_toggle = " + (m_toggle ? "true" : "false") + "\n";
    for (int a = 0; a < kAreas; ++a) text += "[[area]]\npath = \"" + Area(a) + "\"\n";
    WriteFile(m_tree / "fim.toml", text, true);
  }

  std::vector<std::string> Args(bool autoUpdate, bool trace) const {
    std::vector<std::string> args;
    if (trace) args = {"--trace-level", "800"};
    for (const char* a : {"scan", "--format", "json", "--config"}) args.push_back(a);
    args.push_back(m_tree / "fim.toml");
    if (autoUpdate) args.push_back("--auto-update");
    return args;
  }

  // A random change: a file grown, created or deleted. It is pending until
  // a run reports its path.
  void Change() {
    const int a = static_cast<int>(m_rng() % kAreas);
    const std::string dir = Area(a) + "/d" + std::to_string(m_rng() % 3);
    std::string path = dir + "/f" + std::to_string(m_rng() % 15);
    switch (m_rng() % 3) {
      case 0:
        if (::access(path.c_str(), F_OK) == 0) {
          WriteFile(path, "+");  // appends: the size changes
          break;
        }
        [[fallthrough]];
      case 1:
        path = dir + "/new" + std::to_string(m_created++);
        WriteFile(path, "new");
        break;
      default:
        if (::unlink(path.c_str()) != 0) return;  // already gone: no change
    }
    m_pending[path] = a;
  }

  // Applies one run's events in order; counts an OK said while a change is
  // pending as lost.
  void Account(const std::vector<Event>& events) {
    for (const Event& e : events) {
      if (e.typeName == "SystemIntegrityIssue") {
        m_pending.erase(e.Path());
      } else if (e.typeName == "BaselineBuilt") {
        for (auto it = m_pending.begin(); it != m_pending.end();)
          it = it->first.rfind(e.Path() + "/", 0) == 0 ? m_pending.erase(it) : std::next(it);
      } else if (e.typeName == "SystemIntegrityOk") {
        ++m_oks;
        if (m_pending.empty()) continue;
        ++m_lost;
        ADD_FAILURE() << "OK said while " << m_pending.begin()->first << " is unreported";
        m_pending.clear();
      }
    }
  }

  // A complete run; false when it failed.
  bool Complete(bool autoUpdate) {
    const RunResult r = RunFim(Args(autoUpdate, false), Env());
    Account(r.events);
    EXPECT_TRUE(r.exitCode == 0 || r.exitCode == 1) << r.exitCode << "\n" << r.stderrText;
    return r.exitCode == 0 || r.exitCode == 1;
  }

  // Runs until `lines` trace lines have been read, then kills the run.
  // False when the run had ended by then.
  bool Killed(bool autoUpdate, std::size_t lines) {
    Process p(Args(autoUpdate, true), Env());
    p.ShrinkPipe(Stream::kErr);
    std::size_t seen = 0;
    while (seen < lines && p.ReadLine(Stream::kErr)) ++seen;
    p.Signal(SIGKILL);
    const int exitCode = p.Finish();
    Account(p.Events());
    return exitCode == 128 + SIGKILL;
  }

  std::size_t TraceLinesOfABaseline() {
    Process p(Args(false, true), Env());
    std::size_t lines = 0;
    while (p.ReadLine(Stream::kErr)) ++lines;
    EXPECT_EQ(p.Finish(), 0);
    Account(p.Events());
    return lines;
  }

  TempTree m_tree;
  std::mt19937 m_rng{20261125};
  bool m_hash = true, m_toggle = false;
  int m_created = 0;
  std::map<std::string, int> m_pending;  // changed path -> area
  int m_lost = 0;
  int m_oks = 0;  // runs that said OK
};

TEST_F(CrashSafetyTest, KilledRunsNeverLoseAChangeOrDamageTheDatabase) {
  const std::size_t traceLines = TraceLinesOfABaseline();
  ASSERT_GT(traceLines, 100u);
  int tried = 0, killed = 0, survived = 0;
  for (int i = 0; i < kIterations; ++i) {
    const Kind kind = static_cast<Kind>(i % 4);
    SCOPED_TRACE(std::string("iteration ") + std::to_string(i) + ", " + Name(kind));
    if (kind == Kind::kBaseline) {
      std::remove(Db().c_str());
      std::remove(Storage().c_str());
      m_pending.clear();
    }
    if (kind == Kind::kRebuild) {
      (i / 4 % 2 ? m_hash : m_toggle) ^= true;
      WriteConfig();
    }
    if (kind != Kind::kBaseline) Change();
    ++tried;
    const bool autoUpdate = kind == Kind::kAutoUpdate;
    killed += Killed(autoUpdate, 1 + m_rng() % traceLines);
    const std::string check = arvo::test::IntegrityCheck(Db());
    const bool sound = check == "ok" || ::access(Db().c_str(), F_OK) != 0;
    EXPECT_TRUE(sound) << check;

    Change();
    const int oks = m_oks;
    // The same run again, then one that accepts what it reports, then one
    // that must find nothing left.
    const bool recovered = Complete(autoUpdate) && Complete(true) && Complete(false);
    EXPECT_TRUE(m_pending.empty()) << m_pending.size() << " change(s) never reported";
    EXPECT_GT(m_oks, oks) << "no run said OK after the kill";
    survived += sound && recovered && m_pending.empty() && m_oks > oks;
  }
  std::cout << "crash safety: " << tried << " scenarios tried (" << killed << " killed mid-run), "
            << survived << " survived, " << m_lost << " lost data\n";
  EXPECT_EQ(survived, tried);
  EXPECT_EQ(m_lost, 0);
}

}  // namespace
}  // namespace arvo::e2e
