// Whole-scan benchmark of the on-demand task: a baseline scan and an
// unchanged rescan of a generated tree, each compared with a reference
// walker that makes the same system calls per object (status, file-system
// test, ACL attribute) and hashes every non-empty regular file with OpenSSL,
// but records nothing.
//
//   scan_bench [--files N] [--dir DIR] [--keep] [--no-hash]
//
// With --dir, the tree is kept in DIR/tree and reused by later runs with the
// same N (DIR/tree.files records it); the database and the storage file are
// started afresh each run.
// The tree (N files, default 20000, of 0-16 KiB in three levels of ten
// directories, with hard links, symbolic links and POSIX ACLs) is generated
// from a fixed seed, so every run scans the same shape and sizes. Each phase
// runs in a child process of its own: its wall time, its CPU time (all its
// threads) and its peak resident size are reported, so the peak of one phase
// says what that phase needs, independently of the others. The machine may
// be shared: CPU time is the steadier figure. Target: both scans within 1.5x
// of the reference walker; peak RSS independent of N.
#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "framework/object.h"
#include "host/services/allocator.h"
#include "host/services/file_factory.h"
#include "host/services/path_matcher.h"
#include "host/storage/persistent_storage.h"
#include "host/services/service_locator.h"
#include "host/services/sha256_provider.h"
#include "host/storage/storage_serializer.h"
#include "host/services/task_info_provider.h"
#include "host/services/tracer.h"
#include "on_demand_integrity_monitor_task.h"
#include "orn/simple_object.h"
#include "pax/enumerations.h"

