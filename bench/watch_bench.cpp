// Compares change watching by the host's providers (inotify and fanotify, in
// process), `arvo-fim watch` on each backend and `inotifywait -m -r`, in one
// run on one tree:
//   - setup: time until the watches of a tree of ~20,000 directories are set
//     (process start to readiness line for the programs);
//   - latency: from a write to the event being seen (line read from the
//     program's stdout, or OnEvent called), median and p99;
//   - sustained rate: the highest paced write rate at which every file's
//     last write is followed by an event for that file and no loss is
//     reported (fanotify merges repeated changes of one file queued by one
//     process into one event, so events are not counted one per write);
//   - kernel watches or marks held, from /proc/PID/fdinfo.
//
//   watch_bench [--arvo-fim PATH] [--dirs N] [--samples N] [--rate-seconds S]
//               [--parent DIR] [--no-inotifywait] [--existing DIR]
//
// --existing measures setup and kernel objects only, on a tree that is not
// ours (e.g. /usr): the providers and inotifywait, nothing written into it.
//
// The fanotify provider drops changes its own process makes, so in process
// only its setup is measured; arvo-fim/fanotify times that backend's events.
// arvo-fim defaults to the binary next to this one; a missing program is
// skipped. The tree is made under /dev/shm when it exists (making and
// removing 20,000 directories on a slow disk takes longer than the whole
// measurement), else under the temporary directory; --parent chooses.
// Not a test: figures depend on the machine and its load.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/util/scoped_fd.h"
#include "host/watch/fanotify_provider.h"
#include "host/watch/inotify_provider.h"
#include "orn/simple_object.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using arvo::host::ScopedFd;

constexpr const char* kProbeName = "probe";
constexpr const char* kRateMark = "rate_";
constexpr int kRateFiles = 64;  // written round robin

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Counts the events a subject reports, keyed by what their text contains.
class EventSink {
 public:
  void OnText(const std::string& text) {
    const Clock::time_point now = Clock::now();
    if (text.find(kProbeName) != std::string::npos) {
      std::lock_guard lock(m_mutex);
      ++m_probes;
      m_lastProbe = now;
      m_changed.notify_all();
    } else if (const std::size_t at = text.find(kRateMark); at != std::string::npos) {
      m_rateEvents.fetch_add(1);
      const int file = std::atoi(text.c_str() + at + std::strlen(kRateMark));
      if (file >= 0 && file < kRateFiles) m_lastSeen[file].store(now.time_since_epoch().count());
    }
    // arvo-fim's coverage-gap event, inotifywait's overflow line.
    if (text.find("CoverageLost") != std::string::npos ||
        text.find("Q_OVERFLOW") != std::string::npos)
      OnLoss();
  }
  void OnLoss() { m_lost.store(true); }
  std::uint64_t Probes() {
    std::lock_guard lock(m_mutex);
    return m_probes;
  }
  // When the probe event after `seen` arrived; empty on timeout.
  std::optional<Clock::time_point> WaitProbe(std::uint64_t seen) {
    std::unique_lock lock(m_mutex);
    if (!m_changed.wait_for(lock, std::chrono::seconds(2), [&] { return m_probes > seen; }))
      return std::nullopt;
    return m_lastProbe;
  }
  std::uint64_t RateEvents() const { return m_rateEvents.load(); }
  bool Lost() const { return m_lost.load(); }
  void ResetRate() {
    m_rateEvents.store(0);
    m_lost.store(false);
  }
  // Every file written has had an event since its last write (`lastWrite`,
  // steady-clock ticks, 0 for a file not written).
  bool Covers(const std::vector<Clock::rep>& lastWrite) const {
    for (std::size_t i = 0; i < lastWrite.size(); ++i)
      if (lastWrite[i] != 0 && m_lastSeen[i].load() < lastWrite[i]) return false;
    return true;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::uint64_t m_probes = 0;
  Clock::time_point m_lastProbe;
  std::atomic<std::uint64_t> m_rateEvents{0};
  std::atomic<bool> m_lost{false};
  std::atomic<Clock::rep> m_lastSeen[kRateFiles] = {};
};

class Subject {
 public:
  virtual ~Subject() = default;
  virtual std::string Name() const = 0;
  // Starts watching `root`; returns the seconds until watches were set.
  virtual std::optional<double> Start(const std::string& root) = 0;
  virtual void Stop() = 0;
  // False when changes this process makes are not delivered to it, so the
  // bench's own writes cannot time it.
  virtual bool SeesOwnWrites() const { return true; }
  EventSink sink;
  std::optional<int> watches;  // kernel watches or marks held once set up
};

class ForwardingReceiver final : public orn::SimpleObject<pax::IInotifyEventsReceiver> {
 public:
  explicit ForwardingReceiver(EventSink& sink) : m_sink(sink) {}
  orn::result_t OnEvent(const pax::InotifyEvent& event) override {
    if (event.error.empty()) {
      m_sink.OnText(event.path);
    } else {
      m_sink.OnLoss();
    }
    return orn::errors::kOk;
  }
  orn::result_t GetName(orn::types::string8_t& name) const override {
    name = "watch_bench";
    return orn::errors::kOk;
  }

