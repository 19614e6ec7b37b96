#include "pax_common/tools_03.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace pax::tools {
namespace {

class ToolsTest : public ::testing::Test {
 protected:
  ToolsTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tools-XXXXXX").string();
    m_dir = ::mkdtemp(pattern.data());
  }
  // std::filesystem cannot remove a chain deeper than the kernel's path
  // limit; rm walks it relative to each directory.
  ~ToolsTest() override { (void)std::system(("rm -rf '" + m_dir + "'").c_str()); }

  // A directory chain below the temporary directory whose absolute path is
  // at least `length` bytes; returns that path.
  std::string DeepDirectory(std::size_t length) {
    std::string path = m_dir;
    const std::string component(200, 'd');
    int parent = ::open(m_dir.c_str(), O_RDONLY | O_DIRECTORY);
    while (path.size() < length) {
      EXPECT_EQ(::mkdirat(parent, component.c_str(), 0755), 0);
      const int child = ::openat(parent, component.c_str(), O_RDONLY | O_DIRECTORY);
      ::close(parent);
      parent = child;
      path += "/" + component;
    }
    ::close(parent);
    return path;
  }

  std::string m_dir;
};

TEST_F(ToolsTest, StatusDoesNotFollowAFinalLink) {
  ASSERT_EQ(::symlink("/", (m_dir + "/link").c_str()), 0);
  std::uint32_t type = 0;
  EXPECT_EQ(orn::filesystem::GetFileType(m_dir + "/link", type), 0);
  EXPECT_EQ(type, static_cast<std::uint32_t>(S_IFLNK));
  EXPECT_EQ(orn::filesystem::GetFileType(m_dir, type), 0);
  EXPECT_EQ(type, 0x4000u);
  EXPECT_EQ(orn::filesystem::GetFileType(m_dir + "/missing", type), orn::errors::kFileNotFound);

  struct stat st {};
  errno = 0;
  EXPECT_EQ(LStatFile(m_dir + "/missing", &st), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(ToolsTest, PathsBeyondTheKernelLimitAreWalkedInPieces) {
  // Just past the limit, and far past it (several pieces).
  for (const std::size_t length : {std::size_t{4096}, std::size_t{9000}}) {
    const std::string deep = DeepDirectory(length);
    ASSERT_GE(deep.size(), length);
    struct stat direct {};
    EXPECT_EQ(::lstat(deep.c_str(), &direct), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);

    struct stat st {};
    EXPECT_EQ(LStat(deep, st), 0) << deep.size();
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(LStat(deep + "/", st), 0);
    EXPECT_EQ(LStat(deep + "/missing", st), orn::errors::kFileNotFound);

    struct statfs fs {};
    EXPECT_EQ(StatFs(deep, fs), 0);
    bool pseudo = true;
    EXPECT_EQ(IsPseudoFileSystem(deep, pseudo), 0);
    EXPECT_FALSE(pseudo);

    // The attribute read reaches the object: the answer is about its ACL
    // (none here, or no support), never that the name is too long.
    errno = 0;
    EXPECT_EQ(LGetXattr(deep, "system.posix_acl_access", nullptr, 0), -1);
    EXPECT_TRUE(errno == ENODATA || errno == EOPNOTSUPP) << errno;
    EXPECT_EQ(LGetXattr(deep + "/missing", "system.posix_acl_access", nullptr, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    (void)std::system(("rm -rf '" + m_dir + "/" + std::string(200, 'd') + "'").c_str());
  }
}

TEST_F(ToolsTest, APieceWithoutSlashIsNotFound) {
  struct stat st {};
  EXPECT_EQ(LStat(std::string(5000, 'a'), st), orn::errors::kFileNotFound);
  EXPECT_EQ(LStat(m_dir + "/" + std::string(4096, 'a'), st), orn::errors::kFileNotFound);
  errno = 0;
  EXPECT_EQ(LStatFile(std::string(5000, 'a'), &st), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(ToolsTest, PseudoFileSystemsAreRecognised) {
  EXPECT_TRUE(IsPseudoFileSystemMagic(0x9FA0));
  EXPECT_TRUE(IsPseudoFileSystemMagic(0x62656572));
  EXPECT_TRUE(IsPseudoFileSystemMagic(0x9FA2));
  EXPECT_FALSE(IsPseudoFileSystemMagic(0x01021994));  // tmpfs

  bool pseudo = false;
  EXPECT_EQ(IsPseudoFileSystem("/proc/self/status", pseudo), 0);
  EXPECT_TRUE(pseudo);
  EXPECT_EQ(IsPseudoFileSystem(m_dir, pseudo), 0);
  EXPECT_FALSE(pseudo);
  EXPECT_EQ(IsPseudoFileSystem(m_dir + "/missing", pseudo), orn::errors::kFileNotFound);
}

}  // namespace
}  // namespace pax::tools
