// Test doubles and a fixture shared by the on-demand engine's unit tests: a
// temporary directory with its own database file, a file factory over real
// files whose reported identity can be falsified, a deterministic stand-in
// digest, and a recording integrity-monitor publisher.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "change_publisher.h"
#include "filesystem_services/sha256.h"
#include "integrity_database.h"
#include "on_demand_context.h"
#include "orn/file.h"
#include "orn/simple_object.h"
#include "orn/text.h"
#include "pax_common/beneath.h"
#include "tests/fake_host.h"
#include "tests/fake_services.h"

namespace pax::fim::test {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "odfim-XXXXXX").string();
    m_path = ::mkdtemp(pattern.data());
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
  }
  const std::string& Path() const { return m_path; }
  std::string operator/(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

inline void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

class FakeIO final : public orn::SimpleObject<orn::IIO> {
 public:
  FakeIO(int fd, std::uint64_t inoDelta) : m_fd(fd), m_inoDelta(inoDelta) {}
  ~FakeIO() override { ::close(m_fd); }
  orn::result_t Read(void* buffer, std::size_t size, std::size_t* read) override {
    const ssize_t n = ::read(m_fd, buffer, size);
    if (n < 0) return orn::ResultFromErrno(errno);
    *read = static_cast<std::size_t>(n);
    return 0;
  }
  orn::result_t GetIdentity(orn::FileIdentity* identity) const override {
    struct stat st {};
    if (::fstat(m_fd, &st) != 0) return orn::ResultFromErrno(errno);
    identity->dev = st.st_dev;
    identity->ino = st.st_ino + m_inoDelta;
    return 0;
  }

 private:
  int m_fd;
  std::uint64_t m_inoDelta;
};

// Opens real files, by path or beneath a directory (IFileFactoryAt);
// SimulateReplacement makes every opened file report another inode, as if it
// had been replaced after its status was taken (and again whenever the
// status is taken anew). `beforeOpen`, when set, runs with the path just
// before each open by path.
class FakeFileFactory final : public orn::SimpleObject<orn::IFileFactory, orn::IFileFactoryAt> {
 public:
  orn::result_t CreateFileAt(int directoryFd, const char16_t* relativePath, std::uint32_t,
                             std::uint32_t, std::uint32_t, std::uint32_t, orn::IIO** io) override {
    const std::string narrow = orn::text::WideToNarrow(relativePath);
    const int fd = pax::tools::OpenBeneath(directoryFd, narrow, O_RDONLY | O_NONBLOCK);
    if (fd < 0) return orn::ResultFromErrno(errno);
    *io = new FakeIO(fd, m_inoDelta);
    ++m_opens;
    return 0;
  }
  orn::result_t CreateFile(const char16_t* path, std::uint32_t, std::uint32_t, std::uint32_t,
                           std::uint32_t, orn::IIO** io) override {
    const std::string narrow = orn::text::WideToNarrow(path);
    if (beforeOpen) beforeOpen(narrow);
    const int fd = ::open(narrow.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return orn::ResultFromErrno(errno);
    *io = new FakeIO(fd, m_inoDelta);
    ++m_opens;
    return 0;
  }
  void SimulateReplacement() { m_inoDelta = 1; }
  int Opens() const { return m_opens; }
  std::function<void(const std::string&)> beforeOpen;

 private:
  std::uint64_t m_inoDelta = 0;
  int m_opens = 0;
};

// Not SHA-256: a cheap digest that differs for different contents, enough to
// observe what the engine does with it.
class FakeSha256 final : public orn::SimpleObject<filesystem_services::ISha256HashProvider> {
 public:
  orn::result_t GetHashByIO(orn::IIO* io, filesystem_services::Sha256Hash& hash) override {
    std::string content;
    char buffer[4096];
    std::size_t n = 0;
    while (ORN_SUCCEEDED(io->Read(buffer, sizeof(buffer), &n)) && n > 0) content.append(buffer, n);
    return GetHashByBuffer(content.data(), content.size(), hash);
  }
  orn::result_t GetHashByBuffer(const void* data, std::size_t size,
                                filesystem_services::Sha256Hash& hash) override {
    hash.fill(0);
    std::uint64_t h = 1469598103934665603ull;
    const auto* p = static_cast<const std::uint8_t*>(data);
    for (std::size_t i = 0; i < size; ++i) h = (h ^ p[i]) * 1099511628211ull;
    for (std::size_t i = 0; i < hash.size(); ++i)
      hash[i] = static_cast<std::uint8_t>(h >> (i % 8 * 8)) + 1;
    return 0;
  }
};

class RecordingDetectPublisher final : public orn::SimpleObject<IIntegrityMonitorPublisher> {
 public:
  struct Call {
    std::uint32_t type;
    std::string path;
    Sha256Digest digest;
  };
  orn::result_t PublishDetectEvent(std::uint32_t type, const orn::types::string8_t& path,
                                   const Sha256Digest* digest, const DetectEventExtra*) override {
    std::lock_guard lock(m_mutex);
    m_calls.push_back({type, path, digest ? *digest : Sha256Digest{}});
    return 0;
  }
  std::vector<Call> Calls() const {
    std::lock_guard lock(m_mutex);
    return m_calls;
  }

 private:
  mutable std::mutex m_mutex;
  std::vector<Call> m_calls;
};

// A temporary directory holding the database (ARVO_FIM_DB points at it) and
// a context wired to recording fakes.
class EngineTest : public ::testing::Test {
 protected:
  EngineTest() : db(tracer.Get()), publisher(context) {
    ::setenv(kDatabasePathVariable, (dir / "fim.db").c_str(), 1);
    taskInfo.taskId = 7;
    taskInfo.runtimeTaskId = 99;
    taskInfo.defaultName = u"Default";
    settings.ruleId = u"rule-1";
    context.tracer = tracer.Get();
    context.settings = &settings;
    context.taskInfo = &taskInfo;
    context.eventPublisher = events.Get();
    context.integrityMonitorPublisher = detects.Get();
    context.sha256Provider = sha.Get();
    context.fileFactory = files.Get();
  }
  void SetUp() override {
    ASSERT_EQ(db.Open(), 0);
    ASSERT_EQ(db.InitializeDatabase(), 0);
    context.db = db.Handle();
  }
  ~EngineTest() override { ::unsetenv(kDatabasePathVariable); }

  TempDir dir;
  TempDir area;
  orn::RefPtr<arvo::test::RecordingTracer> tracer = orn::MakeSimple<arvo::test::RecordingTracer>();
  orn::RefPtr<arvo::test::RecordingEventPublisher> events =
      orn::MakeSimple<arvo::test::RecordingEventPublisher>();
  orn::RefPtr<RecordingDetectPublisher> detects = orn::MakeSimple<RecordingDetectPublisher>();
  orn::RefPtr<FakeSha256> sha = orn::MakeSimple<FakeSha256>();
  orn::RefPtr<FakeFileFactory> files = orn::MakeSimple<FakeFileFactory>();
  settings::ODFIMSettings settings;
  TaskInfo taskInfo;
  OnDemandContext context;
  IntegrityDatabase db;
  ChangePublisher publisher;
};

}  // namespace pax::fim::test