 private:
  EventSink& m_sink;
};

using ProviderFactory = orn::result_t (*)(orn::RefPtr<pax::IInotifyEventsProvider>&);

orn::result_t MakeInotify(orn::RefPtr<pax::IInotifyEventsProvider>& out) {
  return arvo::host::CreateInotifyProvider(nullptr, out);
}

orn::result_t MakeFanotify(orn::RefPtr<pax::IInotifyEventsProvider>& out) {
  std::string why;
  const orn::result_t r = arvo::host::CreateFanotifyProvider(nullptr, out, why);
  if (ORN_FAILED(r)) std::printf("fanotify provider: %s\n", why.c_str());
  return r;
}

// Kernel watch objects a process ("self" or a pid) holds: inotify watches
// and fanotify marks, as its fdinfo lists them.
int KernelWatches(const std::string& process) {
  int count = 0;
  std::error_code ec;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + process + "/fdinfo", ec)) {
    FILE* f = std::fopen(entry.path().c_str(), "r");
    if (!f) continue;
    char line[512];
    while (std::fgets(line, sizeof line, f)) {
      if (std::strncmp(line, "inotify wd:", 11) == 0) ++count;
      if (std::strncmp(line, "fanotify ", 9) == 0 && std::strstr(line, "mflags:")) ++count;
    }
    std::fclose(f);
  }
  return count;
}

// The host's provider in this process: no process start, no output.
class ProviderSubject final : public Subject {
 public:
  ProviderSubject(std::string name, ProviderFactory factory, bool seesOwnWrites)
      : m_name(std::move(name)), m_factory(factory), m_seesOwnWrites(seesOwnWrites) {}
  std::string Name() const override { return m_name; }
  bool SeesOwnWrites() const override { return m_seesOwnWrites; }
  std::optional<double> Start(const std::string& root) override {
    const Clock::time_point begin = Clock::now();
    m_receiver = orn::MakeSimple<ForwardingReceiver>(sink);
    if (ORN_FAILED(m_factory(m_provider)) ||
        ORN_FAILED(m_provider->Subscribe(m_receiver.Get(), root, 0x3C6)))
      return std::nullopt;
    const double seconds = Seconds(Clock::now() - begin);
    watches = KernelWatches("self");
    return seconds;
  }
  void Stop() override {
    if (m_provider) (void)m_provider->Unsubscribe(m_receiver.Get());
    m_provider.Reset();
    m_receiver.Reset();
  }

 private:
  std::string m_name;
  ProviderFactory m_factory;
  bool m_seesOwnWrites;
  orn::RefPtr<pax::IInotifyEventsProvider> m_provider;
  orn::RefPtr<ForwardingReceiver> m_receiver;
};

// A program whose stdout carries one event per line and whose stderr says
// when its watches are set.
class ProcessSubject final : public Subject {
 public:
  ProcessSubject(std::string name, std::vector<std::string> argv, std::string readyMarker)
      : m_name(std::move(name)), m_argv(std::move(argv)), m_readyMarker(std::move(readyMarker)) {}
  ~ProcessSubject() override { Stop(); }
  std::string Name() const override { return m_name; }

