// A directory of a scan area swapped for a symbolic link to a tree outside
// the area, again and again, while arvo-fim scans it: nothing of the outside
// tree may be recorded (no row with its inodes, digests or names), hashed or
// reported, whatever the scans' outcome (an object that vanished mid-walk may
// fail a run).
#include <fcntl.h>
#include <openssl/evp.h>
#include <sqlite3.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "tests/e2e/e2e_util.h"

namespace arvo::e2e {
namespace {

constexpr int kFiles = 1500;
// Bounds the swapping should a scan hang; a scan ends long before.
constexpr int kMaxSwaps = 1000000;

std::string Sha256Hex(const std::string& content) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(content.data(), content.size(), digest, &length, EVP_sha256(), nullptr);
  std::string hex;
  char byte[3];
  for (unsigned int i = 0; i < length; ++i) {
    std::snprintf(byte, sizeof byte, "%02x", digest[i]);
    hex += byte;
  }
  return hex;
}

std::string Name(int i) { return "f" + std::to_string(i); }

// What a row of one of the snapshot tables holds that could betray the
// outside tree.
struct Row {
  std::uint64_t ino = 0;
  std::string sha256Hex;
  std::string paths;
};

std::vector<Row> Rows(const std::string& dbPath) {
  std::vector<Row> rows;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(dbPath.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    ADD_FAILURE() << "cannot open " << dbPath;
    sqlite3_close(db);
    return rows;
  }
  for (const char* table : {"Baseline", "CurrentSnaphot"}) {
    const std::string sql = std::string("SELECT ino, hex(sha256), paths FROM ") + table;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
      ADD_FAILURE() << sqlite3_errmsg(db);
      continue;
    }
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      Row row;
      row.ino = static_cast<std::uint64_t>(sqlite3_column_int64(stmt, 0));
      const auto* hex = sqlite3_column_text(stmt, 1);
      for (const unsigned char* c = hex; c && *c; ++c)
        row.sha256Hex += static_cast<char>(tolower(*c));
      const auto* paths = static_cast<const char*>(sqlite3_column_blob(stmt, 2));
      row.paths.assign(paths ? paths : "", static_cast<std::size_t>(sqlite3_column_bytes(stmt, 2)));
      rows.push_back(row);
    }
    sqlite3_finalize(stmt);
  }
  sqlite3_close(db);
  return rows;
}

class SwapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_area = m_tree / "area";
    m_outside = m_tree / "outside";
    for (const std::string& dir : {m_area, m_area + "/sub", m_outside})
      ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
    WriteFile(m_area + "/top", "top");
    for (int i = 0; i < kFiles; ++i) {
      WriteFile(m_area + "/sub/" + Name(i), "inside " + std::to_string(i));
      // The same names, so that a path resolved through the link finds them.
      const std::string outside = "OUTSIDE " + std::to_string(i);
      WriteFile(m_outside + "/" + Name(i), outside);
      m_outsideHashes.insert(Sha256Hex(outside));
      struct stat st {};
      ASSERT_EQ(::stat((m_outside + "/" + Name(i)).c_str(), &st), 0);
      m_outsideInodes.insert(st.st_ino);
    }
    WriteFile(m_outside + "/outside-only", "outside only");
  }

  // One scan while another thread swaps area/sub for a link to the outside
  // tree and back, from before the scan starts until it has ended. Each swap
  // exchanges the directory and the link in one rename, so that area/sub
  // never vanishes (a vanished object fails the run, which would hide what
  // a completed one records).
  RunResult ScanWhileSwapping(const std::vector<std::string>& options) {
    std::atomic<bool> done{false};
    std::mutex mutex;
    std::condition_variable changed;
    int swaps = 0;
    const std::string sub = m_area + "/sub", link = m_area + "/sub.link";
    EXPECT_EQ(::symlink(m_outside.c_str(), link.c_str()), 0);
    auto exchange = [&] {
      return ::renameat2(AT_FDCWD, sub.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE) == 0;
    };
    std::thread swapper([&] {
      for (int i = 0; i < kMaxSwaps && !done; ++i) {
        if (!exchange()) break;
        {
          std::lock_guard lock(mutex);
          ++swaps;
        }
        changed.notify_all();
        if (!exchange()) break;
      }
    });
    {
      std::unique_lock lock(mutex);
      changed.wait(lock, [&] { return swaps > 0; });
    }
    std::vector<std::string> args = {"scan", "--format", "json"};
    args.insert(args.end(), options.begin(), options.end());
    args.push_back(m_area);
    RunResult run = RunFim(args, Env());
    done = true;
    swapper.join();
    struct stat st {};
    EXPECT_EQ(::lstat(sub.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode)) << "the swapper did not restore " << sub;
    EXPECT_EQ(::unlink(link.c_str()), 0);
    std::printf("scan exit %d after %d swaps\n", run.exitCode, swaps);
    return run;
  }

  // Rows, events and digests that come from the outside tree.
  void ExpectNothingFromOutside(const RunResult& run) {
    std::size_t rows = 0, foreign = 0;
    for (const Row& row : Rows(m_tree / "private/db/fim.db")) {
      ++rows;
      const bool outside = m_outsideInodes.count(row.ino) || m_outsideHashes.count(row.sha256Hex) ||
                           row.paths.find("outside-only") != std::string::npos;
      foreign += outside;
    }
    EXPECT_EQ(foreign, 0u) << "of " << rows << " rows";
    for (const Event& e : run.events) {
      for (const auto& field : e.json["fields"].items) {
        const std::string text = field["value"].Bytes();
        EXPECT_EQ(text.find("outside-only"), std::string::npos) << text;
        for (const std::string& hash : m_outsideHashes)
          EXPECT_EQ(text.find(hash), std::string::npos) << text;
      }
    }
  }

  std::map<std::string, std::string> Env() const {
    return {{"ARVO_FIM_DB", m_tree / "private/db/fim.db"},
            {"ARVO_FIM_STORAGE", m_tree / "private/storage/fim_storage.dat"}};
  }

  TempTree m_tree;
  std::string m_area, m_outside;
  std::set<std::string> m_outsideHashes;
  std::set<std::uint64_t> m_outsideInodes;
};

// Without hashing a scan cannot fail on a file replaced between its status
// and its open, so every run completes and keeps what it recorded.
TEST_F(SwapTest, NothingOfATreeSwappedInDuringBaselineAndCheckIsRecordedOrReported) {
  for (const char* hashing : {"--no-hash", "--hash"}) {
    SCOPED_TRACE(hashing);
    const RunResult baseline = ScanWhileSwapping({hashing});
    ExpectNothingFromOutside(baseline);
    const RunResult check = ScanWhileSwapping({hashing});
    ExpectNothingFromOutside(check);
  }
}

}  // namespace
}  // namespace arvo::e2e