namespace {

using app_core::task_manager::task::ITask;
using app_core::task_manager::task::TaskStopInfo;

struct Options {
  std::size_t files = 20000;
  std::string dir;
  bool keep = false;
  bool hash = true;
};

// ---------------------------------------------------------------- the tree

// splitmix64: the same sequence on every platform and library.
class Rng {
 public:
  explicit Rng(std::uint64_t seed) : m_state(seed) {}
  std::uint64_t Next() {
    std::uint64_t z = (m_state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }

 private:
  std::uint64_t m_state;
};

// A POSIX access ACL in the kernel's xattr form: owner rw, user 1000 rw,
// group r, mask rw, others r.
std::vector<std::uint8_t> AclBlob() {
  std::vector<std::uint8_t> blob;
  auto put32 = [&](std::uint32_t v) {
    for (int i = 0; i < 4; ++i) blob.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  };
  auto entry = [&](std::uint16_t tag, std::uint16_t perm, std::uint32_t id) {
    blob.push_back(static_cast<std::uint8_t>(tag));
    blob.push_back(static_cast<std::uint8_t>(tag >> 8));
    blob.push_back(static_cast<std::uint8_t>(perm));
    blob.push_back(static_cast<std::uint8_t>(perm >> 8));
    put32(id);
  };
  put32(2);
  entry(0x01, 6, 0xFFFFFFFF);
  entry(0x02, 6, 1000);
  entry(0x04, 4, 0xFFFFFFFF);
  entry(0x10, 6, 0xFFFFFFFF);
  entry(0x20, 4, 0xFFFFFFFF);
  return blob;
}

struct TreeStats {
  std::size_t files = 0, dirs = 0, hardLinks = 0, symlinks = 0, acls = 0, bytes = 0;
};

bool Fail(const char* what, const std::string& path) {
  std::fprintf(stderr, "scan_bench: %s %s: %s\n", what, path.c_str(), std::strerror(errno));
  return false;
}

bool Generate(const std::string& root, std::size_t files, TreeStats& stats) {
  if (mkdir(root.c_str(), 0755) != 0) return Fail("mkdir", root);
  std::vector<std::string> leaves;
  for (int a = 0; a < 10; ++a) {
    const std::string l1 = root + "/d" + std::to_string(a);
    if (mkdir(l1.c_str(), 0755) != 0) return Fail("mkdir", l1);
    for (int b = 0; b < 10; ++b) {
      const std::string l2 = l1 + "/d" + std::to_string(b);
      if (mkdir(l2.c_str(), 0755) != 0) return Fail("mkdir", l2);
      for (int c = 0; c < 10; ++c) {
        leaves.push_back(l2 + "/d" + std::to_string(c));
        if (mkdir(leaves.back().c_str(), 0755) != 0) return Fail("mkdir", leaves.back());
      }
    }
  }
  stats.dirs = 10 + 100 + 1000;
  Rng rng(42);
  std::vector<char> noise(32 * 1024);
  for (char& ch : noise) ch = static_cast<char>(rng.Next());
  const std::vector<std::uint8_t> acl = AclBlob();
  char name[32];
  for (std::size_t i = 0; i < files; ++i) {
    std::snprintf(name, sizeof name, "/f%07zu", i);
    const std::string path = leaves[i % leaves.size()] + name;
    const std::size_t size = rng.Next() % (16 * 1024 + 1);
    const std::size_t offset = rng.Next() % (noise.size() - size + 1);
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return Fail("create", path);
    const bool written = write(fd, noise.data() + offset, size) == static_cast<ssize_t>(size);
    close(fd);
    if (!written) return Fail("write", path);
    ++stats.files;
    stats.bytes += size;
    if (i % 20 == 7) {
      if (lsetxattr(path.c_str(), "system.posix_acl_access", acl.data(), acl.size(), 0) == 0)
        ++stats.acls;
    }
    if (i % 50 == 3) {
      std::snprintf(name, sizeof name, "/h%07zu", i);
      const std::string link = leaves[(i + 7) % leaves.size()] + name;
      if (::link(path.c_str(), link.c_str()) != 0) return Fail("link", link);
      ++stats.hardLinks;
    }
    if (i % 100 == 5) {
      std::snprintf(name, sizeof name, "/s%07zu", i);
      const std::string link = leaves[(i + 13) % leaves.size()] + name;
      if (symlink(path.c_str(), link.c_str()) != 0) return Fail("symlink", link);
      ++stats.symlinks;
    }
  }
  return true;
}

// ------------------------------------------------------ the reference walker

struct WalkCounts {
  std::size_t objects = 0;
  std::size_t hashed = 0;
};

void HashFile(const std::string& path, EVP_MD_CTX* ctx, std::vector<unsigned char>& buffer) {
  int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOATIME);
  if (fd < 0 && errno == EPERM)
    fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return;
  struct stat st {};
  fstat(fd, &st);  // the identity check a careful hasher makes
  EVP_DigestInit_ex(ctx, EVP_sha256(), nullptr);
  for (;;) {
    const ssize_t n = read(fd, buffer.data(), buffer.size());
    if (n <= 0) break;
    EVP_DigestUpdate(ctx, buffer.data(), static_cast<std::size_t>(n));
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(ctx, digest, &length);
  close(fd);
}

void ReferenceWalk(const std::string& directory, bool hash, EVP_MD_CTX* ctx,
                   std::vector<unsigned char>& buffer, WalkCounts& counts) {
  DIR* dir = opendir(directory.c_str());
  if (!dir) return;
  while (const dirent64* de = readdir64(dir)) {
    if (std::strcmp(de->d_name, ".") == 0 || std::strcmp(de->d_name, "..") == 0) continue;
    const std::string path = directory + "/" + de->d_name;
    struct stat st {};
    if (fstatat(AT_FDCWD, path.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    struct statfs fs {};
    statfs(path.c_str(), &fs);
    char acl[256];
    const ssize_t aclSize = lgetxattr(path.c_str(), "system.posix_acl_access", nullptr, 0);
    if (aclSize > 0) lgetxattr(path.c_str(), "system.posix_acl_access", acl, sizeof acl);
    ++counts.objects;
    if (hash && S_ISREG(st.st_mode) && st.st_size > 0) {
      HashFile(path, ctx, buffer);
      ++counts.hashed;
    }
    if (S_ISDIR(st.st_mode)) ReferenceWalk(path, hash, ctx, buffer, counts);
  }
  closedir(dir);
}

// ------------------------------------------------------ the module's scan

class CountingPublisher final : public orn::SimpleObject<pax::IEventPublisher> {
 public:
  orn::result_t Publish(const pax::ProductEvent& event) override {
    std::lock_guard lock(m_mutex);
    ++m_byType[event.eventType == pax::event_type::kSystemIntegrityIssue ? 0 : 1];
    return 0;
  }
  std::size_t Issues() {
    std::lock_guard lock(m_mutex);
    return m_byType[0];
  }
  std::size_t Others() {
    std::lock_guard lock(m_mutex);
    return m_byType[1];
  }

 private:
  std::mutex m_mutex;
  std::size_t m_byType[2] = {0, 0};
};

class NullDetections final : public orn::SimpleObject<pax::IIntegrityMonitorPublisher> {
 public:
  orn::result_t PublishDetectEvent(std::uint32_t, const orn::types::string8_t&,
                                   const pax::Sha256Digest*,
                                   const pax::DetectEventExtra*) override {
    return 0;
  }
};

class WaitingSink final : public orn::SimpleObject<app_core::task_manager::task::ITaskStopEvents> {
 public:
  orn::result_t OnTaskStopped(const TaskStopInfo& info) override {
    std::lock_guard lock(m_mutex);
    m_info = info;
    m_done = true;
    m_changed.notify_all();
    return 0;
  }
  TaskStopInfo Wait() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_done; });
    return m_info;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_done = false;
  TaskStopInfo m_info;
};

struct ScanResult {
  orn::result_t stopResult = -1;
  std::size_t issues = 0, others = 0;
};

// One complete scan through the task object, as a host drives it.
bool ModuleScan(const std::string& work, const std::string& tree, bool hash, ScanResult& out) {
  setenv("ARVO_FIM_DB", (work + "/fim.db").c_str(), 1);
  auto locator = orn::MakeSimple<arvo::host::ServiceLocator>();
  auto events = orn::MakeSimple<CountingPublisher>();
  locator->Register<orn::IAllocator>(orn::MakeSimple<arvo::host::Allocator>().Get());
  locator->Register<pax::IEventPublisher>(events.Get());
  locator->Register<pax::IIntegrityMonitorPublisher>(orn::MakeSimple<NullDetections>().Get());
  orn::RefPtr<filesystem_services::ISha256HashProvider> sha;
  orn::RefPtr<orn::IFileFactory> files;
  orn::RefPtr<orn::IPersistentStorage> storage;
  orn::RefPtr<orn::IStorageSerializer2> serializer;
  orn::RefPtr<pax::IPathMatcherFactory> matchers;
  orn::RefPtr<pax::ITaskInfoProvider> taskInfo;
  if (ORN_FAILED(arvo::host::CreateSha256Provider(sha)) ||
      ORN_FAILED(arvo::host::CreateFileFactory(files)) ||
      ORN_FAILED(arvo::host::CreatePersistentStorage(work + "/storage.dat", nullptr, storage)) ||
      ORN_FAILED(arvo::host::CreateStorageSerializer(serializer)) ||
      ORN_FAILED(arvo::host::CreatePathMatcherFactory(nullptr, matchers)) ||
      ORN_FAILED(arvo::host::CreateTaskInfoProvider({1, 1, u"bench", u"bench"}, taskInfo)))
    return false;
  locator->Register(sha.Get());
  locator->Register(files.Get(), orn::NfioFileFactoryCLSID);
  locator->Register(storage.Get());
  locator->Register(serializer.Get());
  locator->Register(matchers.Get());
  locator->Register(taskInfo.Get());
  // Errors only, to stderr, as a production host runs; SCAN_BENCH_TRACE=FILE
  // writes every detail line to FILE instead (to see where a scan's time goes).
  const char* traceFile = std::getenv("SCAN_BENCH_TRACE");
  orn::RefPtr<arvo::host::Tracer> tracer;
  std::string error;
  if (ORN_FAILED(
          arvo::host::CreateTracer(traceFile ? orn::kTraceLevelDetail : orn::kTraceLevelError,
                                   traceFile ? traceFile : "", tracer, error)))
    return false;
  locator->Register<orn::ITracer>(tracer.Get());

  orn::RefPtr<ITask> task;
  if (ORN_FAILED(orn::CreateLocatorObject<pax::fim::OnDemandIntegrityMonitorTask>(
          locator.Get(), ITask::kIid, task.RefVoid())))
    return false;
  orn::RefPtr<pax::fim::IOnDemandIntegrityMonitorTaskConstruct> construct;
  pax::settings::ODFIMSettings settings;
  settings.scanAreas = {pax::settings::ScanArea{u"bench", true, tree, {}}};
  settings.computeContentHash = hash;
  if (ORN_FAILED(orn::QueryInterface(task.Get(), construct)) ||
      ORN_FAILED(construct->Construct(&settings)))
    return false;
  auto sink = orn::MakeSimple<WaitingSink>();
  if (ORN_FAILED(task->Start(1, sink.Get()))) return false;
  out.stopResult = sink->Wait().result;
  (void)task->Stop();
  out.issues = events->Issues();
  out.others = events->Others();
  construct.Reset();
  task.Reset();
  locator->Clear();
  return true;
}

// ------------------------------------------------------------ measuring

struct Phase {
  double wall = 0, cpu = 0;
  long peakRssKiB = 0;
  bool ok = false;
  ScanResult scan;
  WalkCounts walk;
};

double CpuSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Runs `body` in a child process; times it there and takes the child's peak
// resident size from wait4.
Phase InChild(const std::function<bool(Phase&)>& body) {
  Phase phase;
  int fds[2];
  if (pipe(fds) != 0) return phase;
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    Phase result;
    const auto start = std::chrono::steady_clock::now();
    const double cpu0 = CpuSeconds();
    result.ok = body(result);
    result.cpu = CpuSeconds() - cpu0;
    result.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const ssize_t n = write(fds[1], &result, sizeof result);
    _exit(n == static_cast<ssize_t>(sizeof result) ? 0 : 1);
  }
  close(fds[1]);
  if (pid < 0) {
    close(fds[0]);
    return phase;
  }
  const bool got = read(fds[0], &phase, sizeof phase) == static_cast<ssize_t>(sizeof phase);
  close(fds[0]);
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  if (!got || !WIFEXITED(status) || WEXITSTATUS(status) != 0) phase.ok = false;
  phase.peakRssKiB = usage.ru_maxrss;
  return phase;
}

Phase Reference(const std::string& tree, bool hash) {
  return InChild([&](Phase& p) {
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    std::vector<unsigned char> buffer(256 * 1024);
    ReferenceWalk(tree, hash, ctx, buffer, p.walk);
    EVP_MD_CTX_free(ctx);
    return true;
  });
}

Phase Scan(const std::string& work, const std::string& tree, bool hash) {
  return InChild([&](Phase& p) { return ModuleScan(work, tree, hash, p.scan); });
}

void Print(const char* name, const Phase& p, const Phase* reference) {
  std::printf("%-22s wall %7.3f s  cpu %7.3f s  peak RSS %7ld KiB", name, p.wall, p.cpu,
              p.peakRssKiB);
  if (reference)
    std::printf("  ratio wall %.2fx  cpu %.2fx", p.wall / reference->wall, p.cpu / reference->cpu);
  std::printf("%s\n", p.ok ? "" : "  FAILED");
}

std::string ReadMarker(const std::string& path) {
  std::string text;
  if (FILE* f = std::fopen(path.c_str(), "r")) {
    char buffer[32] = {};
    if (std::fgets(buffer, sizeof buffer, f)) text = buffer;
    std::fclose(f);
  }
  return text;
}

void WriteMarker(const std::string& path, const std::string& text) {
  if (FILE* f = std::fopen(path.c_str(), "w")) {
    std::fputs(text.c_str(), f);
    std::fclose(f);
  }
}

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--files" && i + 1 < argc) {
      options.files = std::strtoull(argv[++i], nullptr, 10);
    } else if (arg == "--dir" && i + 1 < argc) {
      options.dir = argv[++i];
    } else if (arg == "--keep") {
      options.keep = true;
    } else if (arg == "--no-hash") {
      options.hash = false;
    } else {
      std::fprintf(stderr, "usage: scan_bench [--files N] [--dir DIR] [--keep] [--no-hash]\n");
      return false;
    }
  }
  return options.files > 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) return 2;
  std::string work = options.dir;
  if (!work.empty() && mkdir(work.c_str(), 0755) != 0 && errno != EEXIST)
    return Fail("mkdir", work) ? 0 : 1;
  if (work.empty()) {
    const char* tmp = std::getenv("TMPDIR");
    work = std::string(tmp && *tmp ? tmp : "/tmp") + "/scan-bench-XXXXXX";
    if (!mkdtemp(work.data())) return Fail("mkdtemp", work) ? 0 : 1;
  }
  const std::string tree = work + "/tree";
  const std::string marker = tree + ".files";
  const std::string count = std::to_string(options.files);
  unlink((work + "/fim.db").c_str());
  unlink((work + "/storage.dat").c_str());
  if (ReadMarker(marker) == count) {
    std::printf("reusing the tree of %zu files under %s\n", options.files, tree.c_str());
  } else {
    const std::string command = "rm -rf '" + tree + "'";
    if (std::system(command.c_str()) != 0) return 1;
    TreeStats stats;
    std::printf("generating %zu files under %s ...\n", options.files, tree.c_str());
    if (!Generate(tree, options.files, stats)) return 1;
    std::printf(
        "tree: %zu files (%.1f MiB), %zu directories, %zu hard links, %zu symbolic "
        "links, %zu ACLs\n",
        stats.files, static_cast<double>(stats.bytes) / (1024.0 * 1024.0), stats.dirs,
        stats.hardLinks, stats.symlinks, stats.acls);
    WriteMarker(marker, count);
  }
  std::printf("hashing %s\n", options.hash ? "on" : "off");

  (void)Reference(tree, options.hash);  // warms the page cache for everyone
  const Phase ref1 = Reference(tree, options.hash);
  const Phase baseline = Scan(work, tree, options.hash);
  const Phase rescan = Scan(work, tree, options.hash);
  const Phase ref2 = Reference(tree, options.hash);
  // The faster reference run is the yardstick (the stricter one).
  Phase ref = ref1.wall <= ref2.wall ? ref1 : ref2;
  ref.cpu = std::min(ref1.cpu, ref2.cpu);

  std::printf("reference walker: %zu objects, %zu hashed\n", ref.walk.objects, ref.walk.hashed);
  Print("reference walker", ref, nullptr);
  Print("baseline scan", baseline, &ref);
  Print("unchanged rescan", rescan, &ref);
  std::printf("baseline: stop result %d, %zu other events; rescan: stop result %d, %zu changes\n",
              baseline.scan.stopResult, baseline.scan.others, rescan.scan.stopResult,
              rescan.scan.issues);
  const bool sane = baseline.ok && rescan.ok && baseline.scan.stopResult == 0 &&
                    rescan.scan.stopResult == 0 && rescan.scan.issues == 0;
  if (!options.keep && options.dir.empty()) {
    const std::string command = "rm -rf '" + work + "'";
    if (std::system(command.c_str()) != 0) std::fprintf(stderr, "cannot remove %s\n", work.c_str());
  }
  return sane ? 0 : 1;
}