  std::optional<double> Start(const std::string& root) override {
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return std::nullopt;
    ScopedFd outRead(out[0]), outWrite(out[1]);
    if (::pipe2(err, O_CLOEXEC) != 0) return std::nullopt;
    ScopedFd errRead(err[0]), errWrite(err[1]);
    std::vector<std::string> args = m_argv;
    args.push_back(root);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outWrite.Get(), 1);
    posix_spawn_file_actions_adddup2(&actions, errWrite.Get(), 2);
    m_ready = false;
    const Clock::time_point begin = Clock::now();
    const int rc = ::posix_spawnp(&m_pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
      m_pid = -1;
      return std::nullopt;
    }
    outWrite.Reset();
    errWrite.Reset();
    m_reader = std::thread([this, o = std::move(outRead), e = std::move(errRead)]() mutable {
      ReadLines(std::move(o), std::move(e));
    });
    std::unique_lock lock(m_mutex);
    if (!m_changed.wait_for(lock, std::chrono::seconds(120), [&] { return m_ready || m_ended; }) ||
        !m_ready) {
      lock.unlock();
      Stop();
      return std::nullopt;
    }
    watches = KernelWatches(std::to_string(m_pid));
    return Seconds(m_readyAt - begin);
  }

  void Stop() override {
    if (m_pid > 0) {
      ::kill(m_pid, SIGTERM);
      int status = 0;
      ::waitpid(m_pid, &status, 0);
      m_pid = -1;
    }
    if (m_reader.joinable()) m_reader.join();
    m_ended = false;
  }

 private:
  void ReadLines(ScopedFd out, ScopedFd err) {
    std::string pending[2];
    struct pollfd fds[2] = {{out.Get(), POLLIN, 0}, {err.Get(), POLLIN, 0}};
    char buffer[65536];
    while (fds[0].fd >= 0 || fds[1].fd >= 0) {
      if (::poll(fds, 2, -1) < 0 && errno != EINTR) break;
      for (int i = 0; i < 2; ++i) {
        if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
        if (n <= 0) {
          fds[i].fd = -1;
          continue;
        }
        pending[i].append(buffer, static_cast<std::size_t>(n));
        std::size_t start = 0;
        for (std::size_t nl; (nl = pending[i].find('\n', start)) != std::string::npos;
             start = nl + 1) {
          OnLine(i, pending[i].substr(start, nl - start));
        }
        pending[i].erase(0, start);
      }
    }
    std::lock_guard lock(m_mutex);
    m_ended = true;
    m_changed.notify_all();
  }
  void OnLine(int stream, const std::string& line) {
    if (stream == 0) {
      sink.OnText(line);
    } else if (line.find(m_readyMarker) != std::string::npos) {
      std::lock_guard lock(m_mutex);
      m_ready = true;
      m_readyAt = Clock::now();
      m_changed.notify_all();
    }
  }

  std::string m_name;
  std::vector<std::string> m_argv;
  std::string m_readyMarker;
  pid_t m_pid = -1;
  std::thread m_reader;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_ready = false;
  bool m_ended = false;
  Clock::time_point m_readyAt;
};

struct Options {
  std::string arvoFim;
  int dirs = 20000;
  int samples = 1000;
  double rateSeconds = 1.0;
  bool inotifywait = true;
  std::string parent;
  std::string existing;
};

struct Figures {
  std::optional<double> setup;
  std::optional<double> p50, p99;  // microseconds
  int lostProbes = 0;
  std::optional<double> rate;  // highest lossless events/s
  bool writerBound = false;
};

// Three levels: 20 x 20 x (dirs / 400) directories.
int BuildTree(const std::string& root, int dirs) {
  const int leaves = std::max(1, dirs / 400 - 1);
  int made = 0;
  for (int a = 0; a < 20; ++a) {
    const std::string da = root + "/d" + std::to_string(a);
    made += ::mkdir(da.c_str(), 0755) == 0;
    for (int b = 0; b < 20; ++b) {
      const std::string db = da + "/d" + std::to_string(b);
      made += ::mkdir(db.c_str(), 0755) == 0;
      for (int c = 0; c < leaves; ++c) {
        made += ::mkdir((db + "/d" + std::to_string(c)).c_str(), 0755) == 0;
      }
    }
  }
  return made;
}

ScopedFd OpenForWrite(const std::string& path) {
  return ScopedFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
}

void MeasureLatency(Subject& s, const std::string& io, int samples, Figures& f) {
  ScopedFd probe = OpenForWrite(io + "/" + kProbeName);
  std::vector<double> micros;
  for (int i = 0; i < samples; ++i) {
    const std::uint64_t seen = s.sink.Probes();
    const Clock::time_point begin = Clock::now();
    if (::pwrite(probe.Get(), "x", 1, 0) != 1) break;
    const auto at = s.sink.WaitProbe(seen);
    if (!at) {
      ++f.lostProbes;
      continue;
    }
    micros.push_back(std::chrono::duration<double, std::micro>(*at - begin).count());
  }
  if (micros.empty()) return;
  std::sort(micros.begin(), micros.end());
  f.p50 = micros[micros.size() / 2];
  f.p99 = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
}

