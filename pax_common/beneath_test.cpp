#include "pax_common/beneath.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace pax::tools {
namespace {

// Every case runs twice: with openat2 (where the kernel has it) and with the
// portable walk, which must give the same answers.
class BeneathTest : public ::testing::TestWithParam<bool> {
 protected:
  BeneathTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "beneath-XXXXXX").string();
    m_dir = ::mkdtemp(pattern.data());
    // root/a/b/f, outside/b/f, root/swapped -> ../outside, root/a/flink -> b/f
    for (const char* d : {"/root", "/root/a", "/root/a/b", "/outside", "/outside/b"})
      EXPECT_EQ(::mkdir((m_dir + d).c_str(), 0755), 0);
    for (const char* f : {"/root/a/b/f", "/outside/b/f"}) {
      const int fd = ::open((m_dir + f).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
      EXPECT_GE(fd, 0);
      ::close(fd);
    }
    EXPECT_EQ(::symlink("../outside", (m_dir + "/root/swapped").c_str()), 0);
    EXPECT_EQ(::symlink("b/f", (m_dir + "/root/a/flink").c_str()), 0);
    EXPECT_EQ(::symlink("root", (m_dir + "/via").c_str()), 0);
    m_root = ::open((m_dir + "/root").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    SetKernelBeneathEnabled(GetParam());
  }
  ~BeneathTest() override {
    SetKernelBeneathEnabled(true);
    ::close(m_root);
    (void)std::system(("rm -rf '" + m_dir + "'").c_str());
  }

  static void ExpectRefused(int answer, int err) {
    EXPECT_EQ(answer, -1);
    EXPECT_EQ(errno, err) << std::strerror(errno);
  }
  static void ExpectOpened(int fd) {
    EXPECT_GE(fd, 0) << std::strerror(errno);
    if (fd >= 0) ::close(fd);
  }

  std::string m_dir;
  int m_root = -1;
};

TEST_P(BeneathTest, TheSwitchSelectsTheResolution) {
  if (GetParam() && !KernelBeneathEnabled()) GTEST_SKIP() << "no openat2 on this kernel";
  EXPECT_EQ(KernelBeneathEnabled(), GetParam());
}

TEST_P(BeneathTest, PathsWithoutLinksResolve) {
  ExpectOpened(OpenBeneath(m_root, "a/b/f", O_RDONLY));
  ExpectOpened(OpenBeneath(m_root, "a//./b/", O_PATH | O_DIRECTORY));
  struct stat st {};
  EXPECT_EQ(LStatBeneath(m_root, "a/b/f", st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(LStatBeneath(m_root, "a", st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  struct statfs fs {};
  EXPECT_EQ(StatFsBeneath(m_root, "a/b/f", fs), 0);
  const ssize_t acl = LGetXattrBeneath(m_root, "a/b/f", "system.posix_acl_access", nullptr, 0);
  EXPECT_TRUE(acl >= 0 || errno == ENODATA || errno == EOPNOTSUPP) << std::strerror(errno);
  ExpectRefused(OpenBeneath(m_root, "a/missing", O_RDONLY), ENOENT);
}

TEST_P(BeneathTest, ASymbolicLinkOnTheWayIsRefused) {
  ExpectRefused(OpenBeneath(m_root, "swapped/b/f", O_RDONLY), ELOOP);
  ExpectRefused(OpenBeneath(m_root, "swapped/b", O_PATH | O_DIRECTORY), ELOOP);
  struct stat st {};
  ExpectRefused(LStatBeneath(m_root, "swapped/b/f", st), ELOOP);
  ExpectRefused(LStatBeneath(m_root, "swapped/f", st), ELOOP);
  ExpectRefused(OpenBeneath(m_root, "swapped/", O_PATH | O_DIRECTORY), ELOOP);
  ExpectRefused(static_cast<int>(LGetXattrBeneath(m_root, "swapped/b/f", "user.x", nullptr, 0)),
                ELOOP);
  struct statfs fs {};
  ExpectRefused(StatFsBeneath(m_root, "swapped/b/f", fs), ELOOP);
}

TEST_P(BeneathTest, AFinalLinkIsTheLinkItself) {
  struct stat st {};
  EXPECT_EQ(LStatBeneath(m_root, "a/flink", st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ(LStatBeneath(m_root, "swapped", st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  ExpectRefused(OpenBeneath(m_root, "a/flink", O_RDONLY), ELOOP);
  ExpectRefused(OpenBeneath(m_root, "swapped", O_RDONLY | O_DIRECTORY), ENOTDIR);
  const int link = OpenBeneath(m_root, "a/flink", O_PATH);
  ASSERT_GE(link, 0) << std::strerror(errno);
  EXPECT_EQ(::fstat(link, &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  ::close(link);
}

TEST_P(BeneathTest, LeavingTheDirectoryIsRefused) {
  struct stat st {};
  ExpectRefused(OpenBeneath(m_root, "../outside/b/f", O_RDONLY), EXDEV);
  ExpectRefused(OpenBeneath(m_root, "a/../../outside", O_PATH), EXDEV);
  ExpectRefused(OpenBeneath(m_root, (m_dir + "/outside/b/f").c_str(), O_RDONLY), EXDEV);
  ExpectRefused(LStatBeneath(m_root, "..", st), EXDEV);
  ExpectRefused(LStatBeneath(m_root, "a/b/../../../outside", st), EXDEV);
}

TEST_P(BeneathTest, ARootReachedThroughALinkAndPathsPastPathMaxResolve) {
  const int viaLink = ::open((m_dir + "/via").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(viaLink, 0);
  ExpectOpened(OpenBeneath(viaLink, "a/b/f", O_RDONLY));

  // A chain of directories longer than the kernel's path limit below a/.
  const std::string component(200, 'd');
  std::string relative = "a";
  int parent = OpenBeneath(viaLink, "a", O_RDONLY | O_DIRECTORY);
  while (relative.size() < 5000) {
    ASSERT_EQ(::mkdirat(parent, component.c_str(), 0755), 0);
    const int child = ::openat(parent, component.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ::close(parent);
    parent = child;
    relative += "/" + component;
  }
  ::close(parent);
  struct stat st {};
  EXPECT_EQ(LStatBeneath(viaLink, relative, st), 0) << std::strerror(errno);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  ExpectOpened(OpenBeneath(viaLink, relative, O_RDONLY | O_DIRECTORY));
  ::close(viaLink);
}

INSTANTIATE_TEST_SUITE_P(KernelAndPortable, BeneathTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "Openat2" : "Portable";
                         });

}  // namespace
}  // namespace pax::tools
