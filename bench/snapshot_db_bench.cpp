// Writes and compares 100k file snapshots through the on-demand engine's
// database path, and writes the same rows with plain SQLite (one
// transaction, statements prepared once) in the same run, on files in the
// same directory. Prints rows per second and the ratio.
//
//   snapshot_db_bench [rows] [directory]
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "change_publisher.h"
#include "file_snapshot.h"
#include "integrity_database.h"
#include "on_demand_context.h"
#include "orn/simple_object.h"
#include "snapshot_builder.h"
#include "snapshot_comparer.h"

namespace {

using Clock = std::chrono::steady_clock;
using pax::fim::FileSnapshot;

class CountingPublisher final : public orn::SimpleObject<pax::IEventPublisher> {
 public:
  orn::result_t Publish(const pax::ProductEvent&) override {
    ++m_count;
    return 0;
  }
  std::size_t Count() const { return m_count; }

 private:
  std::atomic<std::size_t> m_count{0};
};

// Wall time and this thread's CPU time of one phase. The machine may be
// shared: CPU time is what the phase itself cost, wall time includes
// waiting for the CPU and for the disk.
class Timer {
 public:
  Timer() : m_wall(Clock::now()), m_cpu(CpuNow()) {}
  double Wall() const { return std::chrono::duration<double>(Clock::now() - m_wall).count(); }
  double Cpu() const { return CpuNow() - m_cpu; }