// Writes `total` events paced at `rate`, noting each file's last write in
// `lastWrite`; returns the achieved rate.
double PacedWrites(const std::vector<ScopedFd>& files, double rate, std::uint64_t total,
                   std::vector<Clock::rep>& lastWrite) {
  lastWrite.assign(files.size(), 0);
  const Clock::time_point begin = Clock::now();
  for (std::uint64_t i = 0; i < total; ++i) {
    const auto due = begin + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(i / rate));
    if (due - Clock::now() > std::chrono::microseconds(200)) std::this_thread::sleep_until(due);
    const std::size_t file = i % files.size();
    lastWrite[file] = Clock::now().time_since_epoch().count();
    (void)::pwrite(files[file].Get(), "x", 1, 0);
  }
  return total / Seconds(Clock::now() - begin);
}

// Waits until `done` holds or no event came for a second; returns `done`.
template <class Done>
bool Drain(EventSink& sink, Done done) {
  std::uint64_t last = sink.RateEvents();
  Clock::time_point progress = Clock::now();
  while (!done() && Clock::now() - progress < std::chrono::seconds(1)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (const std::uint64_t now = sink.RateEvents(); now != last) {
      last = now;
      progress = Clock::now();
    }
  }
  return done();
}

// Sends one paced burst; true when every file's last write was reported and
// no loss was.
bool RateHolds(Subject& s, const std::vector<ScopedFd>& files, double rate, double seconds,
               double* achieved) {
  s.sink.ResetRate();
  const auto total = static_cast<std::uint64_t>(rate * seconds);
  std::vector<Clock::rep> lastWrite;
  *achieved = PacedWrites(files, rate, total, lastWrite);
  const bool covered = Drain(s.sink, [&] { return s.sink.Covers(lastWrite); });
  const bool holds = covered && !s.sink.Lost();
  std::fprintf(stderr,
               "watch_bench: %s at %.0f/s: %llu events for %llu writes, %s (achieved %.0f/s)\n",
               s.Name().c_str(), rate, static_cast<unsigned long long>(s.sink.RateEvents()),
               static_cast<unsigned long long>(total),
               holds     ? "every file reported"
               : covered ? "loss reported"
                         : "a file's last write unreported",
               *achieved);
  return holds;
}

// Doubles the rate until events are lost or the writer cannot keep up, then
// narrows the step between the last rate that held and the first that did not.
void MeasureRate(Subject& s, const std::string& io, double seconds, Figures& f) {
  std::vector<ScopedFd> files;
  for (int i = 0; i < kRateFiles; ++i) {
    files.push_back(OpenForWrite(io + "/" + kRateMark + std::to_string(i)));
  }
  Drain(s.sink, [] { return false; });  // the creations above settle first
  double held = 0, failed = 0, achieved = 0;
  for (double rate = 5000; rate <= 640000; rate *= 2) {
    if (!RateHolds(s, files, rate, seconds, &achieved)) {
      failed = rate;
      break;
    }
    f.rate = held = achieved;
    if (achieved < 0.8 * rate) {
      f.writerBound = true;
      return;
    }
  }
  for (int step = 0; step < 2 && failed > 0 && held > 0; ++step) {
    const double rate = (held + failed) / 2;
    if (RateHolds(s, files, rate, seconds, &achieved)) {
      f.rate = held = achieved;
    } else {
      failed = rate;
    }
  }
}

Figures Measure(Subject& s, const std::string& root, const Options& o, double setup) {
  Figures f;
  f.setup = setup;
  std::fprintf(stderr, "watch_bench: measuring %s\n", s.Name().c_str());
  if (!s.SeesOwnWrites()) {
    std::fprintf(stderr, "watch_bench: %s ignores this process's writes: setup only\n",
                 s.Name().c_str());
    return f;
  }
  if (!s.Start(root)) return f;
  MeasureLatency(s, root + "/io", o.samples, f);
  MeasureRate(s, root + "/io", o.rateSeconds, f);
  s.Stop();
  return f;
}

std::optional<double> TimeSetup(Subject& s, const std::string& root) {
  const auto t = s.Start(root);
  s.Stop();
  return t;
}

