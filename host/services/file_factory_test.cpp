#include "host/services/file_factory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <string>

#include "host/util/scoped_fd.h"
#include "host/util/test_temp_dir.h"
#include "orn/text.h"

namespace arvo::host {
namespace {

class FileFactoryTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(CreateFileFactory(m_factory), 0); }

  orn::result_t Open(const std::string& path, orn::RefPtr<orn::IIO>& io) {
    const std::u16string wide = orn::text::NarrowToWide(path);
    return m_factory->CreateFile(wide.c_str(), orn::file::kAccessRead, orn::file::kShareRead,
                                 orn::file::kOpenExisting, 0, io.Ref());
  }

  static std::string ReadAll(orn::IIO& io) {
    std::string out;
    char buf[7];  // small on purpose: several reads
    std::size_t got = 0;
    while (ORN_SUCCEEDED(io.Read(buf, sizeof buf, &got)) && got != 0) out.append(buf, got);
    return out;
  }

  test::TempDir m_dir;
  orn::RefPtr<orn::IFileFactory> m_factory;
};

TEST_F(FileFactoryTest, OpensRegularFileWithItsIdentity) {
  const std::string path = m_dir.Write("\xff\xfe-not-utf8", "hello, world");
  orn::RefPtr<orn::IIO> io;
  ASSERT_EQ(Open(path, io), 0);
  EXPECT_EQ(ReadAll(*io), "hello, world");

  struct stat st {};
  ASSERT_EQ(::lstat(path.c_str(), &st), 0);
  orn::FileIdentity id;
  ASSERT_EQ(io->GetIdentity(&id), 0);
  EXPECT_EQ(id.dev, st.st_dev);
  EXPECT_EQ(id.ino, st.st_ino);
  EXPECT_EQ(id.size, 12);
  EXPECT_TRUE(S_ISREG(id.mode));
}

TEST_F(FileFactoryTest, RefusesWhatIsNotARegularFile) {
  const std::string target = m_dir.Write("target", "x");
  ASSERT_EQ(::symlink(target.c_str(), (m_dir / "link").c_str()), 0);
  ASSERT_EQ(::mkfifo((m_dir / "fifo").c_str(), 0600), 0);  // no writer: a blocking open hangs
  ASSERT_EQ(::mkdir((m_dir / "dir").c_str(), 0700), 0);

  orn::RefPtr<orn::IIO> io;
  EXPECT_EQ(Open(m_dir / "link", io), orn::ResultFromErrno(ELOOP));
  EXPECT_EQ(Open(m_dir / "fifo", io), orn::errors::kNotSupported);
  EXPECT_EQ(Open(m_dir / "dir", io), orn::ResultFromErrno(EISDIR));
  EXPECT_EQ(Open("/dev/null", io), orn::errors::kNotSupported);
  EXPECT_EQ(Open(m_dir / "missing", io), orn::errors::kFileNotFound);
  EXPECT_FALSE(io);
}

TEST_F(FileFactoryTest, OpensPathLongerThanPathMax) {
  const std::string name(200, 'd');
  std::string path = m_dir.Path();
  ScopedFd dir(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  while (path.size() <= PATH_MAX + 300) {
    ASSERT_EQ(::mkdirat(dir.Get(), name.c_str(), 0700), 0);
    dir.Reset(::openat(dir.Get(), name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(dir.Valid());
    path += "/" + name;
  }
  ScopedFd file(::openat(dir.Get(), "deep", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(WriteAll(file.Get(), "deep content", 12), 0);

  orn::RefPtr<orn::IIO> io;
  ASSERT_EQ(Open(path + "//deep", io), 0);
  EXPECT_EQ(ReadAll(*io), "deep content");
  EXPECT_EQ(Open(path + "/missing", io), orn::errors::kFileNotFound);
  EXPECT_EQ(Open("/" + std::string(PATH_MAX + 10, 'x'), io), orn::errors::kInvalidPathName);
}

}  // namespace
}  // namespace arvo::host

namespace arvo::host {
namespace {

// Opens beneath a directory: what is found there, never what a link leads to.
TEST_F(FileFactoryTest, OpensBeneathADirectoryWithoutFollowingLinks) {
  orn::RefPtr<orn::IFileFactoryAt> at;
  ASSERT_EQ(orn::QueryInterface(m_factory.Get(), at), 0);
  ASSERT_EQ(::mkdir((m_dir / "area").c_str(), 0700), 0);
  ASSERT_EQ(::mkdir((m_dir / "area/sub").c_str(), 0700), 0);
  m_dir.Write("area/sub/f", "inside");
  ASSERT_EQ(::mkdir((m_dir / "outside").c_str(), 0700), 0);
  m_dir.Write("outside/f", "outside");
  ASSERT_EQ(::symlink((m_dir / "outside").c_str(), (m_dir / "area/swapped").c_str()), 0);
  ScopedFd area(::open((m_dir / "area").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));

  auto openAt = [&](const char16_t* relative, orn::RefPtr<orn::IIO>& io) {
    return at->CreateFileAt(area.Get(), relative, orn::file::kAccessRead, orn::file::kShareRead,
                            orn::file::kOpenExisting, 0, io.Ref());
  };
  orn::RefPtr<orn::IIO> io;
  ASSERT_EQ(openAt(u"sub/f", io), 0);
  EXPECT_EQ(ReadAll(*io), "inside");
  io.Reset();
  EXPECT_EQ(openAt(u"swapped/f", io), orn::ResultFromErrno(ELOOP));
  EXPECT_EQ(openAt(u"../outside/f", io), orn::ResultFromErrno(EXDEV));
  EXPECT_EQ(openAt(u"sub", io), orn::ResultFromErrno(EISDIR));
  EXPECT_FALSE(io);
  EXPECT_EQ(at->CreateFileAt(-1, u"sub/f", orn::file::kAccessRead, orn::file::kShareRead,
                             orn::file::kOpenExisting, 0, io.Ref()),
            orn::ResultFromErrno(EBADF));
}

}  // namespace
}  // namespace arvo::host