 private:
  static double CpuNow() {
    timespec ts{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
  }
  Clock::time_point m_wall;
  double m_cpu;
};

struct Rate {
  double wall = 0;  // rows per wall-clock second
  double cpu = 0;   // rows per CPU second
};

Rate RateOf(std::size_t rows, const Timer& timer) {
  return {static_cast<double>(rows) / timer.Wall(), static_cast<double>(rows) / timer.Cpu()};
}

// A plausible file: a path two directories deep, a digest, no ACL.
FileSnapshot MakeSnapshot(std::size_t i) {
  FileSnapshot s;
  s.ino = 100000 + i;
  s.dev = 2049;
  s.nlinks = 1;
  s.size = static_cast<std::int64_t>(i * 37 % 100000);
  s.ctime_sec = s.mtime_sec = s.atime_sec = 1700000000 + static_cast<std::int64_t>(i);
  s.ctime_nsec = s.mtime_nsec = s.atime_nsec = static_cast<std::int64_t>(i * 7919 % 1000000000);
  s.attr = S_IFREG | 0644;
  s.uid = s.gid = 1000;
  for (std::size_t b = 0; b < s.sha256.size(); ++b)
    s.sha256[b] = static_cast<std::uint8_t>((i >> (b % 8)) + b + 1);
  const std::string path = "/srv/area/dir" + std::to_string(i / 1000) + "/sub" +
                           std::to_string(i / 100 % 10) + "/file" + std::to_string(i) + ".dat";
  s.paths.reserve(path.size() * 2 + 2);
  s.paths.assign(path.begin(), path.end());  // unterminated, as built
  return s;
}

constexpr const char* kCreateScopes =
    "CREATE TABLE ScanScopes (id INTEGER NOT NULL PRIMARY KEY AUTOINCREMENT, taskid INTEGER NOT "
    "NULL, path TEXT NOT NULL); INSERT INTO ScanScopes(taskid, path) VALUES (1, '/srv/area');";
constexpr const char* kCreateRows =
    "CREATE TABLE Rows (scanscopeid INTEGER NOT NULL, ino INTEGER NOT NULL, dev INTEGER NOT NULL,"
    " ctime_sec INTEGER NOT NULL, ctime_nsec INTEGER NOT NULL, atime_sec INTEGER NOT NULL,"
    " atime_nsec INTEGER NOT NULL, mtime_sec INTEGER NOT NULL, mtime_nsec INTEGER NOT NULL,"
    " paths BLOB NOT NULL, attr INTEGER NOT NULL, nlinks INTEGER NOT NULL, size INTEGER NOT NULL,"
    " uid INTEGER NOT NULL, gid INTEGER NOT NULL, sha256 BLOB NOT NULL, acl BLOB NOT NULL,"
    " PRIMARY KEY(scanscopeid, ino, dev),"
    " FOREIGN KEY(scanscopeid) REFERENCES ScanScopes(id) ON DELETE CASCADE);"
    "PRAGMA foreign_keys = ON;";

// Plain SQLite: one transaction, one INSERT prepared once, values bound,
// and optionally the primary-key lookup our path makes per row.
Rate PlainRowsPerSecond(const std::string& file, const std::vector<FileSnapshot>& rows,
                        bool withLookup) {
  std::filesystem::remove(file);
  sqlite3* db = nullptr;
  sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  sqlite3_exec(db, kCreateScopes, nullptr, nullptr, nullptr);
  sqlite3_exec(db, kCreateRows, nullptr, nullptr, nullptr);
  sqlite3_stmt* insert = nullptr;
  sqlite3_stmt* lookup = nullptr;
  sqlite3_prepare_v2(db, "INSERT INTO Rows VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)", -1, &insert,
                     nullptr);
  sqlite3_prepare_v2(db, "SELECT paths FROM Rows WHERE scanscopeid = ? AND ino = ? AND dev = ?", -1,
                     &lookup, nullptr);
  const Timer timer;
  sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
  for (const FileSnapshot& s : rows) {
    if (withLookup) {
      sqlite3_bind_int64(lookup, 1, 1);
      sqlite3_bind_int64(lookup, 2, static_cast<sqlite3_int64>(s.ino));
      sqlite3_bind_int64(lookup, 3, static_cast<sqlite3_int64>(s.dev));
      sqlite3_step(lookup);
      sqlite3_reset(lookup);
    }
    const sqlite3_int64 values[] = {1,
                                    static_cast<sqlite3_int64>(s.ino),
                                    static_cast<sqlite3_int64>(s.dev),
                                    s.ctime_sec,
                                    s.ctime_nsec,
                                    s.atime_sec,
                                    s.atime_nsec,
                                    s.mtime_sec,
                                    s.mtime_nsec};
    for (int i = 0; i < 9; ++i) sqlite3_bind_int64(insert, i + 1, values[i]);
    sqlite3_bind_blob(insert, 10, s.paths.data(), static_cast<int>(s.paths.size()), SQLITE_STATIC);
    sqlite3_bind_int64(insert, 11, s.attr);
    sqlite3_bind_int64(insert, 12, static_cast<sqlite3_int64>(s.nlinks));
    sqlite3_bind_int64(insert, 13, s.size);
    sqlite3_bind_int64(insert, 14, s.uid);
    sqlite3_bind_int64(insert, 15, s.gid);
    sqlite3_bind_blob(insert, 16, s.sha256.data(), 32, SQLITE_STATIC);
    sqlite3_bind_zeroblob(insert, 17, 0);
    if (sqlite3_step(insert) != SQLITE_DONE) std::fprintf(stderr, "plain insert failed\n");
    sqlite3_reset(insert);
  }
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  const Rate rate = RateOf(rows.size(), timer);
  sqlite3_finalize(insert);
  sqlite3_finalize(lookup);
  sqlite3_close(db);
  return rate;
}

struct OurResult {
  Rate baselineRate;
  Rate currentRate;
  Rate compareRate;
  std::size_t events = 0;
};

// Our path: the scope registered and every row saved (hard-link lookup and
// REPLACE) inside one area transaction, for the baseline and then for a
// current snapshot with 1% of the files changed; then the comparison.
OurResult OurRowsPerSecond(const std::string& file, const std::vector<FileSnapshot>& rows) {
  std::filesystem::remove(file);
  ::setenv(pax::fim::kDatabasePathVariable, file.c_str(), 1);
  OurResult result;
  auto events = orn::MakeSimple<CountingPublisher>();
  pax::settings::ODFIMSettings settings;
  pax::TaskInfo info;
  pax::fim::OnDemandContext context;
  context.settings = &settings;
  context.taskInfo = &info;
  context.eventPublisher = events.Get();
  pax::fim::IntegrityDatabase db(nullptr);
  if (ORN_FAILED(db.Open()) || ORN_FAILED(db.InitializeDatabase())) {
    std::fprintf(stderr, "cannot open %s\n", file.c_str());
    std::exit(1);
  }
  context.db = db.Handle();
  pax::fim::SnapshotBuilder builder(context, db);

  const auto walk = [&](bool baseline, std::size_t changeEvery) {
    context.buildingBaseline = baseline;
    // The walk builds each snapshot from the file's status; here they are
    // made before the clock starts, as plain SQLite's rows are.
    std::vector<FileSnapshot> snaps = rows;
    for (std::size_t i = 0; changeEvery && i < snaps.size(); i += changeEvery) snaps[i].size += 1;
    const Timer timer;
    pax::fim::IntegrityDatabase::Transaction transaction(db);
    std::uint64_t scope = 0;
    (void)db.CheckScanScopeBaseline("/srv/area", 1, scope);
    if (!baseline) (void)db.DeleteSnapshotRows(pax::fim::kCurrentSnapshotTable, scope);
    for (FileSnapshot& snap : snaps) {
      if (ORN_FAILED(builder.SaveFileSnapshot(scope, snap))) std::fprintf(stderr, "save failed\n");
    }
    (void)transaction.Commit();
    return RateOf(rows.size(), timer);
  };
  result.baselineRate = walk(true, 0);
  result.currentRate = walk(false, 100);

  pax::fim::ChangePublisher publisher(context);
  pax::fim::SnapshotComparer comparer(context, db, publisher);
  const Timer timer;
  if (ORN_FAILED(comparer.CompareSnapshots(1))) std::fprintf(stderr, "compare failed\n");
  result.compareRate = RateOf(rows.size(), timer);
  result.events = events->Count();
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 100000;
  const std::string dir = argc > 2 ? argv[2] : std::filesystem::temp_directory_path().string();
  std::vector<FileSnapshot> rows;
  rows.reserve(count);
  for (std::size_t i = 0; i < count; ++i) rows.push_back(MakeSnapshot(i));

  const std::string ourFile = dir + "/snapshot_db_bench_ours.db";
  const std::string plainFile = dir + "/snapshot_db_bench_plain.db";
  const Rate plain = PlainRowsPerSecond(plainFile, rows, false);
  const Rate plainLookup = PlainRowsPerSecond(plainFile, rows, true);
  const OurResult ours = OurRowsPerSecond(ourFile, rows);

  // Ratios on CPU time (stable on a shared machine): against plain inserts,
  // and against plain inserts with the same primary-key lookup per row.
  const auto line = [&](const char* what, const Rate& r, bool ratio) {
    std::printf("%-46s %9.0f rows/s wall %9.0f rows/s cpu", what, r.wall, r.cpu);
    if (ratio)
      std::printf("   %.2f of insert, %.2f of lookup + insert", r.cpu / plain.cpu,
                  r.cpu / plainLookup.cpu);
    std::printf("\n");
  };
  std::printf("rows: %zu\n", count);
  line("plain: insert, 1 transaction, prepared once", plain, false);
  line("plain: lookup + insert, the same", plainLookup, false);
  line("ours: baseline walk (lookup + replace)", ours.baselineRate, true);
  line("ours: current snapshot walk", ours.currentRate, true);
  line("ours: comparison", ours.compareRate, false);
  std::printf("comparison events: %zu\n", ours.events);
  std::filesystem::remove(ourFile);
  std::filesystem::remove(plainFile);
  return 0;
}