std::string Show(std::optional<double> v, const char* format) {
  if (!v) return "-";
  char text[64];
  std::snprintf(text, sizeof text, format, *v);
  return text;
}

void Report(const std::vector<std::pair<std::string, Figures>>& rows) {
  std::printf("%-12s %10s %10s %10s %14s\n", "subject", "setup_s(*)", "p50_us", "p99_us",
              "lossless_ev/s");
  for (const auto& [name, f] : rows) {
    std::string rate = Show(f.rate, "%.0f");
    if (f.writerBound) rate = ">=" + rate;
    std::printf("%-12s %10s %10s %10s %14s", name.c_str(), Show(f.setup, "%.3f").c_str(),
                Show(f.p50, "%.1f").c_str(), Show(f.p99, "%.1f").c_str(), rate.c_str());
    if (f.lostProbes) std::printf("  (%d probe events missing)", f.lostProbes);
    std::printf("\n");
  }
  std::printf("(*) best of 3 runs\n");
  const auto base = std::find_if(rows.begin(), rows.end(),
                                 [](const auto& r) { return r.first == "inotifywait"; });
  if (base == rows.end()) return;
  auto ratio = [](std::optional<double> a, std::optional<double> b) -> std::optional<double> {
    if (!a || !b || *b == 0) return std::nullopt;
    return *a / *b;
  };
  std::printf("\nratios against inotifywait (setup goal <= 1.5; p99 goal < 1000 us):\n");
  for (const auto& [name, f] : rows) {
    if (name == "inotifywait") continue;
    std::printf("%-12s setup x%s  p50 x%s  p99 x%s  rate x%s%s\n", name.c_str(),
                Show(ratio(f.setup, base->second.setup), "%.2f").c_str(),
                Show(ratio(f.p50, base->second.p50), "%.2f").c_str(),
                Show(ratio(f.p99, base->second.p99), "%.2f").c_str(),
                Show(ratio(f.rate, base->second.rate), "%.2f").c_str(),
                f.writerBound ? " (writer-bound: at least)" : "");
  }
}

bool ParseOptions(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const bool hasValue = i + 1 < argc;
    if (a == "--arvo-fim" && hasValue) {
      o.arvoFim = argv[++i];
    } else if (a == "--dirs" && hasValue) {
      o.dirs = std::atoi(argv[++i]);
    } else if (a == "--samples" && hasValue) {
      o.samples = std::atoi(argv[++i]);
    } else if (a == "--rate-seconds" && hasValue) {
      o.rateSeconds = std::atof(argv[++i]);
    } else if (a == "--parent" && hasValue) {
      o.parent = argv[++i];
    } else if (a == "--existing" && hasValue) {
      o.existing = argv[++i];
    } else if (a == "--no-inotifywait") {
      o.inotifywait = false;
    } else {
      std::fprintf(stderr,
                   "usage: watch_bench [--arvo-fim PATH] [--dirs N] [--samples N] "
                   "[--rate-seconds S] [--parent DIR] [--no-inotifywait] [--existing DIR]\n");
      return false;
    }
  }
  if (o.arvoFim.empty()) {
    std::error_code ec;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (!ec) o.arvoFim = (self.parent_path() / "arvo-fim").string();
  }
  if (o.parent.empty()) {
    o.parent = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm"
                                               : std::filesystem::temp_directory_path().string();
  }
  return o.dirs > 0 && o.samples > 0 && o.rateSeconds > 0;
}

std::unique_ptr<Subject> MakeInotifywait() {
  return std::make_unique<ProcessSubject>(
      "inotifywait",
      std::vector<std::string>{"inotifywait", "-m", "-r", "-e", "modify", "-e", "attrib", "-e",
                               "moved_from", "-e", "moved_to", "-e", "create", "-e", "delete",
                               "--format", "%w%f %e"},
      "Watches established");
}

// Best of 3 setup times per subject, interleaved so drift hits all alike,
// after one untimed setup that warms the directory cache.
std::vector<std::optional<double>> BestSetups(const std::vector<std::unique_ptr<Subject>>& subjects,
                                              const std::string& root) {
  (void)TimeSetup(*subjects.front(), root);
  std::vector<std::optional<double>> setups(subjects.size());
  for (int round = 0; round < 3; ++round) {
    for (std::size_t i = 0; i < subjects.size(); ++i) {
      const auto t = TimeSetup(*subjects[i], root);
      if (!t) continue;
      if (!setups[i] || *t < *setups[i]) setups[i] = t;
    }
  }
  return setups;
}

// Directories under `root`, itself included, as a watcher walking it without
// following links sees them.
int CountDirectories(const std::string& root) {
  int count = 1;
  std::error_code ec;
  namespace fs = std::filesystem;
  for (fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec),
       end;
       it != end; it.increment(ec)) {
    if (ec) break;
    count += it->is_directory(ec) && !it->is_symlink(ec);
  }
  return count;
}

// Setup time and kernel objects only: `root` is not ours, so nothing is
// written into it.
int MeasureExisting(const Options& o) {
  std::printf("watch_bench: %d directories under %s\n", CountDirectories(o.existing),
              o.existing.c_str());
  std::vector<std::unique_ptr<Subject>> subjects;
  subjects.push_back(std::make_unique<ProviderSubject>("provider/inotify", MakeInotify, true));
  subjects.push_back(std::make_unique<ProviderSubject>("provider/fanotify", MakeFanotify, false));
  if (o.inotifywait) subjects.push_back(MakeInotifywait());
  const auto setups = BestSetups(subjects, o.existing);
  const double base = o.inotifywait ? setups.back().value_or(0) : 0;
  std::printf("%-17s %11s %8s %14s\n", "subject", "setup_ms(*)", "watches", "x inotifywait");
  for (std::size_t i = 0; i < subjects.size(); ++i) {
    std::optional<double> ms, ratio;
    if (setups[i]) ms = *setups[i] * 1000;
    if (setups[i] && base > 0) ratio = *setups[i] / base;
    std::printf("%-17s %11s %8s %14s\n", subjects[i]->Name().c_str(), Show(ms, "%.3f").c_str(),
                subjects[i]->watches ? std::to_string(*subjects[i]->watches).c_str() : "-",
                Show(ratio, "%.3g").c_str());
  }
  std::printf("(*) best of 3 runs\n");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (!ParseOptions(argc, argv, o)) return 2;
  ::signal(SIGPIPE, SIG_IGN);
  if (!o.existing.empty()) return MeasureExisting(o);
  std::string root = o.parent + "/watch-bench-XXXXXX";
  if (!::mkdtemp(root.data())) return 2;
  ::setenv("ARVO_FIM_DB", (root + ".db").c_str(), 1);
  ::setenv("ARVO_FIM_STORAGE", (root + ".storage").c_str(), 1);
  ::mkdir((root + "/io").c_str(), 0755);
  const int made = BuildTree(root, o.dirs);
  std::printf("watch_bench: %d directories under %s\n", made + 2, root.c_str());

  std::vector<std::unique_ptr<Subject>> subjects;
  subjects.push_back(std::make_unique<ProviderSubject>("provider/inotify", MakeInotify, true));
  subjects.push_back(std::make_unique<ProviderSubject>("provider/fanotify", MakeFanotify, false));
  if (::access(o.arvoFim.c_str(), X_OK) == 0) {
    for (const char* backend : {"inotify", "fanotify"}) {
      subjects.push_back(std::make_unique<ProcessSubject>(
          std::string("arvo-fim/") + backend,
          std::vector<std::string>{o.arvoFim, "watch", "--backend", backend, "--format", "json"},
          "arvo-fim: watching"));
    }
  } else {
    std::printf("arvo-fim not found at '%s': skipped\n", o.arvoFim.c_str());
  }
  if (o.inotifywait) subjects.push_back(MakeInotifywait());

  const auto setups = BestSetups(subjects, root);
  std::vector<std::pair<std::string, Figures>> rows;
  for (std::size_t i = 0; i < subjects.size(); ++i) {
    if (!setups[i]) {
      std::printf("%s did not start: skipped\n", subjects[i]->Name().c_str());
      continue;
    }
    rows.emplace_back(subjects[i]->Name(), Measure(*subjects[i], root, o, *setups[i]));
  }
  Report(rows);
  for (const auto& subject : subjects) {
    if (subject->watches)
      std::printf("%s: %d kernel watch(es) or mark(s) for the tree\n", subject->Name().c_str(),
                  *subject->watches);
  }
  std::fflush(stdout);
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  std::filesystem::remove(root + ".db", ec);
  std::filesystem::remove(root + ".storage", ec);
  return 0;
}
